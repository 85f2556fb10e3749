#include "platform/linux/LinuxHost.h"

#include <libintl.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <vector>

#if __has_include("utilities/Version.h")
#include "utilities/Version.h"
#define STONEWALL_LINUX_VERSION ::stonewall::kShortVersionString
#else
#define STONEWALL_LINUX_VERSION STONEWALL_PROJECT_VERSION
#endif

#include "platform/linux/LinuxServices.h"

namespace stonewall::platform::gnulinux {

namespace fs = std::filesystem;

namespace {

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

template <typename T>
std::optional<T> parseNumber(const std::string& text) {
    T value{};
    const char* end = text.data() + text.size();
    auto [stop, error] = std::from_chars(text.data(), end, value);
    if (text.empty() || error != std::errc() || stop != end) return std::nullopt;
    return value;
}

std::string homeFrom(const EnvironmentLookup& environment) {
    if (auto home = environment("HOME"); home && !home->empty()) return *home;
    // No HOME (a service, a cleaned environment): the password database.
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* result = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 && result &&
        result->pw_dir) {
        return result->pw_dir;
    }
    return "/";
}

std::string xdgFolder(const EnvironmentLookup& environment, const char* name,
                      const std::string& fallback) {
    auto value = environment(name);
    if (value && !value->empty() && fs::path(*value).is_absolute()) return *value;
    return fallback;
}

std::string executableFolder() {
    std::error_code error;
    const fs::path executable = fs::read_symlink("/proc/self/exe", error);
    return error ? std::string() : executable.parent_path().string();
}

std::string findResources(const std::optional<std::string>& given,
                          const EnvironmentLookup& environment) {
    if (given && !given->empty()) return *given;
    if (auto fromEnvironment = environment("STONEWALL_RESOURCES");
        fromEnvironment && !fromEnvironment->empty()) {
        return *fromEnvironment;
    }
    std::error_code error;
#ifdef STONEWALL_RESOURCES_FROM_BINDIR
    if (std::string installed = installedPath(STONEWALL_RESOURCES_FROM_BINDIR);
        !installed.empty() && fs::is_directory(installed, error)) {
        return installed;
    }
#endif
    // Run from the build tree: build/<preset>/tools/stonewall/stonewall next
    // to build/<preset>/resources.
    fs::path folder = executableFolder();
    for (int up = 0; up <= 3 && !folder.empty(); ++up, folder = folder.parent_path()) {
        if (fs::is_directory(folder / "resources", error)) return (folder / "resources").string();
        if (folder == folder.root_path()) break;
    }
    return {};
}

}  // namespace

std::string installedPath(const std::string& fromBinFolder) {
    const std::string folder = executableFolder();
    if (folder.empty()) return {};
    std::error_code error;
    const fs::path path = (fs::path(folder) / fromBinFolder).lexically_normal();
    return fs::exists(path, error) ? path.string() : std::string();
}

EnvironmentLookup processEnvironment() {
    return [](const std::string& name) -> std::optional<std::string> {
        const char* value = std::getenv(name.c_str());
        if (value == nullptr) return std::nullopt;
        return std::string(value);
    };
}

std::optional<OperatingSystemVersion> LinuxHost::parseVersion(const std::string& text) {
    std::vector<int64_t> parts;
    size_t start = 0;
    for (;;) {
        const size_t dot = text.find('.', start);
        const std::string part = text.substr(start, dot == std::string::npos ? dot : dot - start);
        if (part.empty() || part.size() > 9 ||
            !std::all_of(part.begin(), part.end(),
                         [](unsigned char c) { return std::isdigit(c); })) {
            return std::nullopt;
        }
        parts.push_back(*parseNumber<int64_t>(part));
        if (dot == std::string::npos) break;
        start = dot + 1;
    }
    if (parts.size() > 3) return std::nullopt;
    parts.resize(3, 0);
    return OperatingSystemVersion{parts[0], parts[1], parts[2]};
}

LinuxHost::LinuxHost(const EnvironmentLookup& environment,
                     std::optional<std::string> containerOverride) {
    auto warn = [&](const std::string& name, const std::string& value) {
        warnings_.push_back("ignoring " + name + "=\"" + value + "\": not a valid value");
    };
    if (auto value = environment("STONEWALL_OS_VERSION")) {
        if (auto version = parseVersion(*value)) {
            osVersion_ = *version;
        } else {
            warn("STONEWALL_OS_VERSION", *value);
        }
    }
    if (auto value = environment("STONEWALL_APPKIT_VERSION")) {
        auto number = parseNumber<double>(*value);
        if (number && std::isfinite(*number) && *number >= 0) {
            appKitVersion_ = *number;
        } else {
            warn("STONEWALL_APPKIT_VERSION", *value);
        }
    }
    if (auto value = environment("STONEWALL_SAFARI_SERVICES_VERSION")) {
        if (lowercase(*value) == "none") {
            servicesVersion_ = std::nullopt;
        } else if (auto number = parseNumber<int64_t>(*value)) {
            servicesVersion_ = *number;
        } else {
            warn("STONEWALL_SAFARI_SERVICES_VERSION", *value);
        }
    }
    if (auto value = environment("STONEWALL_SAFARI_SERVICES_AVAILABLE")) {
        const std::string flag = lowercase(*value);
        if (flag == "1" || flag == "true" || flag == "yes") {
            servicesAvailable_ = true;
        } else if (flag == "0" || flag == "false" || flag == "no") {
            servicesAvailable_ = false;
        } else {
            warn("STONEWALL_SAFARI_SERVICES_AVAILABLE", *value);
        }
    }

    home_ = homeFrom(environment);
    const fs::path home(home_);
    data_ = xdgFolder(environment, "XDG_DATA_HOME", (home / ".local" / "share").string());
    cache_ = xdgFolder(environment, "XDG_CACHE_HOME", (home / ".cache").string());
    config_ = xdgFolder(environment, "XDG_CONFIG_HOME", (home / ".config").string());

    if (!containerOverride || containerOverride->empty()) {
        containerOverride = environment("STONEWALL_CONTAINER");
    }
    if (containerOverride && !containerOverride->empty()) {
        std::error_code error;
        const fs::path absolute = fs::absolute(*containerOverride, error);
        container_ = error ? *containerOverride : absolute.lexically_normal().string();
        // A trailing "/" survives normalising; callers join names with their own.
        if (container_.size() > 1 && container_.back() == '/') container_.pop_back();
    } else {
        container_ = (fs::path(data_) / "stonewall" / "containers" / kApplicationGroup).string();
    }
}

std::optional<std::string> LinuxHost::userDirectory(SearchPathDirectory directory) const {
    switch (directory) {
        case SearchPathDirectory::Documents:
            return data_;
        case SearchPathDirectory::Caches:
            return cache_;
        case SearchPathDirectory::ApplicationSupport:
            return config_;
    }
    return std::nullopt;
}

std::optional<std::string> LinuxHost::containerPathForApplicationGroup(
    const std::string& groupIdentifier) const {
    if (groupIdentifier != kApplicationGroup) return std::nullopt;
    return container_;
}

// --- LinuxBundle -------------------------------------------------------------------

LinuxBundle::LinuxBundle(std::optional<std::string> resourcePath,
                         const EnvironmentLookup& environment)
    : resourcePath_(findResources(resourcePath, environment)) {
    // The binding is process-wide; the last bundle made decides, which is
    // the one main() installs.
    const std::string catalogue = (fs::path(resourcePath_) / "locale").string();
    ::bindtextdomain(kTextDomain, catalogue.c_str());
    ::bind_textdomain_codeset(kTextDomain, "UTF-8");
}

std::string LinuxBundle::shortVersionString() const { return std::string(STONEWALL_LINUX_VERSION); }

std::string LinuxBundle::localizedString(const std::string& key) const {
    // gettext answers "" with the catalogue's header, and stops a key at an
    // embedded NUL: such keys are their own text.
    if (key.empty() || key.find('\0') != std::string::npos) return key;
    return ::dgettext(kTextDomain, key.c_str());
}

}  // namespace stonewall::platform::gnulinux
