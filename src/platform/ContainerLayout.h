#pragma once

// Where everything lives in the application-group container, and the name of
// the content blocker that reads it. The main application, the companion and
// the content-blocker extension find the same files by these names, so each
// is written down once, here.

#include <cstdint>
#include <string>
#include <string_view>

namespace stonewall::ContainerLayout {

// The browser identifier of the product's content-blocker extension.
inline constexpr char kContentBlockerIdentifier[] =
    "com.mapleharbor.osx.Stonewall.ContentBlockerExtension";

// The shared defaults' keys that say which list the content blocker loads:
// the active profile's rule list, or none while the blocking status is off.
inline constexpr std::string_view kActiveProfileIDKey = "activeProfileID";
inline constexpr std::string_view kBlockingStatusKey = "blockingStatus";
inline constexpr int64_t kBlockingStatusOn = 1;
inline constexpr int64_t kBlockingStatusOff = 2;

// The programs that change a container take turns by a lock on this file
// in it (platform::lockFile): the command for each run, the browser for each
// change it stores.
inline constexpr std::string_view kContainerLockFile = ".stonewall.lock";

// Folders of the container.
inline constexpr std::string_view kProfilesFolder = ".Profiles";
inline constexpr std::string_view kSharedFolder = ".Shared";

// The shared database in kSharedFolder, and the bundle templates that a
// missing or damaged database is made from.
inline constexpr std::string_view kSharedDatabaseFileName = "shared_data";
inline constexpr std::string_view kSharedDatabaseTemplate = "shared_data";
inline constexpr std::string_view kProfileDatabaseTemplate = "profiles";

// A profile's two files in kProfilesFolder. A null identifier is written as
// "(null)" by the callers, as "%@" formats nil.
inline std::string profileDatabaseFileName(std::string_view profileID) {
    return "profile_" + std::string(profileID) + "_data";
}
inline std::string ruleListFileName(std::string_view profileID) {
    return "profile_" + std::string(profileID) + "_unarchive.json";
}

// Whether a profile identifier may become part of a file name in
// kProfilesFolder: one that could name a file elsewhere (a separator of
// either kind) or cut the name short (NUL) is refused, and so are "." and
// ".." on their own.
inline bool isSafeProfileIdentifier(std::string_view profileID) {
    if (profileID == "." || profileID == "..") return false;
    return profileID.find_first_of(std::string_view("/\\\0", 3)) == std::string_view::npos;
}

}  // namespace stonewall::ContainerLayout
