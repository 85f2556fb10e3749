#!/usr/bin/env bash
# Builds the Debian package from the built tree, installs it with apt-get as
# a user would, uses the installed programs on a fresh container, removes the
# package and checks that nothing of it is left outside the user's data.
#
#   install-test.sh SOURCE_DIR BUILD_DIR VERSION
set -euo pipefail
source_dir=$1 build_dir=$2 version=$3

skip() { echo "SKIP: $*"; exit 77; }
fail() { echo "FAIL: $*" >&2; exit 1; }

[ "$(id -u)" -eq 0 ] || skip "installing a package needs root (CI runs this as root)"
for tool in apt-get dpkg-deb dpkg-shlibdeps cpack man; do
  command -v "$tool" >/dev/null || skip "$tool is missing (scripts/setup installs it)"
done
if dpkg-query -W -f='${Status}' stonewall 2>/dev/null | grep -q 'install ok installed'; then
  skip "a stonewall package is installed on this machine already; it is left alone"
fi

work="$(mktemp -d)"
installed=""
cleanup() {
  if [ -n "$installed" ]; then
    DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq stonewall >/dev/null 2>&1 || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

# What the system holds of ours before: a developer's own `cmake --install`
# under /usr/local, say, is not the package's.
leftovers() {
  find /usr /etc /var/lib /opt \( -path /var/lib/dpkg/info -prune -o -path /usr/local -prune \) \
    -o \( -iname '*stonewall*' -o -iname '*mapleharbor*' \) -print 2>/dev/null | sort
}
leftovers > "$work/before"

deb="$("$source_dir/scripts/package" "$build_dir" "$work/out")"
[ "$(basename "$deb")" = "stonewall_${version}_$(dpkg --print-architecture).deb" ] ||
  fail "unexpected package name $deb"
depends="$(dpkg-deb -f "$deb" Depends)"
for library in libwebkitgtk-6.0 libgtk-4 libsqlite3 libglib2.0; do
  grep -q "$library" <<<"$depends" || fail "Depends lacks $library: $depends"
done

DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "$deb" \
  >"$work/apt.log" 2>&1 || { cat "$work/apt.log" >&2; fail "apt-get install refused the package"; }
installed=yes
dpkg -L stonewall | sort > "$work/files"

# The installed programs, with nothing of the build tree in reach.
run() {
  env -i PATH=/usr/bin:/bin HOME="$work/home" LANG=C.UTF-8 "$@"
}
mkdir -p "$work/home"
[ "$(run stonewall --version)" = "stonewall $version" ] || fail "stonewall --version"
[ "$(run stonewall-browser --version)" = "stonewall-browser $version" ] ||
  fail "stonewall-browser --version"
info="$(run stonewall info)" || fail "stonewall info on a fresh container: $info"
grep -q "^resources *$(printf %s /usr/share/stonewall)\$" <<<"$info" ||
  fail "stonewall info does not use the installed resources: $info"
# The WebKit module is found beside the installed program.
printf '[{"action":{"type":"block"},"trigger":{"url-filter":"ads"}}]' > "$work/list.json"
run stonewall validate "$work/list.json" >/dev/null || fail "stonewall validate (WebKit module)"
for page in stonewall stonewall-browser; do
  manual="$(run man -w "$page")" || fail "man -w $page"
  grep -q '^/usr/share/man/man1/' <<<"$manual" || fail "man -w $page: $manual"
done
run man stonewall 2>/dev/null | grep -q 'gnome-web' || fail "the manual page lacks a subcommand"
for file in /usr/lib/*stonewall*/webprocess/libstonewall-browser-webprocess.so \
  /usr/share/icons/hicolor/scalable/apps/com.mapleharbor.Stonewall.Browser.svg; do
  [ -f "$file" ] || fail "$file is missing"
done
if command -v desktop-file-validate >/dev/null; then
  desktop-file-validate /usr/share/applications/com.mapleharbor.Stonewall.Browser.desktop \
    /usr/share/applications/stonewall-url-handler.desktop || fail "desktop-file-validate"
fi
if command -v appstreamcli >/dev/null; then
  appstreamcli validate --no-net \
    /usr/share/metainfo/com.mapleharbor.Stonewall.Browser.metainfo.xml >/dev/null ||
    fail "appstreamcli validate"
fi
completion="$(bash -c 'source /usr/share/bash-completion/completions/stonewall
  COMP_WORDS=(stonewall gnome-web ""); COMP_CWORD=2; _stonewall; echo "${COMPREPLY[*]}"')"
[ "$completion" = "on off status" ] || fail "bash completion of gnome-web: '$completion'"

DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq stonewall >"$work/apt.log" 2>&1 ||
  { cat "$work/apt.log" >&2; fail "apt-get purge"; }
installed=""
while read -r path; do
  [ -d "$path" ] && continue
  [ -e "$path" ] && fail "$path is left after the package was removed"
done < "$work/files"
leftovers > "$work/after"
left="$(comm -13 "$work/before" "$work/after")"
[ -z "$left" ] || fail "left behind: $left"
[ -d "$work/home/.local/share/stonewall" ] || fail "the user's data went with the package"
echo "package_install: $(basename "$deb") installed, used and removed cleanly"
