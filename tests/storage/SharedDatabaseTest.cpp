#include <gtest/gtest.h>

#include <filesystem>

#include "StorageTestSupport.h"
#include "storage/ProfileDatabase.h"
#include "storage/SQLiteSupport.h"
#include "storage/SharedDatabase.h"
#include "utilities/Custom.h"

namespace stonewall {
namespace {

namespace fs = std::filesystem;
using testing::RawDatabase;
using testing::StorageTest;
using testing::writeBytes;

// Sets the clock behind currentTimestamp for one scope.
class FixedClock {
  public:
    explicit FixedClock(Custom::Timestamp now) {
        Custom::setClockForTesting([now] { return now; });
    }
    ~FixedClock() { Custom::setClockForTesting({}); }
};

SharedCustomRule makeCustomRule(std::string id, int64_t action) {
    SharedCustomRule rule;
    rule.ruleID = std::move(id);
    rule.action = action;
    rule.filter = ".*";
    return rule;
}

class SharedDatabaseTest : public StorageTest {
  protected:
    SharedDatabase& database() { return SharedDatabase::sharedInstance(); }

    // Makes the shared file from SQL before the instance opens it.
    void prepareFile(const std::string& sql) {
        fs::create_directories(fs::path(sharedPath()).parent_path());
        RawDatabase raw(sharedPath());
        raw.exec(sql);
    }

    inline static const std::string kSharedDataTable =
        "CREATE TABLE SharedData (activeProfileID TEXT, timestamps TEXT, profiles TEXT, "
        "profileIDs TEXT, profileUpdates TEXT, status INTEGER, addDate INTEGER, "
        "appVersion TEXT, extVersion TEXT, domainStatus TEXT, reload INTEGER);";
};

// Files of other versions are read as they stand; only an unknown shape is replaced.
TEST_F(SharedDatabaseTest, ForeignButReadableFilesAreKept) {
    const std::string row = "INSERT INTO SharedData VALUES ";
    struct Case {
        const char* name;
        std::string sql;
        NullableString activeProfileID;
        int64_t status;
        NullableString domainStatus;
        bool restored = false;
    };
    const Case cases[] = {
        // The older nine-column table: the last two read as their defaults.
        {"nine columns",
         "CREATE TABLE SharedData (activeProfileID TEXT, timestamps TEXT, profiles TEXT, "
         "profileIDs TEXT, profileUpdates TEXT, status INTEGER, addDate INTEGER, appVersion TEXT, "
         "extVersion TEXT);" +
             row + "('old','1,2','P','p','3',0,9,'0.9','0.8');",
         "old", 0, "-1,-1,-1"},
        {"unknown shape",
         "CREATE TABLE SharedData (a, b, c);" + row +
             "('x', 2, 3);"
             "CREATE TABLE SharedCustomRules (ruleID);",
         "defaultProfile", 1, "-1,-1,-1", true},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        SharedDatabase::resetSharedInstanceForTesting();
        fs::remove_all(platform.containerPath());
        prepareFile(test.sql);
        auto& shared = database();
        EXPECT_EQ(shared.restored(), test.restored);
        const auto data = shared.getSharedData();
        ASSERT_TRUE(data.has_value());
        EXPECT_EQ(data->activeProfileID, test.activeProfileID);
        EXPECT_EQ(data->status, test.status);
        EXPECT_EQ(data->domainStatus, test.domainStatus);
    }
    // The nine-column table cannot take the eleven columns written: dropped.
    SharedDatabase::resetSharedInstanceForTesting();
    fs::remove_all(platform.containerPath());
    prepareFile(cases[0].sql);
    database().addSharedDataDetails(SharedData());
    SharedData changed;
    changed.activeProfileID = "new";
    database().updateSharedDataDetails(changed);
    EXPECT_EQ(database().getSharedData()->activeProfileID, "old");
    EXPECT_EQ(RawDatabase(sharedPath()).integer("SELECT COUNT(*) FROM SharedData"), 1);
}

// Both databases open through one path: damage of any kind gives the
// template's fresh file, a lock held past the busy timeout is no damage.
TEST_F(SharedDatabaseTest, DamagedFilesOfEitherDatabaseAreReplacedButLockedOnesKept) {
    struct Database {
        std::string path;
        std::function<void(int)> add;  // that many rows
        std::function<int64_t()> rows;
    };
    const Database databases[] = {
        {profilePath("p1"),
         [](int count) {
             std::vector<ProfileRule> many(static_cast<size_t>(count));
             for (auto& rule : many) rule.filter = std::string(40, 'x');
             ProfileDatabase::initWithBlockerProfileID("p1")->addProfileRules(many);
         },
         [] { return ProfileDatabase::initWithBlockerProfileID("p1")->getProfileRulesCount(); }},
        {sharedPath(),
         [&](int count) {
             database().addSharedCustomRulesDetails(
                 std::vector<SharedCustomRule>(static_cast<size_t>(count), makeCustomRule("r", 1)));
             SharedDatabase::resetSharedInstanceForTesting();
         },
         [&] {
             EXPECT_TRUE(database().verifySharedData());
             const auto count = static_cast<int64_t>(database().getSharedCustomRules().size());
             SharedDatabase::resetSharedInstanceForTesting();
             return count;
         }},
    };
    const std::pair<const char*, std::function<void(const Database&)>> damages[] = {
        {"foreign schema",
         [](const Database& d) { RawDatabase(d.path).exec("CREATE TABLE Other (x)"); }},
        {"garbage", [](const Database& d) { writeBytes(d.path, std::string(4096, '\xa5')); }},
        {"empty file", [](const Database& d) { writeBytes(d.path, ""); }},
        {"truncated",
         [](const Database& d) {
             d.add(1500);
             fs::resize_file(d.path, fs::file_size(d.path) / 3);
         }},
    };
    for (const Database& db : databases) {
        for (const auto& [name, damage] : damages) {
            SCOPED_TRACE(db.path + ": " + name);
            fs::remove_all(platform.containerPath());
            fs::create_directories(fs::path(db.path).parent_path());
            damage(db);
            EXPECT_EQ(db.rows(), 0);
            EXPECT_EQ(RawDatabase(db.path).integer("SELECT COUNT(*) FROM Other"), std::nullopt);
            db.add(1);  // the fresh file takes rows
            EXPECT_EQ(db.rows(), 1);
        }
        SCOPED_TRACE(db.path + ": locked");
        storage_detail::setBusyTimeoutForTesting(50);
        {
            RawDatabase other(db.path);
            other.exec("BEGIN EXCLUSIVE");
            if (db.path == sharedPath()) {
                EXPECT_FALSE(database().restored());
            } else {
                (void)ProfileDatabase::initWithBlockerProfileID("p1");
            }
            EXPECT_TRUE(platform.log->contains("locked by another program"));
            other.exec("COMMIT");
        }
        storage_detail::setBusyTimeoutForTesting(-1);
        EXPECT_EQ(db.rows(), 1);
    }
}

// An add stores the time of writing without its fraction; an update changes
// every row but not addDate, and adds nothing to an empty table.
TEST_F(SharedDatabaseTest, RecordWritesKeepTheirShape) {
    prepareFile(kSharedDataTable);
    auto& shared = database();
    SharedData data;
    EXPECT_EQ(shared.getSharedData(), std::nullopt);
    shared.updateSharedDataDetails(data);
    EXPECT_EQ(shared.getSharedData(), std::nullopt);
    EXPECT_TRUE(shared.verifySharedData());

    data.addDate = 42.5;  // not written
    for (const Custom::Timestamp now : {1700000000.875, 100.5}) {
        FixedClock clock(now);
        shared.addSharedDataDetails(data);
    }
    data.activeProfileID = "p9";
    data.timestamps = std::nullopt;
    data.profiles = "";
    data.status = 0;
    data.appVersion = "3.0";
    data.domainStatus = "1,1,-1";
    data.reload = 1;
    shared.updateSharedDataDetails(data);
    RawDatabase raw(sharedPath());
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM SharedData WHERE activeProfileID='p9' AND "
                          "timestamps IS NULL AND profiles='' AND status=0 AND appVersion='3.0' "
                          "AND domainStatus='1,1,-1' AND reload=1 AND typeof(addDate)='integer'"),
              2);
    EXPECT_EQ(raw.integer("SELECT SUM(addDate) FROM SharedData"), 1700000100);
    EXPECT_EQ(shared.getSharedData()->addDate, 100.0);  // the oldest row
}

TEST_F(SharedDatabaseTest, CustomRulesRoundTripWithWriteTimes) {
    SharedCustomRule full = makeCustomRule("full", 2);
    full.blocker = 4;
    full.selector = "div.ad";
    full.loads = "third-party";
    full.domainType = 2;
    full.addDate = 5;  // its own dates are not written
    full.modDate = 6;
    full.blockerProfileID = "defaultProfile";
    full.ruleName = "Hide ads";
    full.regularExpression = 1;
    full.active = 0;
    full.filterDomain = "https://shop.test";
    full.domains = "*.shop.test";
    full.filterInfo = 4;
    SharedCustomRule sparse;  // strings null

    auto& shared = database();
    {
        FixedClock clock(1000.25);
        shared.addSharedCustomRulesDetails({sparse});
    }
    {
        FixedClock clock(2000.5);
        shared.addSharedCustomRulesDetails({full});
    }
    full.addDate = full.modDate = 2000.5;
    sparse.addDate = sparse.modDate = 1000.25;
    EXPECT_EQ(shared.getSharedCustomRules(), (std::vector<SharedCustomRule>{full, sparse}));
    shared.removeSharedCustomRulesDetails();
    EXPECT_TRUE(shared.getSharedCustomRules().empty());
}

TEST_F(SharedDatabaseTest, AFailingCustomRuleDoesNotStopTheOthers) {
    auto& shared = database();
    {
        RawDatabase raw(sharedPath());
        raw.exec("CREATE UNIQUE INDEX OneCustomRulePerID ON SharedCustomRules(ruleID)");
    }
    shared.addSharedCustomRulesDetails({makeCustomRule("a", 1)});
    shared.addSharedCustomRulesDetails(
        {makeCustomRule("b", 1), makeCustomRule("a", 2), makeCustomRule("c", 1)});
    EXPECT_EQ(shared.getSharedCustomRules().size(), 3u);
    EXPECT_TRUE(platform.log->contains("SharedDatabase"));
    RawDatabase raw(sharedPath());
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM SharedCustomRules WHERE action=2"), 0);
}

// A reconnect repairs a file damaged or removed meanwhile. The custom-rule
// insert keeps its statement, and repairs replace a handle: close must still
// release every connection, or each reconnect would leak one.
TEST_F(SharedDatabaseTest, ReconnectRepairsAndCloseReleasesEveryConnection) {
    auto& shared = database();
    shared.addSharedCustomRulesDetails({makeCustomRule("a", 1)});
    shared.close();
    EXPECT_EQ(shared.getSharedData(), std::nullopt);
    shared.addSharedCustomRulesDetails({makeCustomRule("dropped", 1)});
    const sqlite3_int64 baseline = sqlite3_memory_used();
    for (int i = 0; i < 20; ++i) {
        if (i % 4 == 0) writeBytes(sharedPath(), std::string(2048, '\xa5'));
        if (i % 4 == 2) fs::remove(sharedPath());
        shared.reconnectDatabase();
        EXPECT_TRUE(shared.getSharedData().has_value()) << i;
        EXPECT_TRUE(i != 0 || shared.getSharedCustomRules().empty());
        shared.addSharedCustomRulesDetails({makeCustomRule("r" + std::to_string(i), 1)});
        shared.close();
    }
    EXPECT_LE(sqlite3_memory_used(), baseline);
}

// A container that is a file, or none at all: calls of either database give
// empty results and nothing stops the process.
TEST_F(SharedDatabaseTest, UnusableContainerGivesEmptyResults) {
    const std::string file = platform.rootPath() + "/not-a-folder";
    writeBytes(file, "x");
    for (const auto& container : {std::optional(file), std::optional<std::string>()}) {
        SCOPED_TRACE(container.value_or("no container"));
        SharedDatabase::resetSharedInstanceForTesting();
        platform.host->setContainerPath(std::string(kApplicationGroup), container);
        auto& shared = database();
        EXPECT_EQ(shared.getSharedData(), std::nullopt);
        EXPECT_FALSE(shared.verifySharedData());
        shared.addSharedDataDetails(SharedData());
        shared.addSharedCustomRulesDetails({makeCustomRule("a", 1)});
        shared.updateSharedDataDetails(SharedData());
        shared.removeSharedCustomRulesDetails();
        EXPECT_TRUE(shared.getSharedCustomRules().empty());
        shared.reconnectDatabase();
        EXPECT_EQ(shared.getSharedData(), std::nullopt);
        auto profile = ProfileDatabase::initWithBlockerProfileID("p1");
        profile->addProfileRules({ProfileRule{}});
        EXPECT_TRUE(profile->getProfileRulesByQueryType(1).empty());
        EXPECT_EQ(profile->getProfileRulesCount(), 0);
    }
    EXPECT_TRUE(database().dataPath().empty());
}

#ifndef NDEBUG
// The raw operations belong to the queue: called from anywhere else they
// would race with the queued work, so debug builds stop at once.
TEST_F(SharedDatabaseTest, RawOperationsOffTheQueueAreCaughtInDebugBuilds) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto& shared = database();
    EXPECT_DEATH(shared.addSharedData(SharedData()), "must run on the queue");
    EXPECT_DEATH(shared.removeSharedCustomRules(), "must run on the queue");
}
#endif

}  // namespace
}  // namespace stonewall
