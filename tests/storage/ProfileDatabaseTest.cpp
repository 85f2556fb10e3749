#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <thread>

#include "StorageTestSupport.h"
#include "storage/ProfileDatabase.h"
#include "storage/SQLiteSupport.h"
#include "support/ProfileRules.h"

namespace stonewall {
namespace {

namespace fs = std::filesystem;
using testing::makeRule;
using testing::RawDatabase;
using testing::StorageTest;
using testing::writeBytes;

std::vector<std::string> idsOf(const std::vector<ProfileRule>& rules) {
    std::vector<std::string> ids;
    for (const auto& rule : rules) ids.push_back(rule.ruleID.value_or("<null>"));
    return ids;
}

class ProfileDatabaseTest : public StorageTest {
  protected:
    std::shared_ptr<ProfileDatabase> open(const NullableString& identifier = "p1") {
        return ProfileDatabase::initWithBlockerProfileID(identifier);
    }
};

TEST_F(ProfileDatabaseTest, EveryFieldRoundTrips) {
    ProfileRule full = makeRule(2, "^https?://ads\\.", 6, "full");
    full.selector = "div.ad > span[data-x=\"1\"]";
    full.resources = "image,script";
    full.loads = "third-party";
    full.domains = "*.shop.test,xn--bcher-kva.test";
    full.domainType = 2;
    full.filterSensitive = 1;

    ProfileRule sparse;  // every string null, domainType -1
    sparse.action = 2;
    sparse.blocker = 1;

    ProfileRule empties = makeRule(2, "", 1, "");
    empties.selector = "";
    empties.resources = "";
    empties.loads = "";
    empties.domains = "";

    // Integers are stored as 32 bits: all low bits set reads back -1.
    ProfileRule wide = makeRule(1, "f", (int64_t{1} << 32) + 5, "wide");
    wide.domainType = (int64_t{1} << 32) - 1;
    wide.filterSensitive = int64_t{1} << 33;

    auto database = open();
    database->addProfileRules({full, sparse, empties, wide});
    // ORDER BY filter: NULL first, then "", then the text.
    EXPECT_EQ(database->getProfileRulesByAction(2),
              (std::vector<ProfileRule>{sparse, empties, full}));
    EXPECT_EQ(database->getProfileRulesByAction(1),
              std::vector<ProfileRule>{makeRule(1, "f", 5, "wide")});
    RawDatabase raw(profilePath("p1"));
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM ProfileRules WHERE selector = ''"), 1);
}

// By action: every list, ordered by filter only, whatever the insert order.
TEST_F(ProfileDatabaseTest, RulesOfAnActionComeFromEveryListInFilterOrder) {
    std::vector<ProfileRule> rules;
    for (int64_t blocker : {1, 2, 3, 4, 6}) {
        for (int64_t action : {5, 6}) {
            for (const char* filter : {"z", "a"}) {
                rules.push_back(makeRule(
                    action, filter, blocker,
                    "b" + std::to_string(blocker) + "a" + std::to_string(action) + filter));
            }
        }
    }
    auto database = open();
    database->addProfileRules(rules);
    ASSERT_EQ(database->getProfileRulesCount(), static_cast<int64_t>(rules.size()));
    const auto byAction = database->getProfileRulesByAction(5);
    ASSERT_EQ(byAction.size(), 10u);
    EXPECT_EQ(byAction[4].filter, "a");
    EXPECT_EQ(byAction[5].filter, "z");
    // The first rule of each action from one read; none for an action without rows.
    const int64_t actions[] = {5, 99, 5};
    const auto firsts = database->getFirstProfileRulesByActions(actions);
    ASSERT_EQ(firsts.size(), 3u);
    EXPECT_EQ(firsts[0], byAction.front());
    EXPECT_FALSE(firsts[1]);
    EXPECT_EQ(firsts[2], byAction.front());
}

TEST_F(ProfileDatabaseTest, UpdatesAndRemovalsTouchTheMatchingRowsOnly) {
    auto database = open();
    database->addProfileRules({makeRule(5, "x", 1, "a"), makeRule(5, "y", 1, "b")});
    ProfileRule changed = makeRule(3, "new", 4, "a");
    changed.domains = "shop.test";
    changed.domainType = 1;
    ProfileRule unknown = makeRule(5, "z", 1, "nobody");
    ProfileRule nullID = makeRule(5, "w", 1, "");
    nullID.ruleID.reset();  // "WHERE ruleID=NULL" matches nothing
    database->updateProfileRules({changed, unknown, nullID});

    EXPECT_EQ(database->getProfileRulesCount(), 2);
    EXPECT_EQ(database->getProfileRulesByAction(3), std::vector<ProfileRule>{changed});
    EXPECT_EQ(idsOf(database->getProfileRulesByAction(5)), std::vector<std::string>{"b"});

    database->removeAllProfileRules();
    database->addProfileRules({makeRule(1, "1", 1, "a"), makeRule(1, "2", 1, "b"),
                               makeRule(1, "3", 2, "c"), makeRule(2, "4", 1, "d")});
    // Blocker and action must match too.
    database->removeProfileRulesCustom({makeRule(1, "", 1, "a"), makeRule(1, "", 1, "c")});
    EXPECT_EQ(idsOf(database->getProfileRulesByAction(1)), (std::vector<std::string>{"b", "c"}));
}

TEST_F(ProfileDatabaseTest, AFailingRecordDoesNotStopTheBatch) {
    auto database = open();
    {
        RawDatabase raw(profilePath("p1"));
        raw.exec("CREATE UNIQUE INDEX OneRulePerID ON ProfileRules(ruleID)");
    }
    database->addProfileRules({});  // commits its transaction all the same
    database->addProfileRules({makeRule(1, "1", 1, "a")});
    database->addProfileRules(
        {makeRule(1, "2", 1, "b"), makeRule(1, "dup", 1, "a"), makeRule(1, "3", 1, "c")});
    EXPECT_EQ(idsOf(database->getProfileRulesByAction(1)),
              (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_TRUE(platform.log->contains("ProfileDatabase"));
    // Committed: another connection sees the rows.
    RawDatabase raw(profilePath("p1"));
    EXPECT_EQ(raw.integer("SELECT COUNT(*) FROM ProfileRules"), 3);
}

// A batch whose statement cannot be prepared rolls its transaction back: a
// transaction left open would make the next begin fail and keep the file's
// lock from the other programs.
TEST_F(ProfileDatabaseTest, FailedPrepareRollsTheTransactionBack) {
    auto database = open();
    {
        RawDatabase raw(profilePath("p1"));
        raw.exec("ALTER TABLE ProfileRules RENAME TO Elsewhere");
    }
    // The first statement after the change reloads the connection's schema;
    // from then on the insert cannot even be prepared.
    EXPECT_EQ(database->getProfileRulesCount(), 0);
    database->addProfileRules({makeRule(1, "f", 1, "lost")});
    EXPECT_TRUE(database->beginTransactionProfilesDatabase());
    EXPECT_TRUE(database->commitTransactionProfilesDatabase());
}

// One list's rows are replaced by their ruleID prefix, with other rows
// removed, in one transaction: a step that fails leaves every row in place.
TEST_F(ProfileDatabaseTest, ReplacingByPrefixIsAllOrNothing) {
    auto database = open();
    database->addProfileRules({makeRule(1, "old1", 1, "sab-1"), makeRule(1, "old2", 1, "sab-2"),
                               makeRule(1, "other list", 1, "sabc"),
                               makeRule(5, "own", 1, "mine")});
    const auto ids = [&] {
        std::vector<std::string> found;
        for (int64_t action : {1, 5}) {
            for (const ProfileRule& rule : database->getProfileRulesByAction(action)) {
                found.push_back(*rule.ruleID);
            }
        }
        std::sort(found.begin(), found.end());
        return found;
    };
    {
        RawDatabase raw(profilePath("p1"));
        raw.exec(
            "CREATE TRIGGER refuse BEFORE INSERT ON ProfileRules WHEN NEW.filter = 'refused' "
            "BEGIN SELECT RAISE(ABORT, 'refused'); END");
    }
    EXPECT_FALSE(database->replaceProfileRulesWithPrefix(
        "sab-", {makeRule(1, "new", 1, "sab-3"), makeRule(1, "refused", 1, "sab-4")},
        {makeRule(1, "other list", 1, "sabc")}));
    EXPECT_EQ(ids(), (std::vector<std::string>{"mine", "sab-1", "sab-2", "sabc"}));

    EXPECT_TRUE(database->replaceProfileRulesWithPrefix("sab-", {makeRule(1, "new", 1, "sab-3")},
                                                        {makeRule(1, "other list", 1, "sabc")}));
    EXPECT_EQ(ids(), (std::vector<std::string>{"mine", "sab-3"}));
}

TEST_F(ProfileDatabaseTest, IdentifiersThatLeaveTheProfilesFolderOpenNothing) {
    const std::vector<std::string> identifiers = {"../escape", "..", ".", "a\\b",
                                                  std::string("a\0b", 3)};
    for (const auto& identifier : identifiers) {
        SCOPED_TRACE(identifier);
        const auto before = std::distance(fs::recursive_directory_iterator(platform.rootPath()),
                                          fs::recursive_directory_iterator());
        auto database = open(identifier);
        database->addProfileRules({makeRule(1, "f", 1, "a")});
        database->restoreDatabase();
        EXPECT_EQ(database->getProfileRulesCount(), 0);
        EXPECT_FALSE(database->forEachProfileRuleByAction(1, [](const ProfileRule&) {}));
        database.reset();
        // Only the ".Profiles" folder (first time) may have appeared.
        const auto after = std::distance(fs::recursive_directory_iterator(platform.rootPath()),
                                         fs::recursive_directory_iterator());
        EXPECT_LE(after, before + 2);
        EXPECT_EQ(std::distance(fs::directory_iterator(profilesFolder()), {}), 0);
    }
    EXPECT_TRUE(platform.log->contains("profile identifier"));

    // Odd but safe identifiers are ordinary names.
    const std::vector<std::pair<NullableString, std::string>> cases = {
        {std::nullopt, "profile_(null)_data"},
        {"", "profile__data"},
        {"...", "profile_..._data"},
    };
    for (const auto& [identifier, fileName] : cases) {
        auto database = open(identifier);
        database->addProfileRules({makeRule(1, "f", 1, "a")});
        EXPECT_EQ(database->profilesFileName(), fileName);
        EXPECT_TRUE(fs::exists(profilesFolder() + "/" + fileName)) << fileName;
        EXPECT_EQ(database->getProfileRulesCount(), 1) << fileName;
    }
}

TEST_F(ProfileDatabaseTest, TextThatIsNotUTF8ReadsAsNull) {
    auto database = open();
    {
        RawDatabase raw(profilePath("p1"));
        raw.exec(
            "INSERT INTO ProfileRules VALUES "
            "(X'C328', 1, 1, X'EDA080', CAST(X'F09F9880' AS TEXT), NULL, NULL, -1, NULL, 0)");
        // A valid UTF-8 blob and a number read as text.
        raw.exec(
            "INSERT INTO ProfileRules VALUES ('b', 1, 1, X'C3A9', 12, NULL, NULL, -1, "
            "NULL, 0)");
    }
    ProfileRule valid = makeRule(1, "12", 1, "b");
    valid.selector = "é";
    ProfileRule invalid = makeRule(1, "\xF0\x9F\x98\x80", 1, "");
    invalid.ruleID.reset();  // and the selector, an encoded surrogate
    EXPECT_EQ(database->getProfileRulesByAction(1), (std::vector<ProfileRule>{valid, invalid}));
}

TEST_F(ProfileDatabaseTest, ForeignColumnShapesReadWithoutFault) {
    // A table of the right name but too few columns: the missing ones read
    // as null and zero.
    fs::create_directories(profilesFolder());
    {
        RawDatabase raw(profilePath("p1"));
        raw.exec(
            "CREATE TABLE ProfileRules (ruleID, blocker, action, filter); "
            "INSERT INTO ProfileRules VALUES ('short', 1, 1, 'f')");
    }
    auto database = open();
    ProfileRule expected = makeRule(1, "", 1, "short");
    expected.filter.reset();
    expected.selector = "f";  // column 3, whatever its name
    expected.domainType = 0;
    EXPECT_EQ(database->getProfileRulesByAction(1), std::vector<ProfileRule>{expected});
    database->addProfileRules({makeRule(1, "f", 1, "x")});  // 10 values into 4 columns: dropped
    EXPECT_EQ(database->getProfileRulesCount(), 1);
}

// A container that vanishes while open, or a closed database: calls give
// empty results and nothing stops the process.
TEST_F(ProfileDatabaseTest, UnusableStorageGivesEmptyResults) {
    auto database = open();
    database->addProfileRules({makeRule(1, "f", 1, "a")});
    fs::remove_all(platform.containerPath());
    database->addProfileRules({makeRule(1, "g", 1, "b")});  // no folder for a journal
    (void)database->getProfileRulesByAction(1);
    database->close();
    database->close();
    EXPECT_TRUE(database->getProfileRulesByAction(1).empty());
    EXPECT_FALSE(database->beginTransactionProfilesDatabase());
    EXPECT_EQ(open()->getProfileRulesCount(), 0);  // made again from the template
}

TEST_F(ProfileDatabaseTest, WaitingForWriteAccessOutlastsTheBusyTimeoutAndWritesNothing) {
    // Another program's lock outlasts one statement's busy timeout by far.
    storage_detail::setBusyTimeoutForTesting(20);
    auto database = open();
    struct Case {
        const char* name;
        std::chrono::milliseconds lock, limit;
        bool granted;
    };
    for (const Case& c : {Case{"lock gone within the limit", std::chrono::milliseconds(300),
                               std::chrono::milliseconds(5000), true},
                          Case{"lock held past the limit", std::chrono::milliseconds(1000),
                               std::chrono::milliseconds(200), false}}) {
        SCOPED_TRACE(c.name);
        RawDatabase other(profilePath("p1"));
        other.exec("BEGIN EXCLUSIVE");
        std::thread holder([&] {
            std::this_thread::sleep_for(c.lock);
            other.exec("COMMIT");
        });
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(database->waitForWriteAccess(c.limit), c.granted);
        const auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_GE(waited, std::min(c.lock, c.limit));
        holder.join();
    }
    // Nothing was left open: a write goes through at once.
    database->addProfileRules({makeRule(1, "x", 1, "after")});
    EXPECT_EQ(database->getProfileRulesCount(), 1);
    storage_detail::setBusyTimeoutForTesting(-1);
}

}  // namespace
}  // namespace stonewall
