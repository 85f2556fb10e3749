#include "storage/SharedDatabase.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "platform/ContainerLayout.h"
#include "platform/Platform.h"
#include "platform/StorageEvents.h"
#include "storage/SQLiteSupport.h"
#include "utilities/Custom.h"

namespace stonewall {

using namespace storage_detail;

namespace {

constexpr char kQueueLabel[] = "com.mapleharbor.Stonewall.SharedDataQueue";

constexpr char kInsertSharedDataSql[] = "INSERT INTO SharedData VALUES (?,?,?,?,?,?,?,?,?,?,?)";
// No WHERE and the versions named twice: every row is updated, and twelve
// values are bound. The other programs of the product write the table the
// same way.
constexpr char kUpdateSharedDataSql[] =
    "UPDATE SharedData SET activeProfileID=?, timestamps=?, profiles=?, profileIDs=?, "
    "profileUpdates=?, status=?, appVersion=?, extVersion=?, domainStatus=?, reload=?, "
    "appVersion=?, extVersion=?";
constexpr char kInsertCustomRuleSql[] =
    "INSERT INTO SharedCustomRules VALUES (?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)";
constexpr char kDeleteCustomRulesSql[] = "DELETE FROM SharedCustomRules";
// One rule of one profile: the website lists share one ruleID per list and
// profile, so the domain tells their rows apart.
constexpr char kDeleteCustomRuleSql[] =
    "DELETE FROM SharedCustomRules WHERE ruleID IS ? AND action=? AND blockerProfileID IS ? "
    "AND domains IS ?";
constexpr char kSelectSharedDataSql[] = "SELECT * FROM SharedData ORDER BY addDate DESC";
constexpr char kSelectCustomRulesSql[] = "SELECT * FROM SharedCustomRules ORDER BY addDate DESC";
constexpr ErrorHook kLog = &SharedDatabase::logError;

// The first nine columns are those of the table's older layout; the last two
// (domainStatus, reload) came later.
constexpr int kOldSharedDataColumns = 9;
constexpr int kSharedDataColumns = 11;

// Runs a queue-serialised operation. The platform's sync catches a call from
// inside the queue itself in debug builds.
void runSerialised(const std::shared_ptr<platform::Queue>& queue, const platform::Work& work) {
    if (queue) {
        queue->sync(work);
    } else {
        work();
    }
}

std::mutex gInstanceMutex;
std::unique_ptr<SharedDatabase> gInstance;

SharedData getSharedDataFromStatement(const Statement& statement) {
    SharedData data;
    const int columns = sqlite3_column_count(statement.get());
    if (columns != kOldSharedDataColumns && columns != kSharedDataColumns) return data;
    data.activeProfileID = statement.columnString(0);
    data.timestamps = statement.columnString(1);
    data.profiles = statement.columnString(2);
    data.profileIDs = statement.columnString(3);
    data.profileUpdates = statement.columnString(4);
    data.status = statement.columnInt(5);
    data.addDate = statement.columnDouble(6);
    data.appVersion = statement.columnString(7);
    data.extVersion = statement.columnString(8);
    if (columns == kSharedDataColumns) {
        data.domainStatus = statement.columnString(9);
        data.reload = statement.columnInt(10);
    }
    return data;
}

SharedCustomRule getSharedCustomRuleFromStatement(const Statement& statement) {
    SharedCustomRule rule;
    rule.ruleID = statement.columnString(0);
    rule.blocker = statement.columnInt(1);
    rule.action = statement.columnInt(2);
    rule.selector = statement.columnString(3);
    rule.filter = statement.columnString(4);
    rule.resources = statement.columnString(5);
    rule.loads = statement.columnString(6);
    rule.domainType = statement.columnInt(7);
    rule.addDate = statement.columnDouble(8);
    rule.blockerProfileID = statement.columnString(9);
    rule.ruleName = statement.columnString(10);
    rule.filterSensitive = statement.columnInt(11);
    rule.modDate = statement.columnDouble(12);
    rule.regularExpression = statement.columnInt(13);
    rule.ruleType = statement.columnInt(14);
    rule.active = statement.columnInt(15);
    rule.filterDomain = statement.columnString(16);
    rule.filterInfo = statement.columnInt(17);
    rule.domains = statement.columnString(18);
    return rule;
}

// Reads every SharedData row, keeping the last one, which under "ORDER BY
// addDate DESC" is the oldest. Null when the statement cannot be prepared or
// there is no row; `prepared` tells the two apart.
std::optional<SharedData> readSharedData(sqlite3* database, bool& prepared) {
    Statement statement = prepareStatement(database, kSelectSharedDataSql, kLog);
    prepared = static_cast<bool>(statement);
    if (!prepared) return std::nullopt;
    std::optional<SharedData> data;
    while (statement.step() == SQLITE_ROW) data = getSharedDataFromStatement(statement);
    return data;
}

}  // namespace

// --- Instance ----------------------------------------------------------------

SharedDatabase& SharedDatabase::sharedInstance() {
    std::lock_guard lock(gInstanceMutex);
    if (!gInstance) gInstance.reset(new SharedDatabase());
    return *gInstance;
}

void SharedDatabase::resetSharedInstanceForTesting() {
    std::unique_ptr<SharedDatabase> previous;
    {
        std::lock_guard lock(gInstanceMutex);
        previous = std::move(gInstance);
    }
}

SharedDatabase::SharedDatabase() {
    dataFileName_ = ContainerLayout::kSharedDatabaseFileName;
    dataFileHandler_ = FileHandler::initWithNameAndGroup(
        std::string(ContainerLayout::kSharedFolder), std::string(kApplicationGroup));
    dataPath_ = dataFileHandler_.getFilePath(dataFileName_);
    sharedQueue_ = platform::dispatch().createSerialQueue(kQueueLabel);
    restored_ = false;
    connect();
}

// Not through the queue: at the end of the process the dispatch service may
// be gone already, and nobody else can hold the instance any more.
SharedDatabase::~SharedDatabase() { closeConnections(); }

void SharedDatabase::runForConnection(const platform::Work& work) {
    if (!sharedQueue_ || sharedQueue_->isCurrent()) {
        work();
    } else {
        sharedQueue_->sync(work);
    }
}

void SharedDatabase::connect() {
    runForConnection([this] {
        if (const int result = connectDataDatabase(); result != SQLITE_OK) {
            logError(std::string("cannot open the shared database: ") + sqlite3_errstr(result));
        }
    });
}

int SharedDatabase::openDataPath() {
    if (dataPath_.empty()) return SQLITE_CANTOPEN;  // no container: never a temporary database
    return openConnection(dataPath_, dataDatabase_, kLog);
}

int SharedDatabase::connectDataDatabase() {
    int result = SQLITE_CANTOPEN;
    runForConnection([&] {
        if (!dataFileHandler_.fileExists(dataFileName_) ||
            dataFileHandler_.fileIsFolder(dataFileName_)) {
            createSharedDatabase();
        }
        // Opening over a live handle would lose it; reconnectDatabase closes
        // first, so this only matters for a direct second call.
        if (dataDatabase_) {
            replacedConnections_.push_back(dataDatabase_);
            dataDatabase_ = nullptr;
        }
        result = openDataPath();
        bool prepared = false;
        (void)readSharedData(dataDatabase_, prepared);
        // A file locked by another program past the busy timeout is not
        // damaged; replacing it would lose the shared state and custom rules.
        if (!prepared && failedOnLock(dataDatabase_)) {
            logError("shared database locked by another program; not restored");
        } else if (!prepared ||
                   integrity_.check(dataDatabase_, dataPath_) == IntegrityWatch::State::Damaged) {
            // The first handle is replaced without being closed; it is
            // released by close() (see replacedConnections_).
            if (dataDatabase_) replacedConnections_.push_back(dataDatabase_);
            dataDatabase_ = nullptr;
            integrity_.forget();
            const NullableString aside = moveDatabaseAside(dataFileHandler_, dataFileName_);
            if (aside) {
                createSharedDatabase();
            } else {
                addSharedDatabase();
            }
            result = openDataPath();
            if (aside) salvage(*aside);
        }
    });
    return result;
}

void SharedDatabase::addSharedDatabase() {
    dataFileHandler_.copyFile(dataFileName_,
                              templatePath(ContainerLayout::kSharedDatabaseTemplate));
    restored_ = true;
}

void SharedDatabase::createSharedDatabase() {
    // Never over a file another process has just made and begun to use.
    if (dataFileHandler_.createFileFromPath(
            dataFileName_, templatePath(ContainerLayout::kSharedDatabaseTemplate))) {
        restored_ = true;
    }
}

// Carries what can still be read of the damaged file into the fresh one: the
// custom rules, and the shared record in place of the template's.
void SharedDatabase::salvage(const std::string& damagedPath) {
    if (!dataDatabase_) return;
    int64_t templateRows = 0;
    {
        sqlite3_stmt* statement = nullptr;
        const int prepared = sqlite3_prepare_v2(dataDatabase_, "SELECT max(rowid) FROM SharedData",
                                                -1, &statement, nullptr);
        const Statement finalised(statement);
        if (prepared == SQLITE_OK && sqlite3_step(statement) == SQLITE_ROW) {
            templateRows = sqlite3_column_int64(statement, 0);
        }
    }
    const DamagedFile damaged(damagedPath, dataDatabase_);
    const int64_t records = salvageRows(dataDatabase_, damaged, "SharedData");
    if (records > 0) {
        const std::string sql =
            "DELETE FROM SharedData WHERE rowid <= " + std::to_string(templateRows);
        executeStatement(dataDatabase_, sql.c_str(), kLog);
    }
    const int64_t rules = salvageRows(dataDatabase_, damaged, "SharedCustomRules");
    StorageEvents::report(StorageEvents::Kind::MovedAside,
                          "recovered " +
                              std::string(records > 0 ? "the shared record" : "no shared record") +
                              " and " + std::to_string(rules) + " custom rule" +
                              (rules == 1 ? "" : "s") + " from the damaged " + dataFileName_);
}

void SharedDatabase::reconnectDatabase() {
    runForConnection([this] {
        close();
        (void)connectDataDatabase();
    });
}

void SharedDatabase::close() {
    runForConnection([this] { closeConnections(); });
}

void SharedDatabase::closeConnections() {
    sqlite3_finalize(customRulesStatement_);
    customRulesStatement_ = nullptr;
    for (sqlite3* connection : replacedConnections_) sqlite3_close_v2(connection);
    replacedConnections_.clear();
    if (dataDatabase_ && sqlite3_close_v2(dataDatabase_) != SQLITE_OK) {
        logError(errorText(dataDatabase_, "close"));
    }
    dataDatabase_ = nullptr;
}

// --- Queue-serialised operations -----------------------------------------------

void SharedDatabase::inTransaction(const platform::Work& change) {
    runSerialised(sharedQueue_, [&] {
        ensureWholeForWrite();
        Transaction transaction(dataDatabase_, kLog);
        change();
        if (transaction.commit()) integrity_.noteWrite(dataPath_);
    });
}

void SharedDatabase::ensureWholeForWrite() {
    if (!dataDatabase_ ||
        integrity_.check(dataDatabase_, dataPath_) != IntegrityWatch::State::Damaged) {
        return;
    }
    closeConnections();
    (void)connectDataDatabase();
}

void SharedDatabase::addSharedDataDetails(const SharedData& data) {
    inTransaction([&] { addSharedData(data); });
}

void SharedDatabase::updateSharedDataDetails(const SharedData& data) {
    inTransaction([&] { updateSharedData(data); });
}

void SharedDatabase::addSharedCustomRulesDetails(const std::vector<SharedCustomRule>& rules) {
    inTransaction([&] { addSharedCustomRules(rules); });
}

void SharedDatabase::removeSharedCustomRulesDetails() {
    inTransaction([&] { removeSharedCustomRules(); });
}

void SharedDatabase::removeSharedCustomRulesDetails(const std::vector<SharedCustomRule>& rules) {
    inTransaction([&] { removeSharedCustomRules(rules); });
}

std::optional<SharedData> SharedDatabase::getSharedData() {
    std::optional<SharedData> data;
    runSerialised(sharedQueue_, [&] {
        bool prepared = false;
        data = readSharedData(dataDatabase_, prepared);
    });
    return data;
}

std::vector<SharedCustomRule> SharedDatabase::getSharedCustomRules() {
    std::vector<SharedCustomRule> rules;
    runSerialised(sharedQueue_, [&] {
        Statement statement = prepareStatement(dataDatabase_, kSelectCustomRulesSql, kLog);
        if (!statement) return;
        while (statement.step() == SQLITE_ROW) {
            rules.push_back(getSharedCustomRuleFromStatement(statement));
        }
    });
    return rules;
}

bool SharedDatabase::verifySharedData() {
    bool prepared = false;
    runSerialised(sharedQueue_, [&] { (void)readSharedData(dataDatabase_, prepared); });
    return prepared;
}

// --- Raw operations ----------------------------------------------------------

void SharedDatabase::checkOnQueue([[maybe_unused]] const char* operation) const {
#ifndef NDEBUG
    if (sharedQueue_ && !sharedQueue_->isCurrent()) {
        std::fprintf(stderr, "stonewall: SharedDatabase::%s must run on the queue '%s'\n",
                     operation, kQueueLabel);
        std::abort();
    }
#endif
}

namespace {

// The first six columns, in the order the insert and the update share.
void bindLeadingColumns(Statement& statement, const SharedData& data) {
    statement.bind(1, data.activeProfileID);
    statement.bind(2, data.timestamps);
    statement.bind(3, data.profiles);
    statement.bind(4, data.profileIDs);
    statement.bind(5, data.profileUpdates);
    statement.bind(6, data.status);
}

// A custom rule's nineteen columns in the table's order; both dates are the
// time of writing, read separately.
void bindSharedCustomRule(Statement& statement, const SharedCustomRule& rule) {
    statement.bind(1, rule.ruleID);
    statement.bind(2, rule.blocker);
    statement.bind(3, rule.action);
    statement.bind(4, rule.selector);
    statement.bind(5, rule.filter);
    statement.bind(6, rule.resources);
    statement.bind(7, rule.loads);
    statement.bind(8, rule.domainType);
    statement.bindDouble(9, Custom::currentTimestamp());
    statement.bind(10, rule.blockerProfileID);
    statement.bind(11, rule.ruleName);
    statement.bind(12, rule.filterSensitive);
    statement.bindDouble(13, Custom::currentTimestamp());
    statement.bind(14, rule.regularExpression);
    statement.bind(15, rule.ruleType);
    statement.bind(16, rule.active);
    statement.bind(17, rule.filterDomain);
    statement.bind(18, rule.filterInfo);
    statement.bind(19, rule.domains);
}

}  // namespace

void SharedDatabase::addSharedData(const SharedData& data) {
    checkOnQueue("addSharedData");
    Statement statement = prepareStatement(dataDatabase_, kInsertSharedDataSql, kLog);
    if (!statement) return;
    bindLeadingColumns(statement, data);
    // The time of writing, not the record's own addDate, without its fraction.
    statement.bind(7, truncateTimestampToInt32(Custom::currentTimestamp()));
    statement.bind(8, data.appVersion);
    statement.bind(9, data.extVersion);
    statement.bind(10, data.domainStatus);
    statement.bind(11, data.reload);
    statement.stepToDone(kLog);
}

void SharedDatabase::updateSharedData(const SharedData& data) {
    checkOnQueue("updateSharedData");
    Statement statement = prepareStatement(dataDatabase_, kUpdateSharedDataSql, kLog);
    if (!statement) return;
    bindLeadingColumns(statement, data);
    statement.bind(7, data.appVersion);
    statement.bind(8, data.extVersion);
    statement.bind(9, data.domainStatus);
    statement.bind(10, data.reload);
    statement.bind(11, data.appVersion);
    statement.bind(12, data.extVersion);
    statement.stepToDone(kLog);
}

void SharedDatabase::addSharedCustomRules(const std::vector<SharedCustomRule>& rules) {
    checkOnQueue("addSharedCustomRules");
    Statement statement = prepareStatement(dataDatabase_, kInsertCustomRuleSql, kLog);
    if (!statement) return;
    for (const SharedCustomRule& rule : rules) {
        bindSharedCustomRule(statement, rule);
        statement.stepToDone(kLog);
    }
    // The insert leaves its statement unfinalized until the next insert or
    // close() (see customRulesStatement_).
    sqlite3_finalize(customRulesStatement_);
    customRulesStatement_ = statement.release();
}

void SharedDatabase::removeSharedCustomRules() {
    checkOnQueue("removeSharedCustomRules");
    Statement statement = prepareStatement(dataDatabase_, kDeleteCustomRulesSql, kLog);
    if (!statement) return;
    statement.stepToDone(kLog);
}

void SharedDatabase::removeSharedCustomRules(const std::vector<SharedCustomRule>& rules) {
    checkOnQueue("removeSharedCustomRules");
    Statement statement = prepareStatement(dataDatabase_, kDeleteCustomRuleSql, kLog);
    if (!statement) return;
    for (const SharedCustomRule& rule : rules) {
        statement.bind(1, rule.ruleID);
        statement.bind(2, rule.action);
        statement.bind(3, rule.blockerProfileID);
        statement.bind(4, rule.domains);
        statement.stepToDone(kLog);
    }
}

bool SharedDatabase::beginTransactionSharedDatabase() {
    return executeStatement(dataDatabase_, kBeginSql, kLog);
}

bool SharedDatabase::commitTransactionSharedDatabase() {
    return executeStatement(dataDatabase_, kCommitSql, kLog);
}

void SharedDatabase::logError(std::string_view message) {
    StorageEvents::reportFailure("SharedDatabase", message);
}

}  // namespace stonewall
