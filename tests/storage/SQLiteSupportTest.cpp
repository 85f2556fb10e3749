#include <gtest/gtest.h>

#include <limits>

#include "storage/SQLiteSupport.h"

namespace stonewall::storage_detail {
namespace {

TEST(SQLiteSupportTest, TimestampsCutTo32Bits) {
    const std::pair<double, int> cases[] = {
        {1700000000.999, 1700000000},
        {-1.5, -1},
        {2147483647.0, 2147483647},
        {2147483648.0, std::numeric_limits<int>::min()},
        {std::numeric_limits<double>::quiet_NaN(), 0},
        {1e19, 0},
        {-1e19, 0},
    };
    for (const auto& [value, expected] : cases) {
        EXPECT_EQ(truncateTimestampToInt32(value), expected) << value;
    }
}

// A statement that would run for ever (as a view in a hostile file could) is
// interrupted at the deadline rather than hanging the caller. The deadline is
// moved into the past here so that the test takes no time.
TEST(SQLiteSupportTest, RunawayStatementIsInterrupted) {
    sqlite3* database = nullptr;
    ASSERT_EQ(sqlite3_open(":memory:", &database), SQLITE_OK);
    configureConnection(database);
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(database,
                                 "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x+1 FROM c) "
                                 "SELECT x FROM c ORDER BY x DESC",
                                 -1, &statement, nullptr),
              SQLITE_OK);
    expireDeadlineForTesting();
    EXPECT_EQ(sqlite3_step(statement), SQLITE_INTERRUPT);
    sqlite3_finalize(statement);

    armDeadline();
    ASSERT_EQ(sqlite3_prepare_v2(database, "SELECT 1", -1, &statement, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_step(statement), SQLITE_ROW);
    sqlite3_finalize(statement);
    sqlite3_close_v2(database);
}

}  // namespace
}  // namespace stonewall::storage_detail
