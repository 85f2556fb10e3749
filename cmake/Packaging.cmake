# The desktop side of an installed Stonewall: the browser's launcher entry,
# icon and AppStream metainfo, manual pages and bash completion made from the
# programs' own help, and the Debian package (CPack) that carries them.
# Included by the top-level CMakeLists.txt after the programs.

find_package(Python3 REQUIRED COMPONENTS Interpreter)

set(_desktop "${PROJECT_SOURCE_DIR}/resources/desktop")
set(_app_id "com.mapleharbor.Stonewall.Browser")
set(_generated "${CMAKE_BINARY_DIR}/desktop")
file(MAKE_DIRECTORY "${_generated}")

# The metainfo's release line follows the project version; its date is the
# last commit's (SOURCE_DATE_EPOCH when given), so a rebuild does not change it.
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  string(TIMESTAMP STONEWALL_RELEASE_DATE "%Y-%m-%d" UTC)
else()
  execute_process(COMMAND git -C "${PROJECT_SOURCE_DIR}" log -1 --format=%cs
    OUTPUT_VARIABLE STONEWALL_RELEASE_DATE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(NOT STONEWALL_RELEASE_DATE)
    string(TIMESTAMP STONEWALL_RELEASE_DATE "%Y-%m-%d" UTC)
  endif()
endif()
configure_file("${_desktop}/${_app_id}.metainfo.xml.in" "${_generated}/${_app_id}.metainfo.xml"
  @ONLY)

# Manual pages and completion: run the built programs' --help (every
# subcommand's too) through cmake/helpdocs.py.
set(_helpdocs "${PROJECT_SOURCE_DIR}/cmake/helpdocs.py")
add_custom_command(
  OUTPUT "${_generated}/stonewall.1" "${_generated}/stonewall.bash-completion"
  COMMAND Python3::Interpreter "${_helpdocs}" $<TARGET_FILE:stonewall>
    --name stonewall
    --summary "keep Stonewall's blocker profiles and compile them for the browser"
    --man "${_generated}/stonewall.1"
    --completion "${_generated}/stonewall.bash-completion"
    --see-also "stonewall-browser(1)" "epiphany(1)"
  DEPENDS stonewall "${_helpdocs}"
  COMMENT "Manual page and bash completion of stonewall from its help"
  VERBATIM)
add_custom_command(
  OUTPUT "${_generated}/stonewall-browser.1"
  COMMAND Python3::Interpreter "${_helpdocs}" $<TARGET_FILE:stonewall-browser>
    --name stonewall-browser
    --summary "web browser with the Stonewall content blocker"
    --man "${_generated}/stonewall-browser.1"
    --see-also "stonewall(1)"
  DEPENDS stonewall-browser "${_helpdocs}"
  COMMENT "Manual page of stonewall-browser from its help"
  VERBATIM)
add_custom_target(stonewall_desktop_files ALL
  DEPENDS "${_generated}/stonewall.1" "${_generated}/stonewall-browser.1"
          "${_generated}/stonewall.bash-completion")

install(FILES "${_desktop}/${_app_id}.desktop" DESTINATION "${CMAKE_INSTALL_DATADIR}/applications")
install(FILES "${_desktop}/${_app_id}.svg"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps")
install(FILES "${_generated}/${_app_id}.metainfo.xml" DESTINATION "${CMAKE_INSTALL_DATADIR}/metainfo")
install(FILES "${_generated}/stonewall.1" "${_generated}/stonewall-browser.1"
  DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
install(FILES "${_generated}/stonewall.bash-completion"
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME stonewall)

# The Debian package: scripts/package runs CPack on a built tree. The
# dependencies come from dpkg-shlibdeps (the libraries the programs, the
# WebKit module and the web-process extension link), so a machine without
# WebKitGTK refuses the package.
set(CPACK_GENERATOR "DEB")
# CPack installs what is built; scripts/package builds exactly the targets
# the package carries first, instead of the whole tree with its tests.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
set(CPACK_PACKAGE_NAME "stonewall")
set(CPACK_PACKAGE_VENDOR "Mapleharbor")
set(CPACK_PACKAGE_CONTACT "Stonewall maintainers <maintainers@mapleharbor.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "content-blocker companion and browser for Stonewall")
set(CPACK_PACKAGE_DESCRIPTION
  "Keeps Stonewall's blocker profiles (website lists, picked elements, imported\n\
 and subscribed filter lists in the EasyList syntax) and compiles the active\n\
 profile into a WebKit content-blocker rule list. Includes stonewall-browser,\n\
 a GTK 4 + WebKitGTK browser with the extension's toolbar button and popover,\n\
 and can point GNOME Web at the active profile's rules.")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "web")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The session bus carries the change notifications and GNOME Web's settings;
# https subscriptions need GIO's TLS backend.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "dbus-user-session | dbus-x11, glib-networking")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "epiphany-browser")
include(CPack)
