#include "platform/linux/GnomeWebFilters.h"

#define G_SETTINGS_ENABLE_BACKEND
#include <gio/gio.h>
#include <gio/gsettingsbackend.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/ContainerLayout.h"
#include "platform/FileSystem.h"
#include "platform/linux/WebKitContentBlockerManager.h"

namespace stonewall::platform::gnulinux {
namespace fs = std::filesystem;
namespace {

constexpr const char* kListPrefix = "rules-";

struct SettingsDeleter {
    void operator()(GSettings* settings) const { g_object_unref(settings); }
};
using Settings = std::unique_ptr<GSettings, SettingsDeleter>;

bool schemaInstalled(const char* id) {
    GSettingsSchemaSource* source = g_settings_schema_source_get_default();
    if (!source) return false;
    GSettingsSchema* schema = g_settings_schema_source_lookup(source, id, TRUE);
    if (!schema) return false;
    g_settings_schema_unref(schema);
    return true;
}

std::vector<std::string> toVector(gchar** values) {
    std::vector<std::string> result;
    for (gchar** value = values; value && *value; ++value) result.emplace_back(*value);
    g_strfreev(values);
    return result;
}

std::vector<const gchar*> toStrv(const std::vector<std::string>& values) {
    std::vector<const gchar*> strv;
    for (const auto& value : values) strv.push_back(value.c_str());
    strv.push_back(nullptr);
    return strv;
}

// The setting's value as the user set it, or nothing when it is the default.
std::optional<std::vector<std::string>> userFilters(GSettings* settings) {
    GVariant* value = g_settings_get_user_value(settings, GnomeWebFilters::kFiltersKey);
    if (!value) return std::nullopt;
    std::vector<std::string> result = toVector(g_variant_dup_strv(value, nullptr));
    g_variant_unref(value);
    return result;
}

std::optional<bool> userBoolean(GSettings* settings, const char* key) {
    GVariant* value = g_settings_get_user_value(settings, key);
    if (!value) return std::nullopt;
    const bool result = g_variant_get_boolean(value);
    g_variant_unref(value);
    return result;
}

std::string fileURI(const fs::path& path) {
    gchar* uri = g_filename_to_uri(path.c_str(), nullptr, nullptr);
    std::string result = uri ? uri : "";
    g_free(uri);
    return result;
}

bool readWhole(const fs::path& path, std::string& text) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream buffer;
    buffer << in.rdbuf();
    text = buffer.str();
    return !in.bad();
}

bool writeWhole(const fs::path& path, const std::string& text, std::string& error) {
    const FileTaskResult result = writeFileAtomically(
        path.string(), [&](const ByteSink& sink) { return sink(text); }, FileNaming::Replace);
    if (!result.done) error = result.error;
    return result.done;
}

GnomeWebFilters::Outcome failed(GnomeWebFilters::Failure failure, std::string message) {
    GnomeWebFilters::Outcome outcome;
    outcome.failure = failure;
    outcome.message = std::move(message);
    return outcome;
}

// The URLs of the setting without any of ours (they all start with the URL
// of our folder).
std::vector<std::string> withoutOurs(const std::vector<std::string>& filters,
                                     const std::string& ourPrefix) {
    std::vector<std::string> result;
    for (const auto& filter : filters) {
        if (filter.rfind(ourPrefix, 0) != 0) result.push_back(filter);
    }
    return result;
}

}  // namespace

GnomeWebFilters::GnomeWebFilters(std::string containerPath, std::string defaultsPath)
    : containerPath_(std::move(containerPath)), defaultsPath_(std::move(defaultsPath)) {}

std::optional<std::string> GnomeWebFilters::unavailableReason() {
    if (!schemaInstalled(kSchema) || !schemaInstalled(kWebSchema)) {
        return std::string("GNOME Web's settings (the ") + kSchema +
               " schema) are not installed; install the epiphany-browser package";
    }
    GSettingsBackend* backend = g_settings_backend_get_default();
    const std::string backendType = backend ? G_OBJECT_TYPE_NAME(backend) : "";
    if (backend) g_object_unref(backend);
    if (backendType == "GMemorySettingsBackend") {
        return std::string(
            "GSettings keeps no settings here (no dconf backend); install "
            "dconf-gsettings-backend");
    }
    if (backendType == "DConfSettingsBackend") {
        GError* error = nullptr;
        GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &error);
        if (!bus) {
            std::string reason = error ? error->message : "unknown error";
            g_clear_error(&error);
            return "GNOME Web's settings need the D-Bus session bus (" + reason +
                   "; check DBUS_SESSION_BUS_ADDRESS)";
        }
        g_object_unref(bus);
    }
    return std::nullopt;
}

bool GnomeWebFilters::isOn() const {
    std::error_code error;
    return fs::exists(fs::path(containerPath_) / kStateFile, error);
}

std::optional<GnomeWebFilters::Status> GnomeWebFilters::status(std::string& failure) const {
    if (auto reason = unavailableReason()) {
        failure = *reason;
        return std::nullopt;
    }
    Settings settings(g_settings_new(kSchema));
    Settings web(g_settings_new_with_path(kWebSchema, kWebSchemaPath));
    Status status;
    status.on = isOn();
    status.filters = toVector(g_settings_get_strv(settings.get(), kFiltersKey));
    status.blockingEnabled = g_settings_get_boolean(web.get(), kEnableKey);
    const std::string ours = fileURI(fs::path(containerPath_) / kListFolder) + "/";
    for (const auto& filter : status.filters) {
        if (filter.rfind(ours, 0) == 0) status.published = filter;
    }
    return status;
}

GnomeWebFilters::Outcome GnomeWebFilters::turnOn() {
    if (auto reason = unavailableReason()) return failed(Failure::Unavailable, *reason);
    if (isOn()) return publish();
    Settings settings(g_settings_new(kSchema));
    Settings web(g_settings_new_with_path(kWebSchema, kWebSchemaPath));
    // null: the user never set it, so turning off resets it to the default.
    nlohmann::json state = nlohmann::json::object();
    const auto filters = userFilters(settings.get());
    state["savedFilters"] = filters ? nlohmann::json(*filters) : nlohmann::json(nullptr);
    const auto enabled = userBoolean(web.get(), kEnableKey);
    state["savedEnableAdblock"] = enabled ? nlohmann::json(*enabled) : nlohmann::json(nullptr);
    std::string error;
    std::error_code fsError;
    fs::create_directories((fs::path(containerPath_) / kStateFile).parent_path(), fsError);
    if (!writeWhole(fs::path(containerPath_) / kStateFile, state.dump(2) + "\n", error)) {
        return failed(Failure::Storage, "cannot write " + std::string(kStateFile) + ": " + error);
    }
    Outcome outcome = publish();
    outcome.changed = true;
    return outcome;
}

GnomeWebFilters::Outcome GnomeWebFilters::turnOff() {
    if (auto reason = unavailableReason()) return failed(Failure::Unavailable, *reason);
    const fs::path statePath = fs::path(containerPath_) / kStateFile;
    if (!isOn()) return Outcome{};
    nlohmann::json state;
    {
        std::string text;
        if (readWhole(statePath, text)) {
            state = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
        }
        if (!state.is_object()) state = nlohmann::json::object();
    }
    Settings settings(g_settings_new(kSchema));
    Settings web(g_settings_new_with_path(kWebSchema, kWebSchemaPath));
    const std::string ours = fileURI(fs::path(containerPath_) / kListFolder) + "/";
    const std::vector<std::string> current =
        toVector(g_settings_get_strv(settings.get(), kFiltersKey));
    const std::vector<std::string> others = withoutOurs(current, ours);

    // The user's lists as they are now, less ours; when that is what the
    // default holds and the user had not set the value, back to the default.
    const auto saved = state.find("savedFilters");
    const bool hadValue = saved != state.end() && saved->is_array();
    GVariant* defaultValue = g_settings_get_default_value(settings.get(), kFiltersKey);
    const std::vector<std::string> defaults =
        defaultValue ? toVector(g_variant_dup_strv(defaultValue, nullptr))
                     : std::vector<std::string>();
    if (defaultValue) g_variant_unref(defaultValue);
    if (!hadValue && others == defaults) {
        g_settings_reset(settings.get(), kFiltersKey);
    } else if (others != current) {
        const auto strv = toStrv(others);
        g_settings_set_strv(settings.get(), kFiltersKey, strv.data());
    }
    const auto savedEnabled = state.find("savedEnableAdblock");
    if (savedEnabled != state.end() && savedEnabled->is_boolean()) {
        g_settings_set_boolean(web.get(), kEnableKey, savedEnabled->get<bool>());
    } else {
        g_settings_reset(web.get(), kEnableKey);
    }
    g_settings_sync();

    std::error_code error;
    fs::remove_all(fs::path(containerPath_) / kListFolder, error);
    fs::remove(statePath, error);
    if (error) {
        return failed(Failure::Storage,
                      "cannot remove " + statePath.string() + ": " + error.message());
    }
    Outcome outcome;
    outcome.changed = true;
    return outcome;
}

GnomeWebFilters::Outcome GnomeWebFilters::publish() {
    if (!isOn()) return Outcome{};
    if (auto reason = unavailableReason()) return failed(Failure::Unavailable, *reason);
    const fs::path folder = fs::path(containerPath_) / kListFolder;
    const std::string ours = fileURI(folder) + "/";

    // The list the content blocker loads now: none while blocking is off.
    const auto active = WebKitContentBlockerManager::activeRuleList(containerPath_, defaultsPath_);
    if (active.error) {
        return failed(Failure::Storage,
                      active.error->code == WebKitContentBlockerManager::kNoActiveProfile
                          ? "no active profile is set"
                          : active.error->message);
    }
    std::optional<fs::path> listFile;
    if (active.path) {
        const fs::path ruleFile = *active.path;
        std::string rules;
        if (!readWhole(ruleFile, rules)) {
            return failed(Failure::Storage, "cannot read the rule list " + ruleFile.string() +
                                                " (run stonewall compile)");
        }
        gchar* digest = g_compute_checksum_for_data(
            G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(rules.data()), rules.size());
        const std::string name = kListPrefix + std::string(digest).substr(0, 32) + ".json";
        g_free(digest);
        listFile = folder / name;
        std::error_code error;
        fs::create_directories(folder, error);
        std::string writeError;
        if (!fs::exists(*listFile, error) && !writeWhole(*listFile, rules, writeError)) {
            return failed(Failure::Storage,
                          "cannot write " + listFile->string() + ": " + writeError);
        }
    }

    Settings settings(g_settings_new(kSchema));
    Settings web(g_settings_new_with_path(kWebSchema, kWebSchemaPath));
    const std::vector<std::string> current =
        toVector(g_settings_get_strv(settings.get(), kFiltersKey));
    std::vector<std::string> wanted = withoutOurs(current, ours);
    Outcome outcome;
    if (listFile) {
        outcome.published = fileURI(*listFile);
        wanted.push_back(*outcome.published);
    }
    if (wanted != current) {
        const auto strv = toStrv(wanted);
        g_settings_set_strv(settings.get(), kFiltersKey, strv.data());
        outcome.changed = true;
    }
    if (!g_settings_get_boolean(web.get(), kEnableKey)) {
        g_settings_set_boolean(web.get(), kEnableKey, TRUE);
        outcome.changed = true;
    }
    if (outcome.changed) g_settings_sync();

    // GNOME Web has read an old list into its own store by now or will not
    // need it: only the current one stays.
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        if (!listFile || it->path() != *listFile) {
            std::error_code removeError;
            fs::remove(it->path(), removeError);
        }
    }
    return outcome;
}

GnomeWebPublishingContentBlocker::GnomeWebPublishingContentBlocker(
    std::shared_ptr<ContentBlockerManager> inner, std::string containerPath,
    std::string defaultsPath, std::shared_ptr<Log> log)
    : inner_(std::move(inner)),
      filters_(
          std::make_shared<GnomeWebFilters>(std::move(containerPath), std::move(defaultsPath))),
      log_(std::move(log)) {}

void GnomeWebPublishingContentBlocker::reloadContentBlockerWithIdentifier(
    const std::string& identifier, CompletionHandler completionHandler) {
    inner_->reloadContentBlockerWithIdentifier(
        identifier, [filters = filters_, log = log_,
                     handler = std::move(completionHandler)](std::optional<Error> error) {
            // Published before the completion, so that a command that ends
            // on it has already handed the list to GNOME Web.
            if (!error && filters->isOn()) {
                const GnomeWebFilters::Outcome outcome = filters->publish();
                if (outcome.failure && log) {
                    log->write(LogLevel::Error,
                               "the rule list was not handed to GNOME Web: " + outcome.message);
                }
            }
            if (handler) handler(std::move(error));
        });
}

}  // namespace stonewall::platform::gnulinux
