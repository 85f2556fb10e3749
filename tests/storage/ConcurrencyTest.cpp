// The product's programs open the same database files at once. These tests
// write from several processes and threads at the same moment and check that
// every row arrives: a write must wait for another writer's lock, not fail.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "StorageTestSupport.h"
#include "storage/ProfileDatabase.h"
#include "storage/SharedDatabase.h"

namespace stonewall {
namespace {

using testing::RawDatabase;
using testing::StorageTest;

constexpr int kBatches = 20;
constexpr int kBatchSize = 50;
constexpr const char* kProfile = "together";

// kBatchSize rules of one kind, each with an identifier of its own.
template <typename Rule>
std::vector<Rule> batch(const std::string& writer, int number) {
    std::vector<Rule> rules(kBatchSize);
    for (int i = 0; i < kBatchSize; ++i) {
        rules[i].ruleID = writer + "-" + std::to_string(number) + "-" + std::to_string(i);
        rules[i].action = 1 + i % 2;
        rules[i].filter = ".*";
    }
    return rules;
}

class ConcurrencyTest : public StorageTest {
  protected:
    // Both files exist before the writers start, as they do once the main
    // application has run; the parent's connections are closed so that no
    // child inherits one.
    void createFiles() {
        (void)ProfileDatabase::initWithBlockerProfileID(kProfile);
        (void)SharedDatabase::sharedInstance().verifySharedData();
        SharedDatabase::resetSharedInstanceForTesting();
    }

    // Writes every batch to both files, reading between batches; false when
    // a read saw part of a batch. The shared queue runs each batch whole.
    static bool writeBatches(const std::string& writer) {
        auto profile = ProfileDatabase::initWithBlockerProfileID(kProfile);
        auto& shared = SharedDatabase::sharedInstance();
        bool wholeBatches = true;
        for (int number = 0; number < kBatches; ++number) {
            profile->addProfileRules(batch<ProfileRule>(writer, number));
            shared.addSharedCustomRulesDetails(batch<SharedCustomRule>(writer, number));
            wholeBatches = wholeBatches && shared.getSharedCustomRules().size() % kBatchSize == 0;
            (void)profile->getProfileRulesByAction(2);
        }
        return wholeBatches;
    }

    void expectAllRows(int writers) {
        const int64_t expected = int64_t{writers} * kBatches * kBatchSize;
        RawDatabase profile(profilePath(kProfile));
        EXPECT_EQ(profile.integer("SELECT COUNT(DISTINCT ruleID) FROM ProfileRules"), expected);
        EXPECT_EQ(profile.integer("SELECT COUNT(*) FROM ProfileRules"), expected);
        RawDatabase shared(sharedPath());
        EXPECT_EQ(shared.integer("SELECT COUNT(DISTINCT ruleID) FROM SharedCustomRules"), expected);
        EXPECT_EQ(shared.integer("SELECT COUNT(*) FROM SharedCustomRules"), expected);
    }
};

TEST_F(ConcurrencyTest, TwoProcessesWritingTheSameFilesLoseNoRow) {
    createFiles();
    int startPipe[2];
    ASSERT_EQ(pipe(startPipe), 0);
    std::vector<pid_t> children;
    for (const char* writer : {"first", "second"}) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            ::close(startPipe[1]);
            char go;
            (void)!read(startPipe[0], &go, 1);  // returns at EOF: both are ready
            const bool whole = writeBatches(writer);
            SharedDatabase::resetSharedInstanceForTesting();
            _exit(whole ? 0 : 1);
        }
        children.push_back(child);
    }
    ::close(startPipe[0]);
    ::close(startPipe[1]);
    for (pid_t child : children) {
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    expectAllRows(2);
}

// Within one process: separate profile connections on their own threads, and
// the one shared instance, made by whichever thread comes first, used from
// all of them.
TEST_F(ConcurrencyTest, ThreadsWithTheirOwnConnectionsLoseNoRow) {
    createFiles();
    constexpr int kWriters = 3;
    std::vector<std::thread> threads;
    std::vector<SharedDatabase*> instances(kWriters, nullptr);
    std::atomic<bool> partialBatchSeen{false};
    for (int t = 0; t < kWriters; ++t) {
        threads.emplace_back([t, &instances, &partialBatchSeen] {
            instances[t] = &SharedDatabase::sharedInstance();
            if (!writeBatches("thread" + std::to_string(t))) partialBatchSeen = true;
        });
    }
    for (auto& thread : threads) thread.join();
    for (auto* instance : instances) EXPECT_EQ(instance, instances[0]) << "one per process";
    EXPECT_FALSE(partialBatchSeen);
    SharedDatabase::resetSharedInstanceForTesting();
    expectAllRows(kWriters);
}

}  // namespace
}  // namespace stonewall
