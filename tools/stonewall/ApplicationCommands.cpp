// unblock, unsecure, unallow, lists tidy, profile create/rename/remove/import
// and open-url: what the main application does on its platform.

#include "ApplicationCommands.h"

#include <algorithm>

#include "CommandSupport.h"
#include "Failure.h"
#include "InputFile.h"
#include "Progress.h"
#include "Subscriptions.h"
#include "Text.h"
#include "application/ApplicationURL.h"
#include "application/ImportBudget.h"
#include "application/ProfileManager.h"
#include "application/WebsiteListEditor.h"
#include "engine/CompanionController.h"
#include "model/RuleCodes.h"

namespace stonewall::tool {

namespace {

// The entries of every list rule of the action, in order, each once.
std::vector<std::string> listedHosts(CompanionController& engine, int64_t action) {
    std::vector<std::string> hosts;
    for (const ProfileRule& rule : engine.activeDatabase()->getProfileRulesByAction(action)) {
        if (!WebsiteListEditor::isWebsiteListRule(rule)) continue;
        for (std::string& host : splitList(rule.domains)) {
            if (std::find(hosts.begin(), hosts.end(), host) == hosts.end()) {
                hosts.push_back(std::move(host));
            }
        }
    }
    return hosts;
}

// Whether a list the tidy left as it was gets a row of its own.
enum class UnchangedLists { Omit, Show };

// What the tidy did to one list, for the report.
void describeTidy(const WebsiteListNames& names, const WebsiteListEditor::TidyReport& tidy,
                  UnchangedLists unchanged, Report& report) {
    const bool always = unchanged == UnchangedLists::Show;
    report.json["lists"][names.name] = Json{{"rulesBefore", tidy.rulesBefore},
                                            {"hosts", tidy.hosts},
                                            {"changed", tidy.changed},
                                            {"statusSet", tidy.statusSet}};
    const std::string label = tr(names.list);
    if (tidy.leftAloneStatus) {
        report.json["lists"][names.name]["status"] = *tidy.leftAloneStatus;
        if (always) {
            report.table.add(label,
                             format(tr("left alone (status {0}: kept in the shared database only)"),
                                    {std::to_string(*tidy.leftAloneStatus)}));
        }
        return;
    }
    if (!always && !tidy.changed) return;
    const std::string hosts =
        format(trn(NN_("{0} host", "{0} hosts"), tidy.hosts), {std::to_string(tidy.hosts)});
    std::string text;
    if (tidy.rulesBefore == 0) {
        text = tr("empty");
    } else if (tidy.rulesBefore > 1) {
        text = format(trn(NN_("{0} rule merged into 1, {1}", "{0} rules merged into 1, {1}"),
                          tidy.rulesBefore),
                      {std::to_string(tidy.rulesBefore), hosts});
    } else {
        text = format(tr("1 rule, {0}"), {hosts});
    }
    if (tidy.statusSet) {
        text = format(tr("{0}; new hosts now join this rule"), {text});
    } else if (!tidy.changed && tidy.rulesBefore > 0) {
        text = format(tr("{0} (already tidy)"), {text});
    }
    report.table.add(always ? label : format(tr("tidied {0}"), {label}), text);
}

}  // namespace

void tidyWebsiteLists(CompanionController& engine, Report& report) {
    WebsiteListEditor editor(engine);
    for (const WebsiteListNames& names : kWebsiteLists) {
        WebsiteListEditor::TidyReport tidy;
        throwIfFailed(editor.tidyList(names.action, tidy));
        describeTidy(names, tidy, UnchangedLists::Omit, report);
    }
}

void runRemoveWebsite(const CommonOptions& common, WebsiteList list, const std::string& url,
                      Report& report) {
    const WebsiteListNames& names = websiteListNames(list);
    report.json["command"] = names.removal;
    const std::string host = requirePageURL(url).host;

    Session session(common);
    auto engine = session.openEngine();
    const std::string profileID = requireActiveProfile(*engine->sharedData());
    report.json["host"] = host;
    report.json["profile"] = profileID;

    bool removed = false;
    throwIfFailed(WebsiteListEditor(*engine).removeWebsite(names.action, host, removed));
    report.json["changed"] = removed;
    if (!removed) {
        report.notes.push_back(format(tr("{0} is not on the {1} of profile {2}; nothing changed."),
                                      {host, tr(names.list), profileID}));
        return;
    }
    report.table.add(format(tr("removed from the {0}"), {tr(names.list)}), host);
    report.table.add(tr("profile"), profileID);
    tidyWebsiteLists(*engine, report);
    reloadActiveProfile(session, *engine, report);
}

void runListsTidy(const CommonOptions& common, Report& report) {
    report.json["command"] = "lists tidy";
    Session session(common);
    auto engine = session.openEngine();
    const std::string profileID = requireActiveProfile(*engine->sharedData());
    report.add("profile", tr("profile"), profileID);

    WebsiteListEditor editor(*engine);
    bool changed = false;
    for (const WebsiteListNames& names : kWebsiteLists) {
        WebsiteListEditor::TidyReport tidy;
        throwIfFailed(editor.tidyList(names.action, tidy));
        describeTidy(names, tidy, UnchangedLists::Show, report);
        changed |= tidy.changed;
    }
    report.add("domainStatus", tr("domain status"), textOrNull(engine->sharedData()->domainStatus));
    report.json["changed"] = changed;
    if (!changed) {
        report.notes.push_back(tr("The website lists are tidy; nothing changed."));
        return;
    }
    reloadActiveProfile(session, *engine, report);
}

void runProfileCreate(const CommonOptions& common, const std::string& name, Report& report) {
    report.json["command"] = "profile create";
    // Refused before the container is even opened.
    if (auto reason = ProfileManager::checkProfileName(name)) {
        // The reason comes from the application layer, in English.
        throw CommandFailure(ExitCode::BadInput, message(N_("name \"{0}\""), {name}), *reason);
    }
    Session session(common);
    auto engine = session.openEngine();
    std::string profileID;
    throwIfFailed(ProfileManager(*engine).createProfile(name, profileID));
    report.json["profile"] = profileID;
    report.json["name"] = name;
    report.table.add(tr("created"), profileID);
    report.table.add(tr("name"), name);
    report.notes.push_back(
        format(tr("Fill it with: stonewall profile import {0} FILE; use it with: "
                  "stonewall profile activate {0}"),
               {profileID}));
}

void runProfileRename(const CommonOptions& common, const std::string& profileID,
                      const std::string& name, Report& report) {
    report.json["command"] = "profile rename";
    Session session(common);
    auto engine = session.openEngine();
    ProfileManager profiles(*engine);
    const auto index = profiles.profileIndex(profileID);
    const auto names = splitList(engine->sharedData()->profiles);
    const std::string previous = index && *index < names.size() ? names[*index] : std::string();
    throwIfFailed(profiles.renameProfile(profileID, name));
    report.json["profile"] = profileID;
    report.json["name"] = name;
    report.json["changed"] = previous != name;
    if (previous == name) {
        report.notes.push_back(format(tr("Profile {0} is already named \"{1}\"; nothing changed."),
                                      {profileID, name}));
        return;
    }
    report.table.add(tr("profile"), profileID);
    report.table.add(tr("name"), format(tr("{0} (was {1})"), {name, previous}));
}

void runProfileRemove(const CommonOptions& common, const std::string& profileID, Report& report) {
    report.json["command"] = "profile remove";
    Session session(common);
    auto engine = session.openEngine();
    throwIfFailed(ProfileManager(*engine).removeProfile(profileID));
    report.add("profile", tr("removed"), profileID);
    // Its subscriptions go with it; update would only fail on them.
    const SubscriptionStore store;
    std::vector<Subscription> subscriptions = store.load();
    const size_t dropped = std::erase_if(
        subscriptions, [&](const Subscription& each) { return each.profile == profileID; });
    if (dropped > 0) {
        if (!store.save(subscriptions)) {
            throw CommandFailure(
                ExitCode::Storage, store.path(),
                message(N_("could not be written; it still names the removed profile")));
        }
        report.add("subscriptionsRemoved", Json(dropped), tr("subscriptions removed"),
                   std::to_string(dropped));
    }
    report.table.add(tr("profiles left"),
                     std::to_string(splitList(engine->sharedData()->profileIDs).size()));
}

void runProfileImport(const CommonOptions& common, const std::string& profileID,
                      const std::string& file, Report& report) {
    report.json["command"] = "profile import";
    Session session(common);
    auto engine = session.openEngine();
    ProfileManager profiles(*engine);
    if (!profiles.profileIndex(profileID)) requireKnownProfile(*engine->sharedData(), profileID);
    progress::stage(format(tr("reading {0}"), {inputName(file).local}));
    const std::string text = readInputFile(file);
    if (auto reason = FilterListParser::checkFormat(text)) {
        throw CommandFailure(ExitCode::BadInput, inputName(file), *reason);
    }

    progress::stage(format(tr("importing {0}"), {inputName(file).local}));
    ProfileManager::ImportReport import;
    if (auto error = profiles.importFilterList(profileID, text, import)) {
        // The file is what people know the list by.
        if (error->subject == "filter list") {
            throw CommandFailure(exitCodeOf(*error), inputName(file), error->reason);
        }
        throwIfFailed(error);
    }
    const FilterListImport& list = import.list;

    report.json["profile"] = profileID;
    report.json["lines"] = list.lines;
    report.json["comments"] = list.comments;
    report.json["added"] = import.added;
    report.json["read"] = static_cast<int64_t>(list.rules.size());
    report.json["alreadyPresent"] = import.alreadyPresent;
    const auto rules = [](int64_t count) {
        return format(trn(NN_("{0} rule", "{0} rules"), count), {std::to_string(count)});
    };
    report.table.add(tr("profile"), profileID);
    report.table.add(tr("lines"),
                     format(trn(NN_("{0} ({1} comment)", "{0} ({1} comments)"), list.comments),
                            {std::to_string(list.lines), std::to_string(list.comments)}));
    report.table.add(tr("read"), rules(static_cast<int64_t>(list.rules.size())));
    Json byKind = Json::object();
    Json leftOut = Json::object();
    for (int64_t action : {ActionCode::kBlock, ActionCode::kHide, ActionCode::kBlockCookies,
                           ActionCode::kException, ActionCode::kUpgradeHTTPS}) {
        const int64_t count = list.rulesByAction[static_cast<size_t>(action)];
        byKind[std::string(actionName(action))] = count;
        leftOut[std::string(actionName(action))] =
            import.leftOutByAction[static_cast<size_t>(action)];
        report.table.add(std::string("  ") + actionLabel(action), std::to_string(count));
    }
    report.json["rulesByKind"] = std::move(byKind);
    if (import.alreadyPresent > 0) {
        report.table.add(tr("already in the profile"), std::to_string(import.alreadyPresent));
    }
    report.json["hideRulesJoined"] = import.hideRulesJoined;
    if (import.hideRulesJoined > 0) {
        report.table.add(tr("hiding rules joined"),
                         format(tr("{0} (into rules of up to {1} selectors)"),
                                {std::to_string(import.hideRulesJoined),
                                 std::to_string(ImportBudget::kSelectorsPerHideRule)}));
    }
    report.table.add(tr("imported"), rules(import.added));
    report.json["budget"] = import.slots;
    report.json["leftOut"] = std::move(leftOut);
    if (import.leftOut() > 0) {
        report.table.add(tr("left out"),
                         format(trn(NN_("{0} rule (room for {1}; see --help)",
                                        "{0} rules (room for {1}; see --help)"),
                                    import.leftOut()),
                                {std::to_string(import.leftOut()), std::to_string(import.slots)}));
        for (int64_t action : {ActionCode::kBlock, ActionCode::kHide, ActionCode::kBlockCookies,
                               ActionCode::kUpgradeHTTPS}) {
            if (const int64_t count = import.leftOutByAction[static_cast<size_t>(action)]) {
                report.table.add(std::string("  ") + actionLabel(action), std::to_string(count));
            }
        }
    }
    Json displaced = Json::object();
    for (int64_t action : {ActionCode::kBlock, ActionCode::kHide, ActionCode::kBlockCookies,
                           ActionCode::kUpgradeHTTPS}) {
        displaced[std::string(actionName(action))] =
            import.displacedByAction[static_cast<size_t>(action)];
    }
    report.json["removedFromEarlierLists"] = std::move(displaced);
    if (import.displaced() > 0) {
        report.table.add(tr("removed from earlier lists"),
                         format(trn(NN_("{0} rule (ranked below this list's)",
                                        "{0} rules (ranked below this list's)"),
                                    import.displaced()),
                                {std::to_string(import.displaced())}));
    }
    if (const int64_t unfit = import.leftOut() + import.displaced(); unfit > 0) {
        report.notes.push_back(
            format(trn(NN_("The content blocker takes at most {0} rules and {1} stay free for "
                           "your own website lists and picked elements; {2} rule of the "
                           "profile's lists did not fit (stonewall profile import --help says "
                           "which stay).",
                           "The content blocker takes at most {0} rules and {1} stay free for "
                           "your own website lists and picked elements; {2} rules of the "
                           "profile's lists did not fit (stonewall profile import --help says "
                           "which stay)."),
                       unfit),
                   {std::to_string(kMaximumRuleCount),
                    std::to_string(ImportBudget::kUserRuleReserve), std::to_string(unfit)}));
    }
    report.json["hideExceptionsApplied"] = list.hideExceptionsApplied;
    if (list.hideExceptionsApplied > 0) {
        report.table.add(tr("hiding exceptions applied"),
                         std::to_string(list.hideExceptionsApplied));
    }
    Json skipped = Json::object();
    report.table.add(tr("skipped"), format(trn(NN_("{0} line", "{0} lines"), list.skippedCount()),
                                           {std::to_string(list.skippedCount())}));
    // The reasons are the parser's, in English (also the keys of --json).
    for (const auto& [reason, count] : list.skipped) {
        skipped[reason] = count;
        report.table.add("  " + reason, std::to_string(count));
    }
    report.json["skipped"] = std::move(skipped);

    const bool changed = import.added > 0 || import.displaced() > 0;
    if (changed && engine->sharedData()->activeProfileID == profileID) {
        engine->connectProfileDatabase();
        reloadActiveProfile(session, *engine, report);
    } else if (changed) {
        report.notes.push_back(notActiveNote(profileID));
    }
}

void runOpenURL(const CommonOptions& common, const std::string& url, Report& report) {
    report.json["command"] = "open-url";
    const auto target = ApplicationURL::target(url);
    if (!target) {
        std::string known;
        for (const auto& each : ApplicationURL::targets()) {
            known += (known.empty() ? "" : ", ") + std::string(each.url);
        }
        throw CommandFailure(ExitCode::BadInput, message(N_("URL \"{0}\""), {url}),
                             message(N_("is not one of Stonewall's URLs ({0})"), {known}));
    }
    report.json["url"] = std::string(target->url);
    // The screen's title and explanation are the application's, in English.
    report.add("screen", tr("screen"), std::string(target->title));
    report.notes.push_back(std::string(target->explanation));

    Session session(common);
    auto engine = session.openEngine();
    const SharedData& shared = *engine->sharedData();
    auto showList = [&](int64_t action) {
        const auto hosts = listedHosts(*engine, action);
        Json array = Json::array();
        for (const auto& host : hosts) array.push_back(host);
        report.json["hosts"] = std::move(array);
        const auto count = static_cast<int64_t>(hosts.size());
        report.table.add(tr("profile"), textOrNull(shared.activeProfileID));
        report.table.add(tr("websites"),
                         hosts.empty() ? std::string(tr("none"))
                                       : format(trn(NN_("{0} website", "{0} websites"), count),
                                                {std::to_string(count)}));
        for (const auto& host : hosts) report.table.add("", host);
    };
    auto showProfiles = [&] {
        const auto ids = splitList(shared.profileIDs);
        const auto names = splitList(shared.profiles);
        Json profiles = Json::array();
        for (size_t i = 0; i < ids.size(); ++i) {
            const bool active = shared.activeProfileID == ids[i];
            const std::string name = i < names.size() ? names[i] : std::string();
            profiles.push_back(Json{{"id", ids[i]}, {"name", name}, {"active", active}});
            report.table.add(i == 0 ? tr("profiles") : "",
                             (active ? "* " : "  ") + ids[i] + "  " + name);
        }
        report.json["profiles"] = std::move(profiles);
    };
    switch (target->screen) {
        case ApplicationScreen::Status:
            report.add("blocking", blockingText(shared.status), tr("blocking"),
                       blockingLabel(shared.status));
            break;
        case ApplicationScreen::Activate:
            showProfiles();
            break;
        case ApplicationScreen::BlockWebsite:
            showList(ActionCode::kBlockWebsite);
            break;
        case ApplicationScreen::SecureWebsite:
            showList(ActionCode::kSecureWebsite);
            break;
        case ApplicationScreen::AllowWebsite:
            showList(ActionCode::kAllowWebsite);
            break;
        case ApplicationScreen::Visual: {
            int64_t picked = 0;
            for (const SharedCustomRule& rule : engine->sharedDatabase().getSharedCustomRules()) {
                if (rule.blockerProfileID != shared.activeProfileID) continue;
                if (rule.action != ActionCode::kBlock && rule.action != ActionCode::kHide) continue;
                ++picked;
                report.table.add(
                    picked == 1 ? tr("rules") : "",
                    format(tr("{0} {1} on {2}"),
                           {actionLabel(rule.action),
                            textOrNull(rule.action == ActionCode::kHide ? rule.selector
                                                                        : rule.filterDomain),
                            textOrNull(rule.domains)}));
            }
            report.json["pickedRules"] = picked;
            if (picked == 0) report.table.add(tr("rules"), tr("none"));
            break;
        }
        case ApplicationScreen::Open:
            report.add("blocking", blockingText(shared.status), tr("blocking"),
                       blockingLabel(shared.status));
            showProfiles();
            break;
    }
}

}  // namespace stonewall::tool
