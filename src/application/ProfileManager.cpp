#include "application/ProfileManager.h"

#include <algorithm>
#include <filesystem>
#include <numeric>
#include <unordered_set>

#include "application/ImportBudget.h"
#include "model/RuleCodes.h"
#include "model/RuleText.h"
#include "platform/ContainerLayout.h"
#include "utilities/Generator.h"
#include "utilities/Punycode.h"
#include "utilities/StringHelpers.h"

namespace stonewall {
namespace {

// The profile rule lists an import fills and looks for duplicates in.
constexpr int64_t kImportedActions[] = {ActionCode::kBlock, ActionCode::kHide,
                                        ActionCode::kBlockCookies, ActionCode::kException,
                                        ActionCode::kUpgradeHTTPS};

// The names and identifiers lists: an empty text has no entries.
std::vector<std::string> splitAtCommas(const NullableString& text) {
    if (!text || text->empty()) return {};
    return RuleText::components(*text);
}

std::string inQuotes(std::string_view text) { return "\"" + std::string(text) + "\""; }

// The profile's database file, whether it opened and has its table.
bool databaseUsable(const std::shared_ptr<ProfileDatabase>& database) {
    std::error_code error;
    return database && std::filesystem::is_regular_file(database->profilesDataPath(), error) &&
           database->checkTablesExist();
}

}  // namespace

std::optional<std::string> ProfileManager::checkProfileName(std::string_view name) {
    const std::u32string characters = PunycodeAdditions::longCharactersWithCount(name);
    if (!name.empty() && characters.empty()) return "is not valid UTF-8";
    if (PunycodeAdditions::trim(name).empty()) return "is empty";
    size_t length = 0;
    for (char32_t c : characters) {
        if (c < 0x20 || (c >= 0x7f && c < 0xa0) || c == 0x2028 || c == 0x2029) {
            return "holds a control character";
        }
        length += c > 0xFFFF ? 2 : 1;
    }
    if (length > kMaximumNameLength) {
        return "is too long (" + std::to_string(length) + " characters; at most " +
               std::to_string(kMaximumNameLength) + ")";
    }
    // The shared record joins the names with ",".
    if (name.find(',') != std::string_view::npos) return "holds a \",\"";
    if (PunycodeAdditions::trim(name) != name) return "begins or ends with white space";
    return std::nullopt;
}

std::optional<size_t> ProfileManager::profileIndex(const std::string& profileID) const {
    if (!engine_.sharedData()) return std::nullopt;
    const auto identifiers = splitAtCommas(engine_.sharedData()->profileIDs);
    const auto found = std::find(identifiers.begin(), identifiers.end(), profileID);
    if (found == identifiers.end()) return std::nullopt;
    return static_cast<size_t>(found - identifiers.begin());
}

ApplicationOutcome ProfileManager::requireProfile(const std::string& profileID,
                                                  size_t& index) const {
    const auto found = profileIndex(profileID);
    if (!found) {
        return badInput("profile " + inQuotes(profileID),
                        "unknown profile identifier (known: " +
                            textOrNull(engine_.sharedData() ? engine_.sharedData()->profileIDs
                                                            : NullableString()) +
                            ")");
    }
    index = *found;
    return std::nullopt;
}

ApplicationOutcome ProfileManager::writeProfileLists(std::vector<std::string> names,
                                                     std::vector<std::string> identifiers) {
    SharedData data = *engine_.sharedData();
    data.profiles = RuleText::joinComponents(names);
    data.profileIDs = RuleText::joinComponents(identifiers);
    engine_.sharedDatabase().updateSharedDataDetails(data);
    engine_.syncShared();
    const auto& stored = engine_.sharedData();
    if (!stored || stored->profiles != data.profiles || stored->profileIDs != data.profileIDs) {
        return storageFailure("shared database " + engine_.sharedDatabase().dataPath(),
                              "did not take the new profile list");
    }
    return std::nullopt;
}

ApplicationOutcome ProfileManager::createProfile(const std::string& name, std::string& profileID) {
    if (auto reason = checkProfileName(name)) return badInput("name " + inQuotes(name), *reason);
    if (!engine_.sharedData()) return storageFailure("shared database", "cannot be read");
    auto names = splitAtCommas(engine_.sharedData()->profiles);
    auto identifiers = splitAtCommas(engine_.sharedData()->profileIDs);
    if (std::find(names.begin(), names.end(), name) != names.end()) {
        return badInput("name " + inQuotes(name), "another profile has this name");
    }
    // Names and identifiers are paired by position; a record whose lists
    // differ in length would pair the new name with another profile.
    names.resize(identifiers.size());

    do {
        profileID = Generator::profileID();
    } while (profileIndex(profileID));

    // The database first: a profile in the record must always have one.
    const auto database = ProfileDatabase::initWithBlockerProfileID(profileID);
    if (!databaseUsable(database)) {
        return storageFailure(
            "profile " + profileID,
            "its database could not be made from the template" +
                (database ? " (" + database->profilesDataPath() + ")" : std::string()));
    }
    names.push_back(name);
    identifiers.push_back(profileID);
    if (auto error = writeProfileLists(std::move(names), std::move(identifiers))) {
        database->close();
        database->profilesFileHandler().removeFile(database->profilesFileName());
        return error;
    }
    CompanionController::sendUpdateNotification();
    return std::nullopt;
}

ApplicationOutcome ProfileManager::renameProfile(const std::string& profileID,
                                                 const std::string& name) {
    size_t index = 0;
    if (auto error = requireProfile(profileID, index)) return error;
    if (auto reason = checkProfileName(name)) return badInput("name " + inQuotes(name), *reason);
    auto names = splitAtCommas(engine_.sharedData()->profiles);
    auto identifiers = splitAtCommas(engine_.sharedData()->profileIDs);
    names.resize(identifiers.size());
    for (size_t other = 0; other < names.size(); ++other) {
        if (other != index && names[other] == name) {
            return badInput("name " + inQuotes(name), "another profile has this name");
        }
    }
    if (names[index] == name) return std::nullopt;
    names[index] = name;
    if (auto error = writeProfileLists(std::move(names), std::move(identifiers))) return error;
    CompanionController::sendUpdateNotification();
    return std::nullopt;
}

ApplicationOutcome ProfileManager::removeProfile(const std::string& profileID) {
    size_t index = 0;
    if (auto error = requireProfile(profileID, index)) return error;
    const SharedData& shared = *engine_.sharedData();
    if (shared.activeProfileID == profileID) {
        return badInput("profile " + inQuotes(profileID),
                        "is the active profile (activate another one first)");
    }
    auto names = splitAtCommas(shared.profiles);
    auto identifiers = splitAtCommas(shared.profileIDs);
    if (identifiers.size() == 1) {
        return badInput("profile " + inQuotes(profileID), "is the only profile");
    }
    names.resize(identifiers.size());
    names.erase(names.begin() + static_cast<std::ptrdiff_t>(index));
    identifiers.erase(identifiers.begin() + static_cast<std::ptrdiff_t>(index));
    // The record first: once no program can pick the profile, its files
    // can go without a window in which it names a missing database.
    if (auto error = writeProfileLists(std::move(names), std::move(identifiers))) return error;

    std::vector<SharedCustomRule> customRules = engine_.sharedDatabase().getSharedCustomRules();
    std::erase_if(customRules,
                  [&](const SharedCustomRule& rule) { return rule.blockerProfileID != profileID; });
    if (!customRules.empty()) engine_.sharedDatabase().removeSharedCustomRulesDetails(customRules);

    const FileHandler profiles = FileHandler::initWithNameAndGroup(
        std::string(ContainerLayout::kProfilesFolder), std::string(kApplicationGroup));
    for (const std::string& file : {ContainerLayout::profileDatabaseFileName(profileID),
                                    ContainerLayout::ruleListFileName(profileID)}) {
        if (profiles.fileExists(file)) profiles.removeFile(file);
        if (profiles.fileExists(file)) {
            CompanionController::sendUpdateNotification();
            return storageFailure(profiles.getFilePath(file), "could not be removed");
        }
    }
    CompanionController::sendUpdateNotification();
    return std::nullopt;
}

int64_t ProfileManager::ImportReport::leftOut() const {
    return std::accumulate(leftOutByAction.begin(), leftOutByAction.end(), int64_t{0});
}

int64_t ProfileManager::ImportReport::displaced() const {
    return std::accumulate(displacedByAction.begin(), displacedByAction.end(), int64_t{0});
}

ApplicationOutcome ProfileManager::importFilterList(const std::string& profileID,
                                                    std::string_view text, ImportReport& report,
                                                    const std::optional<std::string>& listTag) {
    report = {};
    const std::string prefix = listTag ? *listTag + "-" : std::string();
    size_t index = 0;
    if (auto error = requireProfile(profileID, index)) return error;
    if (auto reason = FilterListParser::checkFormat(text)) return badInput("filter list", *reason);
    report.list = FilterListParser::parse(text, BlockerCode::kList1);
    if (report.list.rules.empty()) {
        return badInput("filter list", "no line could be imported (" +
                                           std::to_string(report.list.skippedCount()) +
                                           " skipped); is it an adblock filter list?");
    }

    const auto database = ProfileDatabase::initWithBlockerProfileID(profileID);
    if (!databaseUsable(database)) {
        return storageFailure(
            "profile " + profileID,
            "its database cannot be opened" +
                (database ? " (" + database->profilesDataPath() + ")" : std::string()));
    }

    // Importing a list again (or an overlapping one) adds only what is new.
    // The lists imported before are ranked with the new one.
    std::unordered_set<std::string> present;
    std::vector<ProfileRule> ranked;
    int64_t userRules = 0;
    for (int64_t action = ActionCode::kBlock; action <= ActionCode::kUpgradeHTTPS; ++action) {
        const bool imported = std::find(std::begin(kImportedActions), std::end(kImportedActions),
                                        action) != std::end(kImportedActions);
        // A read cut short would make rules already there look new.
        if (!database->forEachProfileRuleByAction(action, [&](ProfileRule& rule) {
                if (listTag && rule.ruleID && rule.ruleID->starts_with(prefix)) {
                    ++report.replaced;
                    return;
                }
                if (rule.blocker == BlockerCode::kCustom || !imported) {
                    ++userRules;
                    return;
                }
                present.insert(rule.computeHash());
                ranked.push_back(std::move(rule));
            })) {
            return storageFailure("profile " + profileID,
                                  "its database could not be read completely");
        }
    }
    const size_t earlier = ranked.size();
    std::vector<ProfileRule> candidates;
    candidates.reserve(report.list.rules.size());
    for (const ProfileRule& rule : report.list.rules) {
        if (present.contains(rule.computeHash())) {
            ++report.alreadyPresent;
            continue;
        }
        candidates.push_back(rule);
    }
    const size_t beforeJoin = candidates.size();
    candidates = ImportBudget::joinHideRules(std::move(candidates));
    report.hideRulesJoined = static_cast<int64_t>(beforeJoin - candidates.size());
    for (ProfileRule& rule : candidates) {
        if (present.insert(rule.computeHash()).second) ranked.push_back(std::move(rule));
    }

    report.slots = ImportBudget::availableSlots(userRules);
    const int64_t exceptions = std::count_if(
        ranked.begin(), ranked.end(),
        [](const ProfileRule& rule) { return rule.action == ActionCode::kException; });
    if (exceptions > report.slots) {
        return badInput("profile " + profileID,
                        "has room for " + std::to_string(report.slots) +
                            " imported rules, fewer than the " + std::to_string(exceptions) +
                            " exceptions of its lists; import into a new profile");
    }
    const ImportBudget::Fit fit = ImportBudget::fit(ranked, report.slots);
    std::vector<ProfileRule> rows, displaced;
    for (size_t i = 0; i < ranked.size(); ++i) {
        const auto action = static_cast<size_t>(ranked[i].action);
        if (i < earlier) {
            if (fit.kept[i]) continue;
            if (action < 9) ++report.displacedByAction[action];
            displaced.push_back(std::move(ranked[i]));
        } else if (fit.kept[i]) {
            rows.push_back(std::move(ranked[i]));
            rows.back().ruleID = prefix + Generator::customRuleID();
        } else if (action < 9) {
            ++report.leftOutByAction[action];
        }
    }
    if (rows.empty() && displaced.empty() && report.replaced == 0) return std::nullopt;
    // The list's earlier rows, the displaced rules of other lists and the
    // new rows change in one transaction: a failure leaves every old row.
    const int64_t before = database->getProfileRulesCount();
    if (!database->replaceProfileRulesWithPrefix(prefix, rows, displaced) ||
        database->getProfileRulesCount() != before - report.replaced -
                                                static_cast<int64_t>(displaced.size()) +
                                                static_cast<int64_t>(rows.size())) {
        return storageFailure("profile " + profileID,
                              "its database did not take the list's new rules; the old ones "
                              "stay (" +
                                  database->profilesDataPath() + ")");
    }
    report.added = static_cast<int64_t>(rows.size());
    CompanionController::sendUpdateNotification();
    return std::nullopt;
}

ApplicationOutcome ProfileManager::removeFilterList(const std::string& profileID,
                                                    const std::string& listTag, int64_t& removed) {
    removed = 0;
    size_t index = 0;
    if (auto error = requireProfile(profileID, index)) return error;
    const auto database = ProfileDatabase::initWithBlockerProfileID(profileID);
    if (!databaseUsable(database)) {
        return storageFailure("profile " + profileID, "its database cannot be opened");
    }
    const int64_t before = database->getProfileRulesCount();
    if (!database->replaceProfileRulesWithPrefix(listTag + "-", {}, {})) {
        return storageFailure(
            "profile " + profileID,
            "its database did not let the list's rules go (" + database->profilesDataPath() + ")");
    }
    removed = before - database->getProfileRulesCount();
    if (removed > 0) CompanionController::sendUpdateNotification();
    return std::nullopt;
}

}  // namespace stonewall
