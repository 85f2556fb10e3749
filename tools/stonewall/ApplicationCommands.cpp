// unblock, unsecure, unallow, lists tidy, profile create/rename/remove/import
// and open-url: what the main application does on its platform.

#include "ApplicationCommands.h"

#include <algorithm>

#include "CommandSupport.h"
#include "Failure.h"
#include "InputFile.h"
#include "Progress.h"
#include "Subscriptions.h"
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
    const std::string label = std::string(names.name) + " list";
    if (tidy.leftAloneStatus) {
        report.json["lists"][names.name]["status"] = *tidy.leftAloneStatus;
        if (always) {
            report.table.add(label, "left alone (status " + std::to_string(*tidy.leftAloneStatus) +
                                        ": kept in the shared database only)");
        }
        return;
    }
    if (!always && !tidy.changed) return;
    std::string text;
    if (tidy.rulesBefore == 0) {
        text = "empty";
    } else if (tidy.rulesBefore > 1) {
        text = plural(tidy.rulesBefore, "rule") + " merged into 1, " + plural(tidy.hosts, "host");
    } else {
        text = "1 rule, " + plural(tidy.hosts, "host");
    }
    if (tidy.statusSet) {
        text += "; new hosts now join this rule";
    } else if (!tidy.changed && tidy.rulesBefore > 0) {
        text += " (already tidy)";
    }
    report.table.add(always ? label : "tidied " + label, text);
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
        report.notes.push_back(host + " is not on the " + names.name + " list of profile " +
                               profileID + "; nothing changed.");
        return;
    }
    report.table.add(std::string("removed from the ") + names.name + " list", host);
    report.table.add("profile", profileID);
    tidyWebsiteLists(*engine, report);
    reloadActiveProfile(session, *engine, report);
}

void runListsTidy(const CommonOptions& common, Report& report) {
    report.json["command"] = "lists tidy";
    Session session(common);
    auto engine = session.openEngine();
    const std::string profileID = requireActiveProfile(*engine->sharedData());
    report.add("profile", "profile", profileID);

    WebsiteListEditor editor(*engine);
    bool changed = false;
    for (const WebsiteListNames& names : kWebsiteLists) {
        WebsiteListEditor::TidyReport tidy;
        throwIfFailed(editor.tidyList(names.action, tidy));
        describeTidy(names, tidy, UnchangedLists::Show, report);
        changed |= tidy.changed;
    }
    report.add("domainStatus", "domain status", textOrNull(engine->sharedData()->domainStatus));
    report.json["changed"] = changed;
    if (!changed) {
        report.notes.push_back("The website lists are tidy; nothing changed.");
        return;
    }
    reloadActiveProfile(session, *engine, report);
}

void runProfileCreate(const CommonOptions& common, const std::string& name, Report& report) {
    report.json["command"] = "profile create";
    // Refused before the container is even opened.
    if (auto reason = ProfileManager::checkProfileName(name)) {
        throw CommandFailure(ExitCode::BadInput, "name \"" + name + "\"", *reason);
    }
    Session session(common);
    auto engine = session.openEngine();
    std::string profileID;
    throwIfFailed(ProfileManager(*engine).createProfile(name, profileID));
    report.json["profile"] = profileID;
    report.json["name"] = name;
    report.table.add("created", profileID);
    report.table.add("name", name);
    report.notes.push_back("Fill it with: stonewall profile import " + profileID +
                           " FILE; use it with: stonewall profile activate " + profileID);
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
        report.notes.push_back("Profile " + profileID + " is already named \"" + name +
                               "\"; nothing changed.");
        return;
    }
    report.table.add("profile", profileID);
    report.table.add("name", name + " (was " + previous + ")");
}

void runProfileRemove(const CommonOptions& common, const std::string& profileID, Report& report) {
    report.json["command"] = "profile remove";
    Session session(common);
    auto engine = session.openEngine();
    throwIfFailed(ProfileManager(*engine).removeProfile(profileID));
    report.add("profile", "removed", profileID);
    // Its subscriptions go with it; update would only fail on them.
    const SubscriptionStore store;
    std::vector<Subscription> subscriptions = store.load();
    const size_t dropped = std::erase_if(
        subscriptions, [&](const Subscription& each) { return each.profile == profileID; });
    if (dropped > 0) {
        if (!store.save(subscriptions)) {
            throw CommandFailure(ExitCode::Storage, store.path(),
                                 "could not be written; it still names the removed profile");
        }
        report.add("subscriptionsRemoved", Json(dropped), "subscriptions removed",
                   std::to_string(dropped));
    }
    report.table.add("profiles left",
                     std::to_string(splitList(engine->sharedData()->profileIDs).size()));
}

void runProfileImport(const CommonOptions& common, const std::string& profileID,
                      const std::string& file, Report& report) {
    report.json["command"] = "profile import";
    Session session(common);
    auto engine = session.openEngine();
    ProfileManager profiles(*engine);
    if (!profiles.profileIndex(profileID)) requireKnownProfile(*engine->sharedData(), profileID);
    progress::stage("reading " + inputName(file));
    const std::string text = readInputFile(file);
    if (auto reason = FilterListParser::checkFormat(text)) {
        throw CommandFailure(ExitCode::BadInput, inputName(file), *reason);
    }

    progress::stage("importing " + inputName(file));
    ProfileManager::ImportReport import;
    if (auto error = profiles.importFilterList(profileID, text, import)) {
        // The file is what people know the list by.
        if (error->subject == "filter list") error->subject = inputName(file);
        throwIfFailed(error);
    }
    const FilterListImport& list = import.list;

    report.json["profile"] = profileID;
    report.json["lines"] = list.lines;
    report.json["comments"] = list.comments;
    report.json["added"] = import.added;
    report.json["read"] = static_cast<int64_t>(list.rules.size());
    report.json["alreadyPresent"] = import.alreadyPresent;
    report.table.add("profile", profileID);
    report.table.add("lines",
                     std::to_string(list.lines) + " (" + plural(list.comments, "comment") + ")");
    report.table.add("read", plural(list.rules.size(), "rule"));
    Json byKind = Json::object();
    Json leftOut = Json::object();
    for (int64_t action : {ActionCode::kBlock, ActionCode::kHide, ActionCode::kBlockCookies,
                           ActionCode::kException, ActionCode::kUpgradeHTTPS}) {
        const int64_t count = list.rulesByAction[static_cast<size_t>(action)];
        byKind[std::string(actionName(action))] = count;
        leftOut[std::string(actionName(action))] =
            import.leftOutByAction[static_cast<size_t>(action)];
        report.table.add("  " + std::string(actionName(action)), std::to_string(count));
    }
    report.json["rulesByKind"] = std::move(byKind);
    if (import.alreadyPresent > 0) {
        report.table.add("already in the profile", std::to_string(import.alreadyPresent));
    }
    report.json["hideRulesJoined"] = import.hideRulesJoined;
    if (import.hideRulesJoined > 0) {
        report.table.add("hiding rules joined",
                         std::to_string(import.hideRulesJoined) + " (into rules of up to " +
                             std::to_string(ImportBudget::kSelectorsPerHideRule) + " selectors)");
    }
    report.table.add("imported", plural(import.added, "rule"));
    report.json["budget"] = import.slots;
    report.json["leftOut"] = std::move(leftOut);
    if (import.leftOut() > 0) {
        report.table.add("left out", plural(import.leftOut(), "rule") + " (room for " +
                                         std::to_string(import.slots) + "; see --help)");
        for (int64_t action : {ActionCode::kBlock, ActionCode::kHide, ActionCode::kBlockCookies,
                               ActionCode::kUpgradeHTTPS}) {
            if (const int64_t count = import.leftOutByAction[static_cast<size_t>(action)]) {
                report.table.add("  " + std::string(actionName(action)), std::to_string(count));
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
        report.table.add("removed from earlier lists",
                         plural(import.displaced(), "rule") + " (ranked below this list's)");
    }
    if (import.leftOut() + import.displaced() > 0) {
        report.notes.push_back(
            "The content blocker takes at most " + std::to_string(kMaximumRuleCount) +
            " rules and " + std::to_string(ImportBudget::kUserRuleReserve) +
            " stay free for your own website lists and picked elements; " +
            plural(import.leftOut() + import.displaced(), "rule") +
            " of the profile's lists did not fit (stonewall profile import --help says which "
            "stay).");
    }
    report.json["hideExceptionsApplied"] = list.hideExceptionsApplied;
    if (list.hideExceptionsApplied > 0) {
        report.table.add("hiding exceptions applied", std::to_string(list.hideExceptionsApplied));
    }
    Json skipped = Json::object();
    report.table.add("skipped", plural(list.skippedCount(), "line"));
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
        report.notes.push_back("Profile " + profileID +
                               " is not the active one; its rules take effect once it is "
                               "activated (stonewall profile activate " +
                               profileID + ").");
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
        throw CommandFailure(ExitCode::BadInput, "URL \"" + url + "\"",
                             "is not one of Stonewall's URLs (" + known + ")");
    }
    report.json["url"] = std::string(target->url);
    report.add("screen", "screen", std::string(target->title));
    report.notes.push_back(std::string(target->explanation));

    Session session(common);
    auto engine = session.openEngine();
    const SharedData& shared = *engine->sharedData();
    auto showList = [&](int64_t action) {
        const auto hosts = listedHosts(*engine, action);
        Json array = Json::array();
        for (const auto& host : hosts) array.push_back(host);
        report.json["hosts"] = std::move(array);
        report.table.add("profile", textOrNull(shared.activeProfileID));
        report.table.add("websites", hosts.empty()
                                         ? std::string("none")
                                         : plural(static_cast<int64_t>(hosts.size()), "website"));
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
            report.table.add(i == 0 ? "profiles" : "",
                             (active ? "* " : "  ") + ids[i] + "  " + name);
        }
        report.json["profiles"] = std::move(profiles);
    };
    switch (target->screen) {
        case ApplicationScreen::Status:
            report.add("blocking", "blocking", blockingText(shared.status));
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
                    picked == 1 ? "rules" : "",
                    std::string(actionName(rule.action)) + " " +
                        textOrNull(rule.action == ActionCode::kHide ? rule.selector
                                                                    : rule.filterDomain) +
                        " on " + textOrNull(rule.domains));
            }
            report.json["pickedRules"] = picked;
            if (picked == 0) report.table.add("rules", "none");
            break;
        }
        case ApplicationScreen::Open:
            report.add("blocking", "blocking", blockingText(shared.status));
            showProfiles();
            break;
    }
}

}  // namespace stonewall::tool
