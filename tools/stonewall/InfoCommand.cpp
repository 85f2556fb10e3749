// info: where everything is and what state it is in.

#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "CommandSupport.h"
#include "Commands.h"
#include "Failure.h"
#include "platform/Platform.h"

namespace stonewall::tool {
namespace fs = std::filesystem;
namespace {

// What a container file is, by the folder and the names the storage layer
// and the platform services give them.
std::string fileKind(const std::string& folder, const std::string& name) {
    static const std::string kProfilePrefix = "profile_";
    static const std::string kDataSuffix = "_data";
    static const std::string kRulesSuffix = "_unarchive.json";
    auto endsWith = [&](const std::string& suffix) {
        return name.size() > suffix.size() &&
               name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
    };
    if (folder == "Library/Preferences") return tr("shared defaults");
    if (folder == "Library/ContentBlockers") return tr("compiled list");
    if (name == "shared_data") return tr("shared database");
    if (name.rfind(kProfilePrefix, 0) == 0 && endsWith(kRulesSuffix)) return tr("rule file");
    if (name.rfind(kProfilePrefix, 0) == 0 && endsWith(kDataSuffix)) return tr("profile database");
    return tr("file");
}

// The files of one container folder, by name, with their sizes; lock files
// carry nothing to look at.
Json listFolder(const fs::path& container, const std::string& folder, Table& table) {
    Json files = Json::array();
    std::vector<std::pair<std::string, uintmax_t>> entries;
    std::error_code error;
    for (fs::directory_iterator it(container / folder, error), end; !error && it != end;
         it.increment(error)) {
        std::error_code sizeError;
        if (!it->is_regular_file(sizeError)) continue;
        const std::string name = it->path().filename().string();
        if (name.size() > 5 && name.compare(name.size() - 5, 5, ".lock") == 0) continue;
        const uintmax_t size = it->file_size(sizeError);
        entries.emplace_back(name, sizeError ? 0 : size);
    }
    std::sort(entries.begin(), entries.end());
    for (const auto& [name, size] : entries) {
        const std::string relative = folder + "/" + name;
        files.push_back(Json{{"path", relative}, {"bytes", size}});
        table.add(fileKind(folder, name),
                  format(tr("{0}, {1} bytes"), {relative, std::to_string(size)}));
    }
    return files;
}

std::string versionText(const platform::OperatingSystemVersion& version) {
    return std::to_string(version.majorVersion) + "." + std::to_string(version.minorVersion) + "." +
           std::to_string(version.patchVersion);
}

std::string numberText(double value) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%.10g", value);
    return buffer;
}

}  // namespace

void runInfo(const CommonOptions& common, Report& report) {
    report.json["command"] = "info";
    Session session(common);
    auto engine = session.openEngine();
    const SharedData& shared = *engine->sharedData();
    const platform::Host& host = platform::host();
    const platform::Bundle& bundle = platform::bundle();

    const std::string osVersion = versionText(host.operatingSystemVersion());
    const double appKit = host.appKitVersionNumber();
    const auto services = host.safariServicesVersion();
    const bool servicesAvailable = host.safariServicesAvailable();

    report.json["container"] = session.containerPath();
    report.json["resources"] = session.resourcePath();
    report.json["version"] = bundle.shortVersionString();
    report.json["host"] = Json{{"operatingSystemVersion", osVersion},
                               {"appKitVersion", appKit},
                               {"safariServicesVersion", services ? Json(*services) : Json()},
                               {"safariServicesAvailable", servicesAvailable}};
    report.table.add(tr("container"), session.containerPath());
    report.table.add(tr("resources"), session.resourcePath());
    report.table.add(tr("version"), "stonewall " + bundle.shortVersionString());
    const std::string servicesText = services ? std::to_string(*services) : tr("none");
    report.table.add(tr("host"),
                     format(servicesAvailable
                                ? tr("system {0}, toolkit {1}, browser services {2}")
                                : tr("system {0}, toolkit {1}, browser services {2} (unavailable)"),
                            {osVersion, numberText(appKit), servicesText}));

    const auto ids = splitList(shared.profileIDs);
    const auto names = splitList(shared.profiles);
    std::string activeName;
    for (size_t index = 0; index < ids.size() && index < names.size(); ++index) {
        if (shared.activeProfileID && ids[index] == *shared.activeProfileID) {
            activeName = names[index];
        }
    }
    report.json["activeProfileID"] =
        shared.activeProfileID ? Json(*shared.activeProfileID) : Json(nullptr);
    report.json["blocking"] = blockingText(shared.status);
    report.json["status"] = shared.status;
    report.json["domainStatus"] = shared.domainStatus ? Json(*shared.domainStatus) : Json();
    report.table.add(tr("active profile"), textOrNull(shared.activeProfileID) +
                                               (activeName.empty() ? "" : " (" + activeName + ")"));
    report.table.add(tr("blocking"), blockingLabel(shared.status));

    // What the content blocker reads on its next load.
    auto suite = platform::defaults().suiteNamed(std::string(kApplicationGroup));
    Json defaults = Json::object();
    std::string defaultsText;
    for (std::string_view key : {kActiveProfileIDKey, kBlockingStatusKey, kBlockerReloadTypeKey}) {
        const std::string name(key);
        std::string value;
        if (auto text = suite->stringForKey(name)) {
            defaults[name] = *text;
            value = *text;
        } else if (auto number = suite->integerForKey(name)) {
            defaults[name] = *number;
            value = std::to_string(*number);
        } else {
            defaults[name] = nullptr;
            value = "-";
        }
        defaultsText += (defaultsText.empty() ? "" : ", ") + name + " " + value;
    }
    report.add("defaults", std::move(defaults), tr("defaults"), defaultsText);

    Json files = Json::array();
    for (const char* folder :
         {".Shared", ".Profiles", "Library/Preferences", "Library/ContentBlockers"}) {
        for (auto& file : listFolder(session.containerPath(), folder, report.table)) {
            files.push_back(std::move(file));
        }
    }
    report.json["files"] = std::move(files);
}

}  // namespace stonewall::tool
