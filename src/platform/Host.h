#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>

namespace stonewall::platform {

struct OperatingSystemVersion {
    int64_t majorVersion = 0;
    int64_t minorVersion = 0;
    int64_t patchVersion = 0;

    auto operator<=>(const OperatingSystemVersion&) const = default;
};

// The user's base folders (file locations 1 to 3 of the file handler).
enum class SearchPathDirectory { Documents = 1, Caches = 2, ApplicationSupport = 3 };

// What the program knows of the host it runs on: the versions of the system,
// its toolkit and the browser's extension services, and the user's folders.
class Host {
  public:
    virtual ~Host() = default;

    virtual OperatingSystemVersion operatingSystemVersion() const = 0;
    bool isOperatingSystemAtLeastVersion(const OperatingSystemVersion& version) const {
        return operatingSystemVersion() >= version;
    }

    // The toolkit's version number (a floating-point value such as 2022.3).
    virtual double appKitVersionNumber() const = 0;

    // The browser's extension-services version, absent when the host has none.
    virtual std::optional<int64_t> safariServicesVersion() const = 0;
    // Whether the browser's extension-services entry point exists at all.
    virtual bool safariServicesAvailable() const = 0;

    virtual std::string homeDirectory() const = 0;
    // Absent when the host gives no such folder.
    virtual std::optional<std::string> userDirectory(SearchPathDirectory directory) const = 0;
    // The root folder of an application group's container; absent when the
    // group has none here. The folder itself need not exist yet.
    virtual std::optional<std::string> containerPathForApplicationGroup(
        const std::string& groupIdentifier) const = 0;
};

}  // namespace stonewall::platform
