// Importing a filter list of the size of the common ones (50000 lines) into
// a profile: the parse alone, and the whole import (parse, duplicate check
// against the profile, one transaction of inserts). Goal: the whole import
// of 50000 lines in at most a second.
//
// The list is generated, deterministically, in the proportions of the
// well-known lists: mostly "||host^" rules with and without options, path
// patterns, generic and per-site hiding rules, some exceptions, comments,
// and a few lines that are skipped.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "application/FilterListParser.h"
#include "application/ProfileManager.h"
#include "platform/testing/TestPlatform.h"

namespace stonewall {
namespace {

class Random {
  public:
    uint64_t next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        return state_;
    }
    size_t below(size_t bound) { return static_cast<size_t>(next() % bound); }

  private:
    uint64_t state_ = 0x9E3779B97F4A7C15ull;
};

std::string word(Random& random) {
    static const char* kParts[] = {"ad",    "track", "pixel", "banner",  "stat", "cdn",  "media",
                                   "promo", "click", "serve", "metrics", "tag",  "view", "net"};
    std::string text = kParts[random.below(std::size(kParts))];
    text += kParts[random.below(std::size(kParts))];
    text += std::to_string(random.below(1000));
    return text;
}

std::string host(Random& random) {
    static const char* kTLDs[] = {"com", "net", "org", "de", "co.uk", "io", "fr"};
    return word(random) + "." + kTLDs[random.below(std::size(kTLDs))];
}

std::string generateList(size_t lines) {
    static const char* kOptions[] = {"$third-party",
                                     "$script,third-party",
                                     "$image",
                                     "$xmlhttprequest",
                                     "$script,domain=news.com|blog.net",
                                     "$~third-party",
                                     "$popup",
                                     "$subdocument,third-party"};
    Random random;
    std::string list = "[Adblock Plus 2.0]\n! Title: generated\n";
    for (size_t i = 0; i < lines; ++i) {
        const size_t kind = random.below(100);
        if (kind < 40) {
            list += "||" + host(random) + "^";
            if (random.below(3) == 0) list += kOptions[random.below(std::size(kOptions))];
        } else if (kind < 55) {
            list += "/" + word(random) + "/" + word(random) + "_*.";
            list += random.below(2) ? "js" : "gif";
        } else if (kind < 75) {
            list += "##." + word(random);
        } else if (kind < 88) {
            list += host(random) + "," + host(random) + "##div[id^=\"" + word(random) + "\"]";
        } else if (kind < 93) {
            list += "@@||" + host(random) + "/" + word(random) + ".js$script";
        } else if (kind < 95) {
            list += host(random) + "#@#." + word(random);
        } else if (kind < 98) {
            list += "! comment " + word(random);
        } else {
            list += host(random) + "##.x:has-text(" + word(random) + ")";
        }
        list += '\n';
    }
    return list;
}

void BM_ParseFilterList(benchmark::State& state) {
    const std::string list = generateList(static_cast<size_t>(state.range(0)));
    size_t rules = 0;
    for (auto _ : state) {
        const FilterListImport parsed = FilterListParser::parse(list, BlockerCode::kList1);
        rules = parsed.rules.size();
        benchmark::DoNotOptimize(rules);
    }
    state.counters["rules"] = static_cast<double>(rules);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ParseFilterList)->Arg(50000)->Unit(benchmark::kMillisecond);

void BM_ImportFilterList(benchmark::State& state) {
    setenv("STONEWALL_RESOURCES", STONEWALL_BENCH_RESOURCES, 0);
    platform::testing::TestPlatform platform;
    const std::string list = generateList(static_cast<size_t>(state.range(0)));
    int64_t added = 0;
    {
        CompanionController engine;
        ProfileManager profiles(engine);
        for (auto _ : state) {
            state.PauseTiming();
            ProfileDatabase::initWithBlockerProfileID("defaultProfile")->removeAllProfileRules();
            state.ResumeTiming();
            ProfileManager::ImportReport report;
            if (auto error = profiles.importFilterList("defaultProfile", list, report)) {
                state.SkipWithError(error->reason.c_str());
                break;
            }
            added = report.added;
        }
    }
    SharedDatabase::resetSharedInstanceForTesting();
    state.counters["rules"] = static_cast<double>(added);
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ImportFilterList)->Arg(50000)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace stonewall

BENCHMARK_MAIN();
