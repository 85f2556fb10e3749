#include "storage/ProfileDatabase.h"

#include <sqlite3.h>

#include <iterator>
#include <string_view>

#include "platform/ContainerLayout.h"
#include "platform/Platform.h"
#include "platform/StorageEvents.h"
#include "storage/SQLiteSupport.h"

namespace stonewall {

using namespace storage_detail;

namespace {

constexpr char kProfileRulesTable[] = "ProfileRules";

constexpr char kSelectByActionSql[] = "SELECT * FROM ProfileRules WHERE action=? ORDER BY filter";
constexpr char kSelectByActionAndTypeSql[] =
    "SELECT * FROM ProfileRules WHERE action=? AND blocker=?";
// ORDER BY action, filter keeps, within each action, the order of
// kSelectByActionSql. The actions are joined with OR, one "action=?" each:
// SQLite tests an IN list through a temporary index, one look-up per row,
// which costs an eighth more on a large table.
constexpr char kSelectFirstByActionsSqlHead[] = "SELECT * FROM ProfileRules WHERE ";
constexpr char kSelectFirstByActionsSqlTail[] = " ORDER BY action, filter";
constexpr char kCountSql[] = "SELECT COUNT(*) FROM ProfileRules";
constexpr char kInsertSql[] = "INSERT INTO ProfileRules VALUES (?,?,?,?,?,?,?,?,?,?)";
constexpr char kUpdateSql[] =
    "UPDATE ProfileRules SET blocker=?, action=?, selector=?, filter=?, resources=?, loads=?, "
    "domainType=?, domains=?, filterSensitive=? WHERE ruleID=?";
constexpr char kDeleteSql[] = "DELETE FROM ProfileRules WHERE blocker=? AND action=? AND ruleID=?";
constexpr char kDeleteAllSql[] = "DELETE FROM ProfileRules";
// substr rather than LIKE: a prefix is compared byte for byte, without
// wildcards and without LIKE's case folding.
constexpr char kDeleteByPrefixSql[] = "DELETE FROM ProfileRules WHERE substr(ruleID, 1, ?) = ?";
constexpr ErrorHook kLog = &ProfileDatabase::logError;

// Query types 1 to 7; index 0 is unused.
constexpr const char* kQueryTypeSql[] = {
    nullptr,
    "SELECT * FROM ProfileRules WHERE blocker=1 AND (action=1 OR action=6) ORDER BY action, filter",
    "SELECT * FROM ProfileRules WHERE blocker=1 AND action=2 ORDER BY action, filter",
    "SELECT * FROM ProfileRules WHERE blocker=2 AND (action=1 OR action=6) ORDER BY action, filter",
    "SELECT * FROM ProfileRules WHERE blocker=3 AND (action=1 OR action=6) ORDER BY action, filter",
    "SELECT * FROM ProfileRules WHERE blocker=3 AND action=2 ORDER BY action, filter",
    "SELECT * FROM ProfileRules WHERE blocker=6 AND (action=1 OR action=6) ORDER BY action, filter",
    "SELECT * FROM ProfileRules WHERE blocker=6 AND action=2 ORDER BY action, filter",
};

// Columns 0 to 9 of a ProfileRules row, into a record that may be reused.
void readProfileRule(const Statement& statement, ProfileRule& rule) {
    statement.columnStringInto(0, rule.ruleID);
    rule.blocker = statement.columnInt(1);
    rule.action = statement.columnInt(2);
    statement.columnStringInto(3, rule.selector);
    statement.columnStringInto(4, rule.filter);
    statement.columnStringInto(5, rule.resources);
    statement.columnStringInto(6, rule.loads);
    rule.domainType = statement.columnInt(7);
    statement.columnStringInto(8, rule.domains);
    rule.filterSensitive = statement.columnInt(9);
}

ProfileDatabase::ReadFailure readFailure(sqlite3* database) {
    if (failedOnLock(database)) return ProfileDatabase::ReadFailure::Locked;
    const int code = database ? sqlite3_errcode(database) & 0xff : SQLITE_CANTOPEN;
    if (code == SQLITE_CORRUPT || code == SQLITE_NOTADB)
        return ProfileDatabase::ReadFailure::Damaged;
    return ProfileDatabase::ReadFailure::Other;
}

ProfileRule getProfileRuleFromStatement(const Statement& statement) {
    ProfileRule rule;
    readProfileRule(statement, rule);
    return rule;
}

}  // namespace

std::shared_ptr<ProfileDatabase> ProfileDatabase::initWithBlockerProfileID(
    const NullableString& blockerProfileID) {
    std::shared_ptr<ProfileDatabase> database(new ProfileDatabase());
    // A null identifier formats as "(null)", as the "%@" format writes a missing object.
    const std::string identifier = textOrNull(blockerProfileID);
    database->profilesFileName_ = ContainerLayout::profileDatabaseFileName(identifier);
    database->profilesFileHandler_ = FileHandler::initWithNameAndGroup(
        std::string(ContainerLayout::kProfilesFolder), std::string(kApplicationGroup));
    if (!ContainerLayout::isSafeProfileIdentifier(identifier)) {
        database->usable_ = false;
        logError("refusing a profile identifier that leaves the profiles folder");
        return database;
    }
    database->profilesDataPath_ =
        database->profilesFileHandler_.getFilePath(database->profilesFileName_);
    database->connect();
    if (!database->checkTablesExist()) {
        // Another program holding its lock past our busy timeout is no
        // reason to throw its rules away.
        if (failedOnLock(database->profilesDatabase_)) {
            logError("profile database locked by another program; not restored");
        } else {
            database->restoreDatabase();
        }
    } else {
        database->ensureWholeForWrite();
    }
    return database;
}

ProfileDatabase::~ProfileDatabase() { close(); }

void ProfileDatabase::connect() {
    if (const int result = connectProfilesDatabase(); result != SQLITE_OK) {
        logError("cannot open " + profilesFileName_ + ": " + sqlite3_errstr(result));
    }
}

int ProfileDatabase::connectProfilesDatabase() {
    if (!usable_ || profilesDataPath_.empty()) return SQLITE_CANTOPEN;
    if (!profilesFileHandler_.fileExists(profilesFileName_) ||
        profilesFileHandler_.fileIsFolder(profilesFileName_)) {
        addProfilesDatabase();
    }
    // A handle from an earlier open that was not closed would leak.
    close();
    return openConnection(profilesDataPath_, profilesDatabase_, kLog);
}

void ProfileDatabase::addProfilesDatabase() {
    if (!usable_) return;
    // Only when nothing is there: another process may have made the file
    // a moment ago and be writing its first rules into it.
    (void)profilesFileHandler_.createFileFromPath(
        profilesFileName_, templatePath(ContainerLayout::kProfileDatabaseTemplate));
}

bool ProfileDatabase::checkTablesExist() { return checkTableExists(kProfileRulesTable); }

bool ProfileDatabase::checkTableExists(const std::string& tableName) {
    if (!profilesDatabase_) return false;
    const std::string sql = "SELECT * FROM " + tableName + " LIMIT 1";
    sqlite3_stmt* statement = nullptr;
    armDeadline();
    const int result = sqlite3_prepare_v2(profilesDatabase_, sql.c_str(), -1, &statement, nullptr);
    const Statement finalised(statement);
    return result == SQLITE_OK;
}

// The damaged file is kept beside the fresh one, and whatever rows SQLite can
// still read from it are carried over: a repair must not cost the user rules
// that were still there.
void ProfileDatabase::restoreDatabase() {
    if (!usable_) return;
    close();
    const NullableString aside = moveDatabaseAside(profilesFileHandler_, profilesFileName_);
    if (!aside && profilesFileHandler_.fileExists(profilesFileName_)) {
        logError("cannot move the damaged database aside; left as it is");
        connect();
        return;
    }
    connect();
    integrity_.forget();
    if (aside && checkTablesExist()) {
        const DamagedFile damaged(*aside, profilesDatabase_);
        const int64_t rows = salvageRows(profilesDatabase_, damaged, kProfileRulesTable);
        StorageEvents::report(StorageEvents::Kind::MovedAside,
                              "recovered " + std::to_string(rows) + " rule" +
                                  (rows == 1 ? "" : "s") + " from the damaged " +
                                  profilesFileName_);
    }
}

void ProfileDatabase::ensureWholeForWrite() {
    if (!usable_ || !profilesDatabase_) return;
    if (integrity_.check(profilesDatabase_, profilesDataPath_) == IntegrityWatch::State::Damaged) {
        restoreDatabase();
    }
}

bool ProfileDatabase::waitForWriteAccess(std::chrono::milliseconds limit) {
    if (!profilesDatabase_ || !usable_) return false;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (true) {
        // Each attempt waits out the busy timeout before it gives up.
        armDeadline();
        if (sqlite3_exec(profilesDatabase_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) ==
            SQLITE_OK) {
            sqlite3_exec(profilesDatabase_, "ROLLBACK", nullptr, nullptr, nullptr);
            return true;
        }
        if (!failedOnLock(profilesDatabase_) || std::chrono::steady_clock::now() >= deadline) {
            logError(sqlite3_errmsg(profilesDatabase_));
            return false;
        }
    }
}

// The handle is cleared after closing (rather than left dangling) so
// that the destructor's close and any later use find no connection.
void ProfileDatabase::close() {
    if (!profilesDatabase_) return;
    if (sqlite3_close_v2(profilesDatabase_) != SQLITE_OK) {
        logError(errorText(profilesDatabase_, "close"));
    }
    profilesDatabase_ = nullptr;
}

// --- Queries -----------------------------------------------------------------

namespace {

std::vector<ProfileRule> readAll(Statement& statement) {
    std::vector<ProfileRule> rules;
    // Any result other than a row (done, busy, corrupt page) ends the read.
    while (statement.step() == SQLITE_ROW) rules.push_back(getProfileRuleFromStatement(statement));
    return rules;
}

}  // namespace

std::vector<ProfileRule> ProfileDatabase::getProfileRulesByAction(int64_t action) {
    Statement statement = prepareStatement(profilesDatabase_, kSelectByActionSql, kLog);
    if (!statement) return {};
    statement.bind(1, action);
    return readAll(statement);
}

std::vector<ProfileRule> ProfileDatabase::getProfileRulesByActionAndType(int64_t action,
                                                                         int64_t blocker) {
    Statement statement = prepareStatement(profilesDatabase_, kSelectByActionAndTypeSql, kLog);
    if (!statement) return {};
    statement.bind(1, action);
    statement.bind(2, blocker);
    return readAll(statement);
}

std::vector<ProfileRule> ProfileDatabase::getProfileRulesByQueryType(int64_t queryType) {
    constexpr int64_t kQueryTypes = static_cast<int64_t>(std::size(kQueryTypeSql));
    if (queryType < 1 || queryType >= kQueryTypes) {
        logError("no statement for query type " + std::to_string(queryType));
        return {};
    }
    Statement statement = prepareStatement(profilesDatabase_, kQueryTypeSql[queryType], kLog);
    if (!statement) return {};
    return readAll(statement);
}

int64_t ProfileDatabase::getProfileRulesCount() {
    Statement statement = prepareStatement(profilesDatabase_, kCountSql, kLog);
    if (!statement) return 0;
    int64_t count = 0;
    // sqlite3_column_int64: the count is the one value of this table not
    // stored by us, and it may exceed 32 bits.
    while (statement.step() == SQLITE_ROW) count = sqlite3_column_int64(statement.get(), 0);
    return count;
}

std::vector<std::optional<ProfileRule>> ProfileDatabase::getFirstProfileRulesByActions(
    std::span<const int64_t> actions) {
    std::vector<std::optional<ProfileRule>> firsts(actions.size());
    if (actions.empty()) return firsts;
    std::string sql = kSelectFirstByActionsSqlHead;
    for (size_t i = 0; i < actions.size(); ++i) sql.append(i == 0 ? "action=?" : " OR action=?");
    sql.append(kSelectFirstByActionsSqlTail);
    Statement statement = prepareStatement(profilesDatabase_, sql.c_str(), kLog);
    if (!statement) return firsts;
    for (size_t i = 0; i < actions.size(); ++i) {
        statement.bind(static_cast<int>(i + 1), actions[i]);
    }
    // Actions are stored and bound as 32-bit values, so a row matches an
    // action by its 32-bit value too.
    size_t missing = actions.size();
    while (missing > 0 && statement.step() == SQLITE_ROW) {
        const int64_t action = statement.columnInt(2);
        for (size_t i = 0; i < actions.size(); ++i) {
            if (!firsts[i] && static_cast<int32_t>(actions[i]) == action) {
                firsts[i] = getProfileRuleFromStatement(statement);
                --missing;
            }
        }
    }
    return firsts;
}

void ProfileDatabase::readAlone(const std::function<void()>& read) {
    sqlite3* alone = nullptr;
    // Read-write without create, as the usual connection: a hot journal
    // left by a crashed writer must be rolled back, not refused.
    if (usable_ && profilesDatabase_ && !aloneDatabase_ &&
        sqlite3_open_v2(profilesDataPath_.c_str(), &alone,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) == SQLITE_OK) {
        configureConnection(alone);
        aloneDatabase_ = alone;
        aloneThread_ = std::this_thread::get_id();
    } else if (alone) {
        sqlite3_close_v2(alone);
        alone = nullptr;
    }
    struct Closer {
        ProfileDatabase& database;
        sqlite3* connection;
        ~Closer() {
            if (!connection) return;
            database.aloneDatabase_ = nullptr;
            database.aloneThread_ = {};
            sqlite3_close_v2(connection);
        }
    } closer{*this, alone};
    read();
}

bool ProfileDatabase::forEachProfileRuleByAction(int64_t action,
                                                 const std::function<void(ProfileRule&)>& visit) {
    lastReadFailure_ = ReadFailure::None;
    sqlite3* const connection = aloneDatabase_ && aloneThread_ == std::this_thread::get_id()
                                    ? aloneDatabase_
                                    : profilesDatabase_;
    Statement statement = prepareStatement(connection, kSelectByActionSql, kLog);
    if (!statement) {
        lastReadFailure_ = readFailure(connection);
        return false;
    }
    statement.bind(1, action);
    ProfileRule rule;
    // Each step sets its own deadline: the visitor's time does not count.
    int result;
    while ((result = statement.step()) == SQLITE_ROW) {
        readProfileRule(statement, rule);
        visit(rule);
    }
    // A read cut short (another program's lock, a damaged page) is a
    // failure, not a short list: the caller must not take it for all rules.
    const bool complete = result == SQLITE_DONE;
    if (!complete) {
        logError(errorText(connection, std::string("step ") + kSelectByActionSql));
        lastReadFailure_ = readFailure(connection);
    }
    return complete;
}

// --- Changes -----------------------------------------------------------------

namespace {

// The rule's columns in the order the insert and the update share.
void bindColumns(Statement& statement, int first, const ProfileRule& rule) {
    statement.bind(first, rule.blocker);
    statement.bind(first + 1, rule.action);
    statement.bind(first + 2, rule.selector);
    statement.bind(first + 3, rule.filter);
    statement.bind(first + 4, rule.resources);
    statement.bind(first + 5, rule.loads);
    statement.bind(first + 6, rule.domainType);
    statement.bind(first + 7, rule.domains);
    statement.bind(first + 8, rule.filterSensitive);
}

void bindInsert(Statement& statement, const ProfileRule& rule) {
    statement.bind(1, rule.ruleID);
    bindColumns(statement, 2, rule);
}

void bindUpdate(Statement& statement, const ProfileRule& rule) {
    bindColumns(statement, 1, rule);
    statement.bind(10, rule.ruleID);
}

void bindDelete(Statement& statement, const ProfileRule& rule) {
    statement.bind(1, rule.blocker);
    statement.bind(2, rule.action);
    statement.bind(3, rule.ruleID);
}

}  // namespace

void ProfileDatabase::runBatch(const char* sql, const std::vector<ProfileRule>& rules,
                               BindRule bind) {
    if (!usable_) {
        logError("change dropped: the profile identifier names no file of ours");
        return;
    }
    ensureWholeForWrite();
    Transaction transaction(profilesDatabase_, kLog);
    Statement statement = prepareStatement(profilesDatabase_, sql, kLog);
    if (!statement) return;
    for (const ProfileRule& rule : rules) {
        bind(statement, rule);
        if (statement.step() != SQLITE_DONE) {
            logError(errorText(profilesDatabase_, std::string("step ") + sql));
        }
        statement.reset();
    }
    if (transaction.commit()) integrity_.noteWrite(profilesDataPath_);
}

void ProfileDatabase::addProfileRules(const std::vector<ProfileRule>& rules) {
    runBatch(kInsertSql, rules, bindInsert);
}

void ProfileDatabase::updateProfileRules(const std::vector<ProfileRule>& rules) {
    runBatch(kUpdateSql, rules, bindUpdate);
}

void ProfileDatabase::removeProfileRulesCustom(const std::vector<ProfileRule>& rules) {
    runBatch(kDeleteSql, rules, bindDelete);
}

void ProfileDatabase::removeProfileRules(int64_t blocker, int64_t blockerAction,
                                         const NullableString& ruleID) {
    ensureWholeForWrite();
    Statement statement = prepareStatement(profilesDatabase_, kDeleteSql, kLog);
    if (!statement) return;
    statement.bind(1, blocker);
    statement.bind(2, blockerAction);
    statement.bind(3, ruleID);
    if (statement.stepToDone(kLog)) integrity_.noteWrite(profilesDataPath_);
}

void ProfileDatabase::removeAllProfileRules() {
    ensureWholeForWrite();
    Statement statement = prepareStatement(profilesDatabase_, kDeleteAllSql, kLog);
    if (!statement) return;
    if (statement.stepToDone(kLog)) integrity_.noteWrite(profilesDataPath_);
}

bool ProfileDatabase::replaceProfileRulesWithPrefix(const std::string& ruleIDPrefix,
                                                    const std::vector<ProfileRule>& add,
                                                    const std::vector<ProfileRule>& remove) {
    if (!usable_ || !profilesDatabase_) {
        logError("replacement dropped: no open database");
        return false;
    }
    ensureWholeForWrite();
    Transaction transaction(profilesDatabase_, kLog);
    if (!transaction.begun()) return false;
    if (!ruleIDPrefix.empty()) {
        Statement statement = prepareStatement(profilesDatabase_, kDeleteByPrefixSql, kLog);
        if (!statement) return false;
        statement.bind(1, static_cast<int64_t>(ruleIDPrefix.size()));
        statement.bind(2, ruleIDPrefix);
        if (!statement.stepToDone(kLog)) return false;
    }
    const auto each = [&](const char* sql, const std::vector<ProfileRule>& rules, BindRule bind) {
        Statement statement = prepareStatement(profilesDatabase_, sql, kLog);
        if (!statement) return false;
        for (const ProfileRule& rule : rules) {
            bind(statement, rule);
            if (!statement.stepToDone(kLog)) return false;
        }
        return true;
    };
    if (!each(kDeleteSql, remove, bindDelete) || !each(kInsertSql, add, bindInsert)) return false;
    if (!transaction.commit()) return false;
    integrity_.noteWrite(profilesDataPath_);
    return true;
}

void ProfileDatabase::reloadProfileRules(int64_t /*reloadType*/, int64_t /*reloadOperation*/,
                                         const std::vector<ProfileRule>& /*rules*/) {}

bool ProfileDatabase::beginTransactionProfilesDatabase() {
    return executeStatement(profilesDatabase_, kBeginSql, kLog);
}

bool ProfileDatabase::commitTransactionProfilesDatabase() {
    return executeStatement(profilesDatabase_, kCommitSql, kLog);
}

void ProfileDatabase::logError(std::string_view message) {
    StorageEvents::reportFailure("ProfileDatabase", message);
}

}  // namespace stonewall
