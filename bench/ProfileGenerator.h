#pragma once

// A deterministic generator of realistic blocker profiles, for benchmarks and
// for tests that need many rules. The same seed gives the same rows on every
// machine (own PRNG, no library distributions).
//
// Proportions follow converted filter lists: mostly block (1) and hide (2)
// rules, some list exceptions (6), few cookie (4), upgrade (8), and website
// list (3, 5, 7) rules; blockers 1, 2, 3, 6 and the custom list 4. About a
// third of the rules carry domains, with "*" entries and some non-ASCII hosts;
// a few percent repeat an earlier rule under another list, which the compiler
// drops as duplicates. Every pattern is one that WebKit's content-rule
// compiler accepts (no alternation, ASCII after IDNA encoding).
//
// Header-only: include it and use it.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "model/ProfileRule.h"
#include "model/RuleCodes.h"
#include "storage/ProfileDatabase.h"

namespace stonewall {

class ProfileGenerator {
  public:
    struct Options {
        uint64_t seed = 0x5709e4a11ULL;
        // Share of rows that repeat an earlier rule under another list.
        double duplicateFraction = 0.04;
        // Share of block/hide/exception rules that carry domains.
        double domainFraction = 0.3;
    };

    ProfileGenerator() : ProfileGenerator(Options{}) {}
    explicit ProfileGenerator(Options options) : options_(options), state_(options.seed) {}

    // The next row.
    ProfileRule next() {
        ++serial_;
        if (!recent_.empty() && chance(options_.duplicateFraction)) {
            ProfileRule copy = recent_[below(recent_.size())];
            copy.blocker = otherBlocker(copy.blocker);
            copy.ruleID = ruleID();
            return copy;
        }
        ProfileRule rule = fresh();
        remember(rule);
        return rule;
    }

    std::vector<ProfileRule> generate(size_t count) {
        std::vector<ProfileRule> rules;
        rules.reserve(count);
        for (size_t i = 0; i < count; ++i) rules.push_back(next());
        return rules;
    }

    // Adds `count` rows to the database, in batches so that memory stays flat.
    void fillDatabase(ProfileDatabase& database, size_t count) {
        constexpr size_t kBatch = 10000;
        while (count > 0) {
            const size_t batch = count < kBatch ? count : kBatch;
            database.addProfileRules(generate(batch));
            count -= batch;
        }
    }

    // `count` block rules of one action whose dedupe keys all differ, their
    // filters increasing in the database's order (filter text).
    static std::vector<ProfileRule> distinctRules(size_t count, int64_t action,
                                                  std::string_view tag = "r") {
        std::vector<ProfileRule> rules;
        rules.reserve(count);
        for (size_t i = 0; i < count; ++i) {
            ProfileRule rule;
            rule.ruleID = std::string(tag) + std::to_string(i);
            rule.blocker = BlockerCode::kList1;
            rule.action = action;
            rule.filter =
                "^https?://([^/]+\\.)?" + std::string(tag) + padded(i) + "\\.example\\.com[/:]";
            rules.push_back(std::move(rule));
        }
        return rules;
    }

    // Zero-padded to 8 digits, so that text order is numeric order.
    static std::string padded(uint64_t n) {
        std::string digits = std::to_string(n);
        return std::string(digits.size() < 8 ? 8 - digits.size() : 0, '0') + digits;
    }

  private:
    // splitmix64: small, fast, and the same everywhere.
    uint64_t random() {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    size_t below(size_t n) { return static_cast<size_t>(random() % n); }
    bool chance(double p) { return static_cast<double>(random() >> 11) * 0x1.0p-53 < p; }
    template <size_t N>
    std::string_view pick(const std::array<std::string_view, N>& items) {
        return items[below(N)];
    }

    std::string ruleID() { return "g" + std::to_string(serial_); }

    int64_t action() {
        // Per 1000 rows: block 540, hide 320, exception 80, upgrade 20,
        // cookies 15, block website 10, allow website 8, secure website 7.
        const size_t r = below(1000);
        if (r < 540) return ActionCode::kBlock;
        if (r < 860) return ActionCode::kHide;
        if (r < 940) return ActionCode::kException;
        if (r < 960) return ActionCode::kUpgradeHTTPS;
        if (r < 975) return ActionCode::kBlockCookies;
        if (r < 985) return ActionCode::kBlockWebsite;
        if (r < 993) return ActionCode::kAllowWebsite;
        return ActionCode::kSecureWebsite;
    }

    int64_t blocker() {
        const size_t r = below(100);
        if (r < 45) return BlockerCode::kList1;
        if (r < 60) return BlockerCode::kList2;
        if (r < 75) return BlockerCode::kList3;
        if (r < 90) return BlockerCode::kList6;
        return BlockerCode::kCustom;
    }

    int64_t otherBlocker(int64_t blocker) {
        static constexpr std::array<int64_t, 5> kBlockers = {1, 2, 3, 6, 4};
        int64_t other = kBlockers[below(kBlockers.size())];
        return other == blocker ? (blocker == 1 ? 3 : 1) : other;
    }

    std::string token() { return std::string(pick(kWords)) + std::to_string(serial_); }

    // A host for URL filters: ASCII, as filter lists write them (the
    // conversion copies most filters unchanged, and WebKit takes only ASCII).
    std::string asciiHost() { return token() + "." + std::string(pick(kTLDs)); }

    // A host for domain lists, which the conversion IDNA-encodes: some are
    // non-ASCII.
    std::string host() {
        const size_t r = below(100);
        if (r < 6)
            return std::string(pick(kUnicodeNames)) + std::to_string(serial_) + "." +
                   std::string(pick(kUnicodeTLDs));
        return asciiHost();
    }

    std::string domainList() {
        std::string list;
        const size_t n = 1 + below(below(8) + 1);
        for (size_t i = 0; i < n; ++i) {
            if (i) list.push_back(',');
            if (chance(0.35)) list.push_back('*');
            if (chance(0.2)) list.append(std::string(pick(kWords)) + ".");
            list.append(host());
        }
        return list;
    }

    static std::string escaped(std::string_view host) {
        std::string out;
        for (char c : host) {
            if (c == '.') out.push_back('\\');
            out.push_back(c);
        }
        return out;
    }

    std::string blockFilter() {
        switch (below(5)) {
            case 0:
                return "/" + std::string(pick(kWords)) + "/" + token() + "\\.js";
            case 1:
                return "^[^:]+:(//)?([^/]+\\.)?" +
                       escaped(token() + "." + std::string(pick(kTLDs))) + "/";
            case 2:
                return std::string(pick(kWords)) + "[_-]" + token() + "\\.gif";
            default:
                return "^https?://([^/]+\\.)?" + escaped(token() + "." + std::string(pick(kTLDs))) +
                       "[/:]";
        }
    }

    std::string selector() {
        switch (below(5)) {
            case 0:
                return "#" + token();
            case 1:
                return "div[id^=\"" + token() + "\"]";
            case 2:
                return "a[href*=\"" + token() + "." + std::string(pick(kTLDs)) + "\"]";
            case 3:
                return ".ad-" + token() + " > iframe";
            default:
                return "." + token();
        }
    }

    void maybeResources(ProfileRule& rule) {
        if (chance(0.35)) {
            std::string list(pick(kResourceTypes));
            if (chance(0.3)) list += "," + std::string(pick(kResourceTypes));
            rule.resources = list;
        }
        if (chance(0.25)) rule.loads = chance(0.8) ? "third-party" : "first-party";
    }

    void maybeDomains(ProfileRule& rule) {
        if (!chance(options_.domainFraction)) return;
        rule.domains = domainList();
        const size_t r = below(10);
        rule.domainType = r < 6   ? DomainTypeCode::kIfTopURL
                          : r < 9 ? DomainTypeCode::kUnlessTopURL
                                  : DomainTypeCode::kIfTopURLVerbatim;
        if (rule.domainType == DomainTypeCode::kIfTopURLVerbatim) {
            // Entries used as they stand are patterns of their own, in ASCII:
            // the conversion IDNA-encodes them whole, which would turn a
            // pattern holding a non-ASCII host into an invalid one.
            rule.domains = "^https?://" + escaped(asciiHost()) + "/";
        }
    }

    ProfileRule fresh() {
        ProfileRule rule;
        rule.ruleID = ruleID();
        rule.action = action();
        rule.blocker = blocker();
        rule.filterSensitive = chance(0.05) ? 1 : 0;
        switch (rule.action) {
            case ActionCode::kBlock:
                rule.filter = blockFilter();
                maybeResources(rule);
                maybeDomains(rule);
                break;
            case ActionCode::kHide:
                rule.filter = ".*";
                rule.selector = selector();
                maybeDomains(rule);
                break;
            case ActionCode::kException:
                rule.filter = "^https?://([^/]+\\.)?" + escaped(asciiHost()) + "[/:]";
                if (chance(0.1)) rule.selector = selector();
                maybeResources(rule);
                maybeDomains(rule);
                break;
            case ActionCode::kBlockCookies:
                rule.filter = "^https?://([^/]+\\.)?" + escaped(asciiHost()) + "[/:]";
                if (chance(0.5)) rule.loads = "third-party";
                break;
            case ActionCode::kUpgradeHTTPS:
                rule.filter = "^http://([^/]+\\.)?" + escaped(asciiHost()) + "/";
                break;
            default:  // the website lists: a list of hosts, any URL
                rule.blocker = BlockerCode::kCustom;
                rule.filter = ".*";
                rule.domains = domainList();
                rule.domainType = DomainTypeCode::kIfTopURL;
                break;
        }
        return rule;
    }

    void remember(const ProfileRule& rule) {
        constexpr size_t kRecent = 512;
        if (recent_.size() < kRecent) {
            recent_.push_back(rule);
        } else {
            recent_[below(kRecent)] = rule;
        }
    }

    static constexpr std::array<std::string_view, 16> kWords = {
        "ads",    "banner", "track", "pixel",  "promo", "sponsor", "metrics", "beacon",
        "widget", "popup",  "affil", "social", "stats", "counter", "adserv",  "telemetry"};
    static constexpr std::array<std::string_view, 8> kTLDs = {"com", "net",   "org",  "io",
                                                              "de",  "co.uk", "info", "fr"};
    static constexpr std::array<std::string_view, 4> kUnicodeNames = {"bücher", "пример", "例え",
                                                                      "café"};
    static constexpr std::array<std::string_view, 4> kUnicodeTLDs = {"de", "рф", "jp", "fr"};
    static constexpr std::array<std::string_view, 9> kResourceTypes = {
        "script", "image", "style-sheet",  "font",    "raw",
        "media",  "popup", "svg-document", "document"};

    Options options_;
    uint64_t state_;
    uint64_t serial_ = 0;
    std::vector<ProfileRule> recent_;
};

}  // namespace stonewall
