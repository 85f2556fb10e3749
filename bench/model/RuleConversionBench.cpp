// The compiler's hot path per rule: convertToSafariData2 plus streaming the
// object into the rule list, and the dedupe key. Times are per rule
// (the "per_rule" counter), over a realistic profile of 50000 rules.

#include <benchmark/benchmark.h>

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "model/ContentBlockerRule.h"
#include "model/ProfileRule.h"
#include "model/RuleCodes.h"

namespace stonewall {
namespace {

constexpr size_t kRuleCount = 50000;

// Deterministic, so runs on different machines compare (splitmix64).
class Random {
  public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    size_t below(size_t n) { return static_cast<size_t>(next() % n); }
    bool chance(unsigned percent) { return below(100) < percent; }
    template <typename T, size_t N>
    const T& pick(const std::array<T, N>& items) {
        return items[below(N)];
    }

  private:
    uint64_t state_;
};

constexpr std::array<const char*, 12> kWords = {"ads",     "banner", "track", "pixel",
                                                "promo",   "widget", "cdn",   "static",
                                                "metrics", "social", "popup", "sponsor"};
constexpr std::array<const char*, 6> kTLDs = {"test", "example", "com", "net", "org", "de"};
constexpr std::array<const char*, 4> kNonASCIIHosts = {
    "b\xC3\xBC"
    "cher",
    "m\xC3\xBCnchen", "caf\xC3\xA9", "\xE4\xBE\x8B\xE3\x81\x88"};
constexpr std::array<const char*, 5> kResources = {"image", "script", "image,media", "script,raw",
                                                   "style-sheet,font"};
constexpr std::array<const char*, 6> kSelectors = {
    ".ad-banner",        "#sponsored",           "div[id^=\"ad_\"]",
    ".social-share > a", "iframe[src*=\"ads\"]", ".promo, .popup-overlay"};

std::string host(Random& random) {
    std::string name = random.chance(3) ? random.pick(kNonASCIIHosts) : random.pick(kWords);
    name += std::to_string(random.below(1000));
    name += '.';
    name += random.pick(kTLDs);
    return name;
}

std::string domainList(Random& random, size_t count) {
    std::string list;
    for (size_t i = 0; i < count; ++i) {
        if (i) list += ',';
        if (random.chance(40)) list += '*';
        list += host(random);
    }
    return list;
}

ProfileRule makeRule(Random& random) {
    ProfileRule rule;
    rule.blocker = BlockerCode::kList1;
    const size_t kind = random.below(100);
    if (kind < 40) {  // block rules with url patterns and resource types
        rule.action = ActionCode::kBlock;
        rule.filter = "^https?://([^/]+\\.)?" + std::string(random.pick(kWords)) +
                      std::to_string(random.below(100000)) + "\\." + random.pick(kTLDs) + "/";
        if (random.chance(60)) rule.resources = random.pick(kResources);
        if (random.chance(30)) rule.loads = "third-party";
        if (random.chance(20)) {
            rule.domainType = DomainTypeCode::kIfTopURL;
            rule.domains = domainList(random, 1 + random.below(3));
        }
    } else if (kind < 75) {  // hide rules with selectors on listed sites
        rule.action = ActionCode::kHide;
        rule.selector = random.pick(kSelectors);
        rule.filter = ".*";
        rule.domainType = random.chance(80) ? DomainTypeCode::kIfTopURL : DomainTypeCode::kNone;
        rule.domains = domainList(random, 1 + random.below(4));
    } else if (kind < 88) {  // exceptions, mostly unless on some sites
        rule.action = ActionCode::kException;
        rule.filter = "^https?://" + host(random) + "/";
        if (random.chance(50)) {
            rule.domainType = DomainTypeCode::kUnlessTopURL;
            rule.domains = domainList(random, 1 + random.below(2));
        }
    } else if (kind < 95) {  // make-https
        rule.action = ActionCode::kUpgradeHTTPS;
        rule.filter = "^http://([^/]+\\.)?" + host(random) + "/";
    } else if (kind < 98) {
        rule.action = ActionCode::kBlockCookies;
        rule.filter = std::string(random.pick(kWords)) + "\\." + random.pick(kTLDs);
        rule.filterSensitive = 1;
    } else {  // website-list rules and verbatim top-URL lists
        rule.action = random.chance(50) ? ActionCode::kBlockWebsite : ActionCode::kAllowWebsite;
        rule.filter = ".*";
        rule.domainType =
            random.chance(70) ? DomainTypeCode::kIfTopURL : DomainTypeCode::kIfTopURLVerbatim;
        rule.domains = domainList(random, 5 + random.below(20));
    }
    return rule;
}

const std::vector<ProfileRule>& profile() {
    static const std::vector<ProfileRule> rules = [] {
        Random random(0x5709E);
        std::vector<ProfileRule> made;
        made.reserve(kRuleCount);
        for (size_t i = 0; i < kRuleCount; ++i) made.push_back(makeRule(random));
        return made;
    }();
    return rules;
}

void reportPerRule(benchmark::State& state) {
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRuleCount));
    state.counters["per_rule"] = benchmark::Counter(
        static_cast<double>(kRuleCount),
        benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// The whole list as the compiler makes it: convert, stream into one buffer.
void BM_ConvertAndWrite(benchmark::State& state) {
    const auto& rules = profile();
    std::string out;
    for (auto _ : state) {
        out.clear();
        ContentBlockerRuleListWriter writer(out);
        for (const ProfileRule& rule : rules) writer.add(rule.convertToSafariData2());
        writer.finish();
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes_per_rule"] = static_cast<double>(out.size()) / kRuleCount;
    reportPerRule(state);
}
BENCHMARK(BM_ConvertAndWrite)->Unit(benchmark::kMillisecond);

void BM_ConvertOnly(benchmark::State& state) {
    const auto& rules = profile();
    for (auto _ : state) {
        for (const ProfileRule& rule : rules) {
            ContentBlockerRule converted = rule.convertToSafariData2();
            benchmark::DoNotOptimize(converted);
        }
    }
    reportPerRule(state);
}
BENCHMARK(BM_ConvertOnly)->Unit(benchmark::kMillisecond);

void BM_WriteOnly(benchmark::State& state) {
    std::vector<ContentBlockerRule> converted;
    converted.reserve(kRuleCount);
    for (const ProfileRule& rule : profile()) converted.push_back(rule.convertToSafariData2());
    std::string out;
    for (auto _ : state) {
        out.clear();
        ContentBlockerRuleListWriter writer(out);
        for (const auto& rule : converted) writer.add(rule);
        writer.finish();
        benchmark::DoNotOptimize(out.data());
    }
    reportPerRule(state);
}
BENCHMARK(BM_WriteOnly)->Unit(benchmark::kMillisecond);

// For comparison only: the same list through a generic JSON tree per rule,
// the road the hot path avoids.
void BM_ConvertAndWriteThroughJSONTree(benchmark::State& state) {
    const auto& rules = profile();
    for (auto _ : state) {
        nlohmann::json list = nlohmann::json::array();
        for (const ProfileRule& rule : rules) {
            const ContentBlockerRule converted = rule.convertToSafariData2();
            nlohmann::json action = nlohmann::json::object();
            nlohmann::json trigger = nlohmann::json::object();
            if (converted.action.type) action["type"] = *converted.action.type;
            if (converted.action.selector) action["selector"] = *converted.action.selector;
            const auto& t = converted.trigger;
            if (t.urlFilter) trigger["url-filter"] = *t.urlFilter;
            if (t.urlFilterIsCaseSensitive) trigger["url-filter-is-case-sensitive"] = true;
            if (t.resourceType) trigger["resource-type"] = *t.resourceType;
            if (t.loadType) trigger["load-type"] = *t.loadType;
            if (t.ifTopURL) trigger["if-top-url"] = *t.ifTopURL;
            if (t.unlessTopURL) trigger["unless-top-url"] = *t.unlessTopURL;
            list.push_back({{"action", std::move(action)}, {"trigger", std::move(trigger)}});
        }
        std::string out = list.dump();
        benchmark::DoNotOptimize(out.data());
    }
    reportPerRule(state);
}
BENCHMARK(BM_ConvertAndWriteThroughJSONTree)->Unit(benchmark::kMillisecond);

// The dedupe key into one reused buffer, as the compiler asks for it.
void BM_AppendHash(benchmark::State& state) {
    const auto& rules = profile();
    std::string hash;
    for (auto _ : state) {
        for (const ProfileRule& rule : rules) {
            hash.clear();
            rule.appendHash(hash);
            benchmark::DoNotOptimize(hash.data());
        }
    }
    reportPerRule(state);
}
BENCHMARK(BM_AppendHash)->Unit(benchmark::kMillisecond);

void BM_ComputeHash(benchmark::State& state) {
    const auto& rules = profile();
    for (auto _ : state) {
        for (const ProfileRule& rule : rules) {
            std::string hash = rule.computeHash();
            benchmark::DoNotOptimize(hash.data());
        }
    }
    reportPerRule(state);
}
BENCHMARK(BM_ComputeHash)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace stonewall

BENCHMARK_MAIN();
