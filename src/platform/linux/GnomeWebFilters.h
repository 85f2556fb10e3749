#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/ContentBlockerManager.h"
#include "platform/Log.h"

namespace stonewall::platform::gnulinux {

// GNOME Web (Epiphany) is a WebKitGTK browser that compiles rule lists of the
// very format this product writes: it reads the URLs of its lists from the
// setting "content-filters" of the schema org.gnome.Epiphany and uses them
// while "enable-adblock" of org.gnome.Epiphany.web is true. This points that
// setting at the active profile's rule list, next to the user's own lists.
//
// GNOME Web compiles a list again only when its URL is new (a list it has
// compiled stays compiled until it is a day old), so each published list is
// a copy named by its content, "<container>/Library/GnomeWeb/rules-<hash>.json",
// and publishing a new one swaps the URL in the setting; GNOME Web sees the
// change at once and drops the old list. While blocking is off no list of
// ours is in the setting.
//
// What was there before is kept in "<container>/.Shared/gnome-web.json" so
// that turnOff() gives the user's values back; that file existing is what
// "on" means. Settings go through the desktop's GSettings backend (dconf on
// the session bus) and are flushed before each call returns. Not bound to a
// thread; calls for one container must not overlap (the command locks the
// container, the browser publishes from its one reload thread).
class GnomeWebFilters {
  public:
    static constexpr const char* kSchema = "org.gnome.Epiphany";
    static constexpr const char* kWebSchema = "org.gnome.Epiphany.web";
    // A relocatable schema: GNOME Web keeps its own copy at this path.
    static constexpr const char* kWebSchemaPath = "/org/gnome/epiphany/web/";
    static constexpr const char* kFiltersKey = "content-filters";
    static constexpr const char* kEnableKey = "enable-adblock";
    static constexpr const char* kStateFile = ".Shared/gnome-web.json";
    static constexpr const char* kListFolder = "Library/GnomeWeb";

    enum class Failure {
        Unavailable,  // GNOME Web's schema is not installed, or no session bus
        Storage,      // the rule file or the container cannot be read or written
    };
    struct Outcome {
        std::optional<Failure> failure;
        std::string message;                   // why, when failed
        bool changed = false;                  // a setting or the state file was written
        std::optional<std::string> published;  // the URL of our list in the setting now
    };
    struct Status {
        bool on = false;
        std::vector<std::string> filters;  // the setting as GNOME Web reads it
        bool blockingEnabled = false;      // enable-adblock
        std::optional<std::string> published;
    };

    // `defaultsPath` is the shared defaults suite's file (FileUserDefaults),
    // which names the active profile and the blocking status.
    GnomeWebFilters(std::string containerPath, std::string defaultsPath);

    // Why GNOME Web's settings cannot be changed here, or nothing.
    [[nodiscard]] static std::optional<std::string> unavailableReason();
    // Whether the container says "on" (a file test; no GSettings).
    [[nodiscard]] bool isOn() const;

    [[nodiscard]] Outcome turnOn();
    [[nodiscard]] Outcome turnOff();
    // When on: puts the current rule list (or, with blocking off, none) into
    // the setting. When off: does nothing.
    [[nodiscard]] Outcome publish();
    [[nodiscard]] std::optional<Status> status(std::string& failure) const;

  private:
    std::string containerPath_;
    std::string defaultsPath_;
};

// A content-blocker service that, after each successful reload, publishes
// the list to GNOME Web when the container says so (GnomeWebFilters), so
// that every compile of the command and of the browser reaches it. A failure
// to publish is logged; the reload's own outcome is passed on unchanged.
class GnomeWebPublishingContentBlocker : public ContentBlockerManager {
  public:
    GnomeWebPublishingContentBlocker(std::shared_ptr<ContentBlockerManager> inner,
                                     std::string containerPath, std::string defaultsPath,
                                     std::shared_ptr<Log> log);
    void reloadContentBlockerWithIdentifier(const std::string& identifier,
                                            CompletionHandler completionHandler) override;

  private:
    std::shared_ptr<ContentBlockerManager> inner_;
    std::shared_ptr<GnomeWebFilters> filters_;
    std::shared_ptr<Log> log_;
};

}  // namespace stonewall::platform::gnulinux
