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
    std::optional<SharedData> getSharedData();
    std::vector<SharedCustomRule> getSharedCustomRules();
    bool verifySharedData();

    // Raw operations; run only on the queue (through the operations above).
    void addSharedData(const SharedData& data);
    void updateSharedData(const SharedData& data);
    void addSharedCustomRules(const std::vector<SharedCustomRule>& rules);
    void removeSharedCustomRules();

    bool beginTransactionSharedDatabase();
    bool commitTransactionSharedDatabase();

    bool restored() const { return restored_; }
    const std::string& dataPath() const { return dataPath_; }

    static void logError(std::string_view message);

private:
    SharedDatabase();

    sqlite3* dataDatabase_ = nullptr;
    std::shared_ptr<platform::Queue> sharedQueue_;
    bool restored_ = false;
    FileHandler dataFileHandler_;
    std::string dataFileName_;
    std::string dataPath_;
};

}  // namespace stonewall
