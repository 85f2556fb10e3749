#pragma once

// The shared database ".Shared/shared_data" of the application-group
// container: the SharedData row and the user's custom rules. One instance per
// process; every transaction and read runs synchronously on its serial queue
// "com.mapleharbor.Stonewall.SharedDataQueue". Calling a queue-serialised
// operation from inside that queue is a programming error (caught in debug
// builds). Connection management and the raw operations are not queued.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "model/SharedCustomRule.h"
#include "model/SharedData.h"
#include "platform/Dispatch.h"
#include "storage/FileHandler.h"
#include "storage/IntegrityWatch.h"

struct sqlite3;
struct sqlite3_stmt;

namespace stonewall {

class SharedDatabase {
  public:
    static SharedDatabase& sharedInstance();
    // Tests: drop the instance so that the next sharedInstance() opens the
    // database of the container then configured.
    static void resetSharedInstanceForTesting();

    ~SharedDatabase();
    SharedDatabase(const SharedDatabase&) = delete;
    SharedDatabase& operator=(const SharedDatabase&) = delete;

    void connect();
    int connectDataDatabase();
    void addSharedDatabase();
    void reconnectDatabase();
    void close();

    // Queue-serialised.
    void addSharedDataDetails(const SharedData& data);
    void updateSharedDataDetails(const SharedData& data);
    void addSharedCustomRulesDetails(const std::vector<SharedCustomRule>& rules);
    void removeSharedCustomRulesDetails();
    // Deletes the rows equal to these rules in ruleID, action,
    // blockerProfileID and domains (null matching null).
    void removeSharedCustomRulesDetails(const std::vector<SharedCustomRule>& rules);
    std::optional<SharedData> getSharedData();
    std::vector<SharedCustomRule> getSharedCustomRules();
    [[nodiscard]] bool verifySharedData();

    // Raw operations; run only on the queue (through the operations above).
    void addSharedData(const SharedData& data);
    void updateSharedData(const SharedData& data);
    void addSharedCustomRules(const std::vector<SharedCustomRule>& rules);
    void removeSharedCustomRules();
    void removeSharedCustomRules(const std::vector<SharedCustomRule>& rules);

    [[nodiscard]] bool beginTransactionSharedDatabase();
    [[nodiscard]] bool commitTransactionSharedDatabase();

    bool restored() const { return restored_; }
    const std::string& dataPath() const { return dataPath_; }

    static void logError(std::string_view message);

  private:
    SharedDatabase();

    // Connection management from outside the queue runs on it, so that it
    // never overlaps a queued read or transaction of another thread; from
    // inside the queue it runs at once.
    void runForConnection(const platform::Work& work);
    int openDataPath();
    // Makes the file from the template unless another process just did.
    void createSharedDatabase();
    void salvage(const std::string& damagedPath);
    void closeConnections();
    // Before a write: a file found damaged is replaced (moved aside, rows
    // carried over) so that the write lands in a whole one.
    void ensureWholeForWrite();
    // Runs a change on the queue inside one transaction.
    void inTransaction(const platform::Work& change);
    // Debug builds abort when a raw operation runs off the queue.
    void checkOnQueue(const char* operation) const;

    sqlite3* dataDatabase_ = nullptr;
    // Connections replaced by the repair's second open. They stay open, as
    // the repair requires, until close() releases them with the current one.
    std::vector<sqlite3*> replacedConnections_;
    // The last custom-rule insert statement: never finalized by the insert
    // itself, only by close(), since a connection with an unfinalized
    // statement cannot really close (sqlite3_close_v2 would keep it as a
    // zombie for ever).
    sqlite3_stmt* customRulesStatement_ = nullptr;
    std::shared_ptr<platform::Queue> sharedQueue_;
    bool restored_ = false;
    storage_detail::IntegrityWatch integrity_;
    FileHandler dataFileHandler_;
    std::string dataFileName_;
    std::string dataPath_;
};

}  // namespace stonewall
