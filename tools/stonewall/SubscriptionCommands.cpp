// profile subscribe, unsubscribe, subscriptions, and update: lists fetched
// by their address and kept up to date.

#include "SubscriptionCommands.h"

#include <glib.h>

#include <algorithm>

#include "CommandSupport.h"
#include "Failure.h"
#include "Progress.h"
#include "Subscriptions.h"
#include "application/FilterListParser.h"
#include "application/ProfileManager.h"
#include "engine/CompanionController.h"
#include "platform/linux/SoupDownloader.h"

namespace stonewall::tool {
namespace {

// A failed fetch is tried again after this long, whatever the list asks.
constexpr int64_t kRetryAfterFailure = 3600;

std::string resolveURL(const std::string& text) {
    Message why;
    if (auto url = subscriptionURL(text, why)) return *url;
    throw CommandFailure(ExitCode::BadInput, message(N_("URL \"{0}\""), {text}), why);
}

// What one fetch of one list came to.
struct Fetch {
    enum class Kind { Updated, NotModified, Failed };
    Kind kind = Kind::Failed;
    ExitCode code = ExitCode::Ok;  // of a failure
    Message why;                   // of a failure
    ProfileManager::ImportReport import;
};

// Downloads the list (conditionally when `conditional`), checks it and
// replaces its rows in the profile; updates the subscription's record.
Fetch fetchList(CompanionController& engine, Subscription& subscription, bool conditional) {
    Fetch fetch;
    const int64_t now = secondsNow();
    const auto fail = [&](ExitCode code, Message why) {
        fetch.kind = Fetch::Kind::Failed;
        fetch.code = code;
        fetch.why = std::move(why);
        // Kept in English: the file and --json are read by scripts.
        subscription.lastError = fetch.why.english;
        subscription.nextDue = now + kRetryAfterFailure;
        return fetch;
    };
    ProfileManager profiles(engine);
    if (!profiles.profileIndex(subscription.profile)) {
        return fail(ExitCode::BadInput,
                    message(N_("profile {0} no longer exists"), {subscription.profile}));
    }
    platform::DownloadRequest request;
    request.url = subscription.url;
    if (conditional) {
        request.etag = subscription.etag;
        request.lastModified = subscription.lastModified;
    }
    const auto downloader = platform::gnulinux::makeSoupDownloader(
        platform::gnulinux::downloadTimeoutsFromEnvironment());
    platform::DownloadResult result = downloader->download(request);
    using Outcome = platform::DownloadResult::Outcome;
    // The downloader's reason, in English.
    if (result.outcome == Outcome::Failed) return fail(ExitCode::Download, result.error);
    // A server without ETag, or a file, may hand over the very list
    // imported last: that is no change either.
    std::string digest;
    if (result.outcome == Outcome::Downloaded) {
        gchar* hex = g_compute_checksum_for_data(
            G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(result.body.data()),
            result.body.size());
        digest = hex;
        g_free(hex);
    }
    if (result.outcome == Outcome::NotModified ||
        (!subscription.digest.empty() && digest == subscription.digest)) {
        fetch.kind = Fetch::Kind::NotModified;
        if (result.outcome == Outcome::Downloaded) {
            subscription.etag = result.etag;
            subscription.lastModified = result.lastModified;
        }
        subscription.lastError.clear();
        subscription.lastUpdate = now;
        subscription.nextDue =
            now + (subscription.interval > 0 ? subscription.interval
                                             : FilterListParser::kDefaultUpdateInterval);
        return fetch;
    }
    if (auto error = profiles.importFilterList(subscription.profile, result.body, fetch.import,
                                               subscription.tag())) {
        // The import refuses text that is no filter list under that subject.
        return fail(exitCodeOf(*error), error->subject == "filter list"
                                            ? message(N_("not a filter list: {0}"), {error->reason})
                                            : Message(error->reason));
    }
    fetch.kind = Fetch::Kind::Updated;
    subscription.etag = result.etag;
    subscription.lastModified = result.lastModified;
    subscription.digest = digest;
    subscription.lastError.clear();
    subscription.lastUpdate = now;
    subscription.interval = FilterListParser::updateIntervalSeconds(result.body);
    subscription.nextDue = now + subscription.interval;
    return fetch;
}

std::string updatedText(const Fetch& fetch) {
    const int64_t added = fetch.import.added;
    std::string text =
        format(trn(NN_("updated: {0} rule", "updated: {0} rules"), added), {std::to_string(added)});
    if (fetch.import.replaced > 0) {
        text = format(tr("{0} (were {1})"), {text, std::to_string(fetch.import.replaced)});
    }
    if (fetch.import.leftOut() > 0) {
        text = format(tr("{0}, {1} left out"), {text, std::to_string(fetch.import.leftOut())});
    }
    return text;
}

bool sameSubscription(const Subscription& a, const std::string& profile, const std::string& url) {
    return a.profile == profile && a.url == url;
}

void requireSaved(const SubscriptionStore& store, const std::vector<Subscription>& subscriptions) {
    if (!store.save(subscriptions)) {
        throw CommandFailure(ExitCode::Storage, store.path(), message(N_("could not be written")));
    }
}

}  // namespace

void runProfileSubscribe(const CommonOptions& common, const std::string& profileID,
                         const std::string& text, Report& report) {
    report.json["command"] = "profile subscribe";
    const std::string url = resolveURL(text);
    Session session(common);
    auto engine = session.openEngine();
    requireKnownProfile(*engine->sharedData(), profileID);
    report.json["profile"] = profileID;
    report.json["url"] = url;
    const SubscriptionStore store;
    std::vector<Subscription> subscriptions = store.load();
    if (std::any_of(subscriptions.begin(), subscriptions.end(), [&](const Subscription& each) {
            return sameSubscription(each, profileID, url);
        })) {
        report.json["changed"] = false;
        report.notes.push_back(format(tr("Profile {0} is subscribed to {1} already; nothing "
                                         "changed (stonewall update --force fetches it now)."),
                                      {profileID, url}));
        return;
    }
    Subscription subscription;
    subscription.profile = profileID;
    subscription.url = url;
    const Fetch fetch = fetchList(*engine, subscription, false);
    if (fetch.kind != Fetch::Kind::Updated) {
        throw CommandFailure(fetch.code, url, message(N_("{0}; not subscribed"), {fetch.why}));
    }
    subscriptions.push_back(subscription);
    if (!store.save(subscriptions)) {
        int64_t removed = 0;
        (void)ProfileManager(*engine).removeFilterList(profileID, subscription.tag(), removed);
        throw CommandFailure(
            ExitCode::Storage, store.path(),
            message(N_("could not be written; the list's rules were taken out again")));
    }
    report.json["changed"] = true;
    report.json["added"] = fetch.import.added;
    report.json["leftOut"] = fetch.import.leftOut();
    report.json["nextDue"] = subscription.nextDue;
    report.table.add(tr("subscribed"), url);
    report.table.add(tr("profile"), profileID);
    const int64_t added = fetch.import.added;
    std::string imported =
        format(trn(NN_("{0} rule", "{0} rules"), added), {std::to_string(added)});
    if (fetch.import.leftOut() > 0) {
        imported = format(tr("{0} ({1} left out; see profile import --help)"),
                          {imported, std::to_string(fetch.import.leftOut())});
    }
    report.table.add(tr("imported"), imported);
    report.table.add(tr("next update"), timeText(subscription.nextDue));
    if (engine->sharedData()->activeProfileID == profileID) {
        engine->connectProfileDatabase();
        reloadActiveProfile(session, *engine, report);
    } else {
        report.notes.push_back(notActiveNote(profileID));
    }
}

void runProfileUnsubscribe(const CommonOptions& common, const std::string& profileID,
                           const std::string& text, Report& report) {
    report.json["command"] = "profile unsubscribe";
    const std::string url = resolveURL(text);
    Session session(common);
    auto engine = session.openEngine();
    requireKnownProfile(*engine->sharedData(), profileID);
    const SubscriptionStore store;
    std::vector<Subscription> subscriptions = store.load();
    const auto found = std::find_if(
        subscriptions.begin(), subscriptions.end(),
        [&](const Subscription& each) { return sameSubscription(each, profileID, url); });
    if (found == subscriptions.end()) {
        throw CommandFailure(
            ExitCode::BadInput, message(N_("URL \"{0}\""), {url}),
            message(N_("profile {0} is not subscribed to it (see profile subscriptions)"),
                    {profileID}));
    }
    int64_t removed = 0;
    throwIfFailed(ProfileManager(*engine).removeFilterList(profileID, found->tag(), removed));
    subscriptions.erase(found);
    requireSaved(store, subscriptions);
    report.json["profile"] = profileID;
    report.json["url"] = url;
    report.json["removed"] = removed;
    report.table.add(tr("unsubscribed"), url);
    report.table.add(tr("profile"), profileID);
    report.table.add(tr("rules removed"), std::to_string(removed));
    if (removed > 0 && engine->sharedData()->activeProfileID == profileID) {
        engine->connectProfileDatabase();
        reloadActiveProfile(session, *engine, report);
    }
}

void runProfileSubscriptions(const CommonOptions& common, Report& report) {
    report.json["command"] = "profile subscriptions";
    Session session(common);
    auto engine = session.openEngine(Session::ActiveProfile::Optional);
    const std::vector<Subscription> subscriptions = SubscriptionStore().load();
    Json list = Json::array();
    for (const Subscription& each : subscriptions) {
        list.push_back(Json{{"profile", each.profile},
                            {"url", each.url},
                            {"lastUpdate", each.lastUpdate},
                            {"nextDue", each.nextDue},
                            {"lastError", each.lastError}});
        report.table.add(each.profile, each.url);
        report.table.add(std::string("  ") + tr("last update"), timeText(each.lastUpdate));
        report.table.add(std::string("  ") + tr("next due"), timeText(each.nextDue));
        // Kept in English in the subscriptions file.
        if (!each.lastError.empty()) {
            report.table.add(std::string("  ") + tr("last error"), each.lastError);
        }
    }
    report.json["subscriptions"] = std::move(list);
    if (subscriptions.empty()) report.table.add(tr("subscriptions"), tr("none"));

    const std::string active = textOrNull(engine->sharedData()->activeProfileID);
    Json offered = Json::array();
    for (const OfferedList& offeredList : kOfferedLists) {
        if (std::any_of(subscriptions.begin(), subscriptions.end(), [&](const Subscription& each) {
                return sameSubscription(each, active, offeredList.url);
            })) {
            continue;
        }
        const std::string command =
            "stonewall profile subscribe " + active + " " + offeredList.name;
        offered.push_back(
            Json{{"name", offeredList.name}, {"url", offeredList.url}, {"command", command}});
        report.table.add(format(tr("offered {0}"), {offeredList.name}), command);
    }
    report.json["offered"] = std::move(offered);
}

void runUpdate(const CommonOptions& common, bool force, Report& report) {
    report.json["command"] = "update";
    Session session(common);
    auto engine = session.openEngine();
    const SubscriptionStore store;
    std::vector<Subscription> subscriptions = store.load();
    const int64_t now = secondsNow();
    const std::string active = textOrNull(engine->sharedData()->activeProfileID);
    bool activeChanged = false;
    int64_t failed = 0, due = 0;
    ExitCode failure = ExitCode::Ok;
    Json lists = Json::array();
    int64_t dueTotal = 0;
    for (const Subscription& each : subscriptions) dueTotal += force || each.nextDue <= now;
    for (Subscription& each : subscriptions) {
        if (!force && each.nextDue > now) continue;
        progress::stage(format(tr("updating {0}"), {each.url}));
        progress::count(due, dueTotal);
        ++due;
        const Fetch fetch = fetchList(*engine, each, true);
        std::string outcome, text;
        switch (fetch.kind) {
            case Fetch::Kind::Updated:
                outcome = "updated";
                text = updatedText(fetch);
                activeChanged |= each.profile == active;
                break;
            case Fetch::Kind::NotModified:
                outcome = "not modified";
                text = tr("not modified");
                break;
            case Fetch::Kind::Failed:
                outcome = "failed";
                text = format(tr("failed: {0} (the old rules stay)"), {fetch.why.local});
                ++failed;
                // Storage outranks a list that could not be had.
                if (failure != ExitCode::Storage) failure = fetch.code;
                break;
        }
        lists.push_back(Json{{"profile", each.profile},
                             {"url", each.url},
                             {"outcome", outcome},
                             {"message", fetch.why.english},
                             {"added", fetch.import.added},
                             {"nextDue", each.nextDue}});
        report.table.add(each.url, text);
    }
    report.json["lists"] = std::move(lists);
    if (due == 0) {
        report.notes.push_back(
            subscriptions.empty()
                ? tr("No lists are subscribed (see stonewall profile subscriptions).")
                : tr("No list is due yet; nothing changed (--force fetches every list now)."));
        return;
    }
    requireSaved(store, subscriptions);
    if (activeChanged) {
        engine->connectProfileDatabase();
        reloadActiveProfile(session, *engine, report);
    }
    if (failed > 0) {
        throw CommandFailure(
            failure == ExitCode::Storage ? ExitCode::Storage : ExitCode::Download, "update",
            message(NN_("{0} list of {1} could not be updated; their old rules stay",
                        "{0} lists of {1} could not be updated; their old rules stay"),
                    failed, {std::to_string(failed), std::to_string(due)}));
    }
}

}  // namespace stonewall::tool
