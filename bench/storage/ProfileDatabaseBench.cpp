// Reading a large profile the way the rule compiler does (by action, in the
// order 5, 1, 4, 2, 3, 6, 7, 8), with and without an index, and updating one
// website-list rule by its identifier. These numbers decide which indexes the
// "profiles" template carries (it ships the ruleID index; each run drops
// and recreates the set under test).
//
// BM_QuickCheck: the integrity check that precedes the first write to a
// database a process opened or another program changed.
//
// Arguments: rules in the profile, then the index set (0 none, 1 (action,
// filter), 2 (ruleID), 3 both). Run with TMPDIR on a memory file system to
// measure SQLite rather than the disk's flush.

#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "ProfileGenerator.h"
#include "platform/testing/TestPlatform.h"
#include "storage/IntegrityWatch.h"
#include "storage/ProfileDatabase.h"

namespace stonewall {
namespace {

constexpr int64_t kCompilerOrder[] = {5, 1, 4, 2, 3, 6, 7, 8};

void execute(const std::string& path, const std::string& sql) {
    sqlite3* database = nullptr;
    sqlite3_open(path.c_str(), &database);
    sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr);
    sqlite3_close_v2(database);
}

// One profile database per size and index set, made on first use.
class Fixture {
  public:
    Fixture(int64_t rules, int64_t indexes) {
        setenv("STONEWALL_RESOURCES", STONEWALL_BENCH_RESOURCES, 0);
        platform_ = std::make_unique<platform::testing::TestPlatform>();
        database_ = ProfileDatabase::initWithBlockerProfileID("bench");
        ProfileGenerator().fillDatabase(*database_, static_cast<size_t>(rules));
        std::string sql =
            "DROP INDEX IF EXISTS ProfileRulesByAction;"
            "DROP INDEX IF EXISTS ProfileRulesByRuleID;";
        if (indexes & 1)
            sql += "CREATE INDEX ProfileRulesByAction ON ProfileRules(action, filter);";
        if (indexes & 2) sql += "CREATE INDEX ProfileRulesByRuleID ON ProfileRules(ruleID);";
        sql += "ANALYZE;";
        execute(database_->profilesDataPath(), sql);
        // Reopen so that the connection sees the new schema and statistics.
        database_ = ProfileDatabase::initWithBlockerProfileID("bench");
        auto some = database_->getProfileRulesByAction(5);
        if (!some.empty()) websiteRule_ = some.front();
    }

    ProfileDatabase& database() { return *database_; }
    ProfileRule& websiteRule() { return websiteRule_; }

  private:
    std::unique_ptr<platform::testing::TestPlatform> platform_;
    std::shared_ptr<ProfileDatabase> database_;
    ProfileRule websiteRule_;
};

void BM_CompilerReadStreaming(benchmark::State& state) {
    Fixture fixture(state.range(0), state.range(1));
    size_t rows = 0;
    for (auto _ : state) {
        for (int64_t action : kCompilerOrder) {
            (void)fixture.database().forEachProfileRuleByAction(
                action, [&](const ProfileRule& rule) { rows += rule.filter ? 1 : 0; });
        }
    }
    benchmark::DoNotOptimize(rows);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_CompilerReadArrays(benchmark::State& state) {
    Fixture fixture(state.range(0), state.range(1));
    for (auto _ : state) {
        for (int64_t action : kCompilerOrder) {
            auto rules = fixture.database().getProfileRulesByAction(action);
            benchmark::DoNotOptimize(rules.data());
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_UpdateWebsiteRule(benchmark::State& state) {
    Fixture fixture(state.range(0), state.range(1));
    ProfileRule& rule = fixture.websiteRule();
    int64_t n = 0;
    for (auto _ : state) {
        rule.domains = "site" + std::to_string(n++) + ".test";
        fixture.database().updateProfileRules({rule});
    }
}

// The cost an index adds to writing: one batch of 10000 new rules into the
// profile (the size of the generator's batches).
void BM_AddRulesBatch(benchmark::State& state) {
    Fixture fixture(state.range(0), state.range(1));
    ProfileGenerator generator(ProfileGenerator::Options{.seed = 99});
    for (auto _ : state) {
        state.PauseTiming();
        auto rules = generator.generate(10000);
        state.ResumeTiming();
        fixture.database().addProfileRules(rules);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 10000);
}

// What a database costs to check before it is trusted for a write (done
// when it is opened and after another program changed it): PRAGMA
// quick_check reads every page.
void BM_QuickCheck(benchmark::State& state) {
    Fixture fixture(state.range(0), 2);
    sqlite3* connection = nullptr;
    sqlite3_open(fixture.database().profilesDataPath().c_str(), &connection);
    for (auto _ : state) {
        benchmark::DoNotOptimize(storage_detail::quickCheck(connection));
    }
    sqlite3_close_v2(connection);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void Sizes(benchmark::internal::Benchmark* bench) {
    for (int64_t indexes : {0, 1, 2, 3}) bench->Args({50000, indexes});
    bench->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_CompilerReadStreaming)->Apply(Sizes);
BENCHMARK(BM_CompilerReadArrays)->Apply(Sizes);
BENCHMARK(BM_UpdateWebsiteRule)->Apply(Sizes);
BENCHMARK(BM_AddRulesBatch)->Apply(Sizes);
BENCHMARK(BM_QuickCheck)->Arg(1000)->Arg(50000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace stonewall

BENCHMARK_MAIN();
