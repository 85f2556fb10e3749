#include "Subscriptions.h"

#include <glib.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "Text.h"
#include "platform/ContainerLayout.h"
#include "storage/FileHandler.h"

namespace stonewall::tool {
namespace {

constexpr char kFileName[] = "subscriptions.json";

FileHandler sharedFolder() {
    return FileHandler::initWithNameAndGroup(std::string(ContainerLayout::kSharedFolder),
                                             std::string(kApplicationGroup));
}

std::string lowerCase(std::string text) {
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

}  // namespace

const OfferedList kOfferedLists[2] = {
    {"easylist", "https://easylist.to/easylist/easylist.txt"},
    {"easyprivacy", "https://easylist.to/easylist/easyprivacy.txt"},
};

std::string Subscription::tag() const {
    gchar* digest = g_compute_checksum_for_string(G_CHECKSUM_SHA1, url.c_str(),
                                                  static_cast<gssize>(url.size()));
    std::string tag = "s" + std::string(digest).substr(0, 8);
    g_free(digest);
    return tag;
}

std::optional<std::string> subscriptionURL(const std::string& text, Message& why) {
    for (const OfferedList& offered : kOfferedLists) {
        if (lowerCase(text) == offered.name) return std::string(offered.url);
    }
    GError* error = nullptr;
    GUri* uri = g_uri_parse(text.c_str(), G_URI_FLAGS_NONE, &error);
    if (!uri) {
        // GLib's reason follows the user's language itself.
        why = message(N_("is not a URL ({0}); give an http, https or file URL, or easylist or "
                         "easyprivacy"),
                      {std::string(error->message)});
        g_error_free(error);
        return std::nullopt;
    }
    // Copied before the URI goes: its strings go with it.
    const std::string scheme = lowerCase(g_uri_get_scheme(uri));
    const char* hostText = g_uri_get_host(uri);
    const std::string host = hostText ? hostText : "";
    const std::string path = g_uri_get_path(uri);
    g_uri_unref(uri);
    if (scheme == "http" || scheme == "https") {
        if (host.empty()) {
            why = message(N_("has no host"));
            return std::nullopt;
        }
        return text;
    }
    if (scheme == "file") {
        if (path.empty() || path.front() != '/') {
            why = message(N_("names no absolute path"));
            return std::nullopt;
        }
        return text;
    }
    why = message(N_("is a {0} URL; lists come from http, https or file URLs"), {scheme});
    return std::nullopt;
}

SubscriptionStore::SubscriptionStore() = default;

std::string SubscriptionStore::path() const { return sharedFolder().getFilePath(kFileName); }

std::vector<Subscription> SubscriptionStore::load() const {
    const FileHandler folder = sharedFolder();
    if (!folder.fileExists(kFileName)) return {};
    std::vector<Subscription> subscriptions;
    const std::optional<Data> data =
        folder.fileIsFolder(kFileName) ? std::nullopt : folder.readFromFile(kFileName);
    bool damaged = !data;
    if (data) {
        const nlohmann::json value = nlohmann::json::parse(*data, nullptr, false);
        damaged = !value.is_object() || !value.contains("subscriptions") ||
                  !value["subscriptions"].is_array();
        for (const nlohmann::json& entry :
             damaged ? nlohmann::json::array() : value["subscriptions"]) {
            try {
                Subscription each;
                each.profile = entry.at("profile").get<std::string>();
                each.url = entry.at("url").get<std::string>();
                each.etag = entry.value("etag", "");
                each.lastModified = entry.value("lastModified", "");
                each.lastUpdate = entry.value("lastUpdate", int64_t{0});
                each.nextDue = entry.value("nextDue", int64_t{0});
                each.interval = entry.value("interval", int64_t{0});
                each.lastError = entry.value("lastError", "");
                each.digest = entry.value("digest", "");
                subscriptions.push_back(std::move(each));
            } catch (const nlohmann::json::exception&) {
                damaged = true;
                break;
            }
        }
    }
    if (!damaged) return subscriptions;
    const NullableString aside = folder.moveAside(kFileName);
    const std::string line =
        aside ? format(tr("{0}: damaged (not a list of subscriptions); moved aside to {1}; "
                          "starting with no subscriptions"),
                       {path(), *aside})
              : format(tr("{0}: damaged (not a list of subscriptions); it could not be moved "
                          "aside"),
                       {path()});
    std::fprintf(stderr, "stonewall: %s\n", line.c_str());
    return {};
}

bool SubscriptionStore::save(const std::vector<Subscription>& subscriptions) const {
    nlohmann::json array = nlohmann::json::array();
    for (const Subscription& each : subscriptions) {
        array.push_back({{"profile", each.profile},
                         {"url", each.url},
                         {"etag", each.etag},
                         {"lastModified", each.lastModified},
                         {"lastUpdate", each.lastUpdate},
                         {"nextDue", each.nextDue},
                         {"interval", each.interval},
                         {"lastError", each.lastError},
                         {"digest", each.digest}});
    }
    const std::string text = nlohmann::json{{"subscriptions", std::move(array)}}.dump(
                                 2, ' ', false, nlohmann::json::error_handler_t::replace) +
                             "\n";
    const FileHandler folder = sharedFolder();
    return folder.writeToFile(kFileName, std::string_view(text)) &&
           folder.readFromFile(kFileName) == text;
}

std::string timeText(int64_t seconds) {
    if (seconds <= 0) return tr("never");
    const std::time_t time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    gmtime_r(&time, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M UTC", &parts);
    return text;
}

int64_t secondsNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace stonewall::tool
