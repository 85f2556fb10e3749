#include "application/WebsiteListEditor.h"

#include <algorithm>
#include <unordered_set>

#include "model/RuleCodes.h"
#include "model/RuleText.h"
#include "utilities/Generator.h"

namespace stonewall {
namespace {

constexpr char kAnyURLFilter[] = ".*";

std::vector<std::string> splitAtCommas(const NullableString& text) {
    if (!text) return {};
    return RuleText::components(*text);
}

bool emptyOrNull(const NullableString& text) { return !text || text->empty(); }

bool listHolds(const ProfileRule& rule, const std::string& host) {
    const auto entries = splitAtCommas(rule.domains);
    return std::find(entries.begin(), entries.end(), host) != entries.end();
}

ApplicationError profileNotWritten(const CompanionController& engine) {
    return storageFailure("profile " + textOrNull(engine.sharedData()->activeProfileID),
                          "its database did not take the change (" +
                              engine.activeDatabase()->profilesDataPath() + ")");
}

ApplicationError sharedNotWritten(CompanionController& engine) {
    return storageFailure("shared database " + engine.sharedDatabase().dataPath(),
                          "did not take the change");
}

}  // namespace

bool WebsiteListEditor::isWebsiteListRule(const ProfileRule& rule) {
    return rule.filter == kAnyURLFilter && rule.domainType == DomainTypeCode::kIfTopURL &&
           emptyOrNull(rule.selector) && !rule.resources && !rule.loads &&
           rule.filterSensitive == 0;
}

std::vector<ProfileRule> WebsiteListEditor::listRules(int64_t action) const {
    std::vector<ProfileRule> rules = engine_.activeDatabase()->getProfileRulesByAction(action);
    std::erase_if(rules, [](const ProfileRule& rule) { return !isWebsiteListRule(rule); });
    return rules;
}

ApplicationOutcome WebsiteListEditor::setStatus(int64_t action, std::string_view value) {
    const auto position = websiteListStatusPosition(action);
    if (!position) return std::nullopt;
    SharedData data = *engine_.sharedData();
    if (value == "1") {
        // The engine's own writer, so that the record keeps the shape the
        // product's programs agree on.
        engine_.updateWebsitesStatusShared(action);
    } else {
        auto components = splitAtCommas(data.domainStatus);
        components.resize(std::max<size_t>(components.size(), 3), "-1");
        components[*position] = std::string(value);
        data.domainStatus = RuleText::joinComponents(components);
        engine_.sharedDatabase().updateSharedDataDetails(data);
    }
    engine_.syncShared();
    if (!engine_.sharedData()) return sharedNotWritten(engine_);
    const auto stored = splitAtCommas(engine_.sharedData()->domainStatus);
    if (stored.size() <= *position || stored[*position] != value) return sharedNotWritten(engine_);
    return std::nullopt;
}

ApplicationOutcome WebsiteListEditor::tidyList(int64_t action, TidyReport& report) {
    report = {};
    if (!websiteListStatusPosition(action) || !engine_.sharedData() || !engine_.activeDatabase()) {
        return badInput("action " + std::to_string(action), "has no website list");
    }
    const int64_t status = engine_.getWebsitesStatusShared(action);
    if (status != WebsiteListStatus::kNoListRule && status != WebsiteListStatus::kListRuleExists) {
        report.leftAloneStatus = status;
        return std::nullopt;
    }

    const std::vector<ProfileRule> before = listRules(action);
    report.rulesBefore = static_cast<int64_t>(before.size());
    if (before.empty()) return std::nullopt;  // a new website will start the list

    std::vector<std::string> hosts;
    std::unordered_set<std::string> seen;
    for (const ProfileRule& rule : before) {
        for (std::string& entry : splitAtCommas(rule.domains)) {
            if (!entry.empty() && seen.insert(entry).second) hosts.push_back(std::move(entry));
        }
    }
    report.hosts = static_cast<int64_t>(hosts.size());

    ProfileRule merged;
    merged.ruleID = Generator::customRuleID(action, engine_.sharedData()->activeProfileID);
    merged.blocker = BlockerCode::kCustom;
    merged.action = action;
    merged.filter = kAnyURLFilter;
    merged.domains = RuleText::joinComponents(hosts);
    merged.domainType = DomainTypeCode::kIfTopURL;

    ProfileDatabase& database = *engine_.activeDatabase();
    if (before.size() != 1 || !(before.front() == merged)) {
        database.removeProfileRulesCustom(before);
        database.addProfileRules({merged});
        const std::vector<ProfileRule> after = listRules(action);
        if (after.size() != 1 || !(after.front() == merged)) {
            // Put back what was there rather than leave the list half-written.
            database.removeProfileRulesCustom({merged});
            database.addProfileRules(before);
            return profileNotWritten(engine_);
        }
        report.changed = true;
    }
    if (status != 1) {
        if (auto error = setStatus(action, "1")) return error;
        report.changed = report.statusSet = true;
    }
    if (report.changed) CompanionController::sendUpdateNotification();
    return std::nullopt;
}

ApplicationOutcome WebsiteListEditor::removeWebsite(int64_t action, const std::string& host,
                                                    bool& removed) {
    removed = false;
    if (!websiteListStatusPosition(action) || !engine_.sharedData() || !engine_.activeDatabase()) {
        return badInput("action " + std::to_string(action), "has no website list");
    }
    const NullableString profileID = engine_.sharedData()->activeProfileID;
    std::vector<SharedCustomRule> sharedRules = engine_.sharedDatabase().getSharedCustomRules();
    std::erase_if(sharedRules, [&](const SharedCustomRule& rule) {
        return rule.action != action || rule.blockerProfileID != profileID || rule.domains != host;
    });
    const std::vector<ProfileRule> current = listRules(action);
    const bool inProfile =
        std::any_of(current.begin(), current.end(),
                    [&](const ProfileRule& rule) { return listHolds(rule, host); });
    if (!inProfile && sharedRules.empty()) return std::nullopt;

    if (inProfile) {
        // One rule to edit: the list rules merged first.
        TidyReport tidy;
        if (auto error = tidyList(action, tidy)) return error;
        std::vector<ProfileRule> rules = listRules(action);
        ProfileDatabase& database = *engine_.activeDatabase();
        for (ProfileRule& rule : rules) {
            if (!listHolds(rule, host)) continue;
            auto entries = splitAtCommas(rule.domains);
            std::erase(entries, host);
            std::erase(entries, std::string());
            if (entries.empty()) {
                database.removeProfileRulesCustom({rule});
            } else {
                rule.domains = RuleText::joinComponents(entries);
                database.updateProfileRules({rule});
            }
        }
        const std::vector<ProfileRule> after = listRules(action);
        if (std::any_of(after.begin(), after.end(),
                        [&](const ProfileRule& rule) { return listHolds(rule, host); })) {
            return profileNotWritten(engine_);
        }
        // An empty list has no rule; the next website starts a new one.
        if (after.empty() &&
            engine_.getWebsitesStatusShared(action) == WebsiteListStatus::kListRuleExists) {
            if (auto error = setStatus(action, "-1")) return error;
        }
    }
    if (!sharedRules.empty()) {
        engine_.sharedDatabase().removeSharedCustomRulesDetails(sharedRules);
        for (const SharedCustomRule& rule : engine_.sharedDatabase().getSharedCustomRules()) {
            if (rule.action == action && rule.blockerProfileID == profileID &&
                rule.domains == host) {
                return sharedNotWritten(engine_);
            }
        }
    }
    removed = true;
    CompanionController::sendUpdateNotification();
    return std::nullopt;
}

}  // namespace stonewall
