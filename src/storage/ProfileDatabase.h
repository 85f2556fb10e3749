#pragma once

// One blocker profile's rules: the SQLite file ".Profiles/profile_<id>_data"
// in the application-group container, table ProfileRules. Made from the
// "profiles" template when missing or unreadable; never creates a table.
//
// Not thread-safe: one object is used by one thread at a time. Other
// processes may open the same file; every connection waits for their locks
// (busy timeout) instead of dropping a write.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "model/ProfileRule.h"
#include "storage/FileHandler.h"
#include "storage/IntegrityWatch.h"
#include "utilities/Nullable.h"

struct sqlite3;

namespace stonewall::storage_detail {
class Statement;
}  // namespace stonewall::storage_detail

namespace stonewall {

class ProfileDatabase {
  public:
    // Opens (or makes from the template) the profile's database. Always returns
    // an object; when the file cannot be opened its queries return nothing and
    // its changes are dropped. An identifier that would leave ".Profiles" (a
    // path separator, "..") opens nothing.
    static std::shared_ptr<ProfileDatabase> initWithBlockerProfileID(
        const NullableString& blockerProfileID);
    ~ProfileDatabase();
    ProfileDatabase(const ProfileDatabase&) = delete;
    ProfileDatabase& operator=(const ProfileDatabase&) = delete;

    void connect();
    int connectProfilesDatabase();
    void addProfilesDatabase();
    [[nodiscard]] bool checkTablesExist();
    [[nodiscard]] bool checkTableExists(const std::string& tableName);
    // Moves a damaged file aside (never deletes it), puts a fresh copy of
    // the template in its place and carries over the rows still readable.
    void restoreDatabase();
    // Before a write: a file that PRAGMA quick_check finds damaged (a page
    // no read has met yet) is restored first, so that no write lands in it.
    void ensureWholeForWrite();
    void close();

    std::vector<ProfileRule> getProfileRulesByAction(int64_t action);
    std::vector<ProfileRule> getProfileRulesByActionAndType(int64_t action, int64_t blocker);
    std::vector<ProfileRule> getProfileRulesByQueryType(int64_t queryType);
    int64_t getProfileRulesCount();
    // For each of `actions`, the first rule getProfileRulesByAction would
    // give (none where the action has no rows), from one scan of the table
    // instead of one per action: the table has no index on action, and a
    // profile of 100000 rows makes every scan count.
    std::vector<std::optional<ProfileRule>> getFirstProfileRulesByActions(
        std::span<const int64_t> actions);

    // The rows of getProfileRulesByAction, one at a time, in the same order,
    // without building the array (the compiler's hot path). The rule passed
    // is reused between calls; a visitor may take its fields (swap them with
    // a rule of its own, whose buffers the next row then fills). False when
    // the rows could not all be read (the statement failed, or the read
    // stopped part-way on a lock or a damaged page); the rules visited are
    // then only some of them.
    [[nodiscard]] bool forEachProfileRuleByAction(int64_t action,
                                                  const std::function<void(ProfileRule&)>& visit);
    // Runs `read`, during which forEachProfileRuleByAction calls from this
    // thread read through a connection of their own, opened for the call
    // and closed after it. No other thread can reach that connection, so it
    // is opened without SQLite's per-connection mutex, which every column
    // call otherwise locks (a compiled profile of 100000 rows takes about
    // three million of them). Where it cannot be opened the usual
    // connection serves.
    void readAlone(const std::function<void()>& read);
    // Why the last forEachProfileRuleByAction failed: another connection's
    // lock held past the busy timeout, or a damaged file (which restoreDatabase
    // repairs), or anything else.
    enum class ReadFailure { None, Locked, Damaged, Other };
    ReadFailure lastReadFailure() const { return lastReadFailure_; }

    void addProfileRules(const std::vector<ProfileRule>& rules);
    void updateProfileRules(const std::vector<ProfileRule>& rules);
    void removeProfileRulesCustom(const std::vector<ProfileRule>& rules);
    void removeProfileRules(int64_t blocker, int64_t blockerAction, const NullableString& ruleID);
    void removeAllProfileRules();
    // In one transaction: deletes every row whose ruleID begins with
    // `ruleIDPrefix` (one imported list's rows; none when it is empty),
    // deletes `remove` (by
    // blocker, action and ruleID) and inserts `add`. All or nothing: false,
    // with the table as it was, when any step failed. runBatch opens a
    // transaction of its own, so this does its own steps.
    [[nodiscard]] bool replaceProfileRulesWithPrefix(const std::string& ruleIDPrefix,
                                                     const std::vector<ProfileRule>& add,
                                                     const std::vector<ProfileRule>& remove);
    // Kept for the interface's other users; does nothing.
    void reloadProfileRules(int64_t reloadType, int64_t reloadOperation,
                            const std::vector<ProfileRule>& rules);

    // Waits until this connection could write: another program's lock on
    // the file may last far longer than the busy timeout of one statement.
    // True once a write could start (nothing is written), false when the
    // lock outlasted `limit` or the file cannot be written at all. Blocks
    // the calling thread: never the main thread of a program with a window.
    [[nodiscard]] bool waitForWriteAccess(std::chrono::milliseconds limit);

    [[nodiscard]] bool beginTransactionProfilesDatabase();
    [[nodiscard]] bool commitTransactionProfilesDatabase();

    const std::string& profilesFileName() const { return profilesFileName_; }
    const std::string& profilesDataPath() const { return profilesDataPath_; }
    const FileHandler& profilesFileHandler() const { return profilesFileHandler_; }

    static void logError(std::string_view message);

  private:
    ProfileDatabase() = default;

    // Binds one record's values to the batch statement.
    using BindRule = void (*)(storage_detail::Statement&, const ProfileRule&);
    // The batch change shared by add, update and remove: one transaction, one
    // statement, a failing record skipped.
    void runBatch(const char* sql, const std::vector<ProfileRule>& rules, BindRule bind);

    sqlite3* profilesDatabase_ = nullptr;
    // The connection of readAlone and its thread, while it runs.
    sqlite3* aloneDatabase_ = nullptr;
    std::thread::id aloneThread_;
    FileHandler profilesFileHandler_;
    std::string profilesFileName_;
    std::string profilesDataPath_;
    bool usable_ = true;
    storage_detail::IntegrityWatch integrity_;
    ReadFailure lastReadFailure_ =
        ReadFailure::None;  // false for an identifier that names no file of ours
};

}  // namespace stonewall
