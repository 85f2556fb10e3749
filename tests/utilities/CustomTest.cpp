#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "utilities/Custom.h"
#include "utilities/Generator.h"

using namespace stonewall;

namespace {

TEST(RFC3339, ParseTable) {
    const double base = 1588328430;  // 2020-05-01T10:20:30Z
    const std::pair<std::string, std::optional<double>> cases[] = {
        {"2020-05-01T10:20:30Z", base},
        {"2020-05-01t10:20:30z", base},
        {"2020-05-01T10:20:30+02:00", base - 7200},
        {"2020-05-01T10:20:30.250-0700", base + 7 * 3600 + 0.25},
        {"2020-05-01T10:20:30", base},  // no zone: read as UTC
        {"2020-05-01T10:20:30-00:00", base},
        {"2020-05-01T10:20:30+0530", base - 19800},
        {"2020-05-01T10:20:30.250z", base + 0.25},
        {"2020-05-01T10:20:30.25Z", base + 0.25},
        {"2020-05-01T10:20:30.1234567Z", base + 0.123},  // milliseconds are kept
        {"1969-12-31T23:59:59Z", -1},
        {"2020-05-01", std::nullopt},
        {"2020-05-01T10:20:30.250", std::nullopt},  // a fraction needs a zone
        {"2020-05-01T10:20", std::nullopt},
        {"2020-5-1T10:20:30Z", std::nullopt},
        // Not lenient: no day 30 in February, no hour 24, no second 60.
        {"2020-02-30T10:20:30Z", std::nullopt},
        {"2020-05-01T24:00:00Z", std::nullopt},
        {"2020-05-01T10:20:60Z", std::nullopt},
        {"2020-05-01T10:20:30+99:99", std::nullopt},
        {"2020-05-01T10:20:30Z ", std::nullopt},  // the whole text must be used
        {"2020-05-01T10:20:30Zjunk", std::nullopt},
        {"garbage", std::nullopt},
        // ICU divides by zero on a 40-digit fraction: refused before it parses.
        {"2020-05-01T10:20:30.123456789012345678901234567890123456789Z", std::nullopt},
        {"", std::nullopt},
        {"2020-05-01T10:20:30\xFFZ", std::nullopt},
        {std::string(1 << 20, '9'), std::nullopt},
        {"2020-05-01T10:20:30Z" + std::string(1 << 20, 'z'), std::nullopt},
        // Every colon after position 20 goes, however many there are.
        {"2020-05-01T10:20:30Z" + std::string(1 << 20, ':'), base},
    };
    for (const auto& [input, expected] : cases) {
        const auto parsed = Custom::dateFromRFC3339String(input);
        ASSERT_EQ(parsed.has_value(), expected.has_value()) << input.substr(0, 40);
        if (expected) {
            EXPECT_NEAR(*parsed, *expected, 1e-6) << input;
        }
    }
    EXPECT_EQ(Custom::dateFromRFC3339String(std::nullopt), std::nullopt);
}

TEST(RFC3339, SharedFormatterIsSafeAcrossThreads) {
    // Each text needs a different pattern, and the patterns are switched on
    // the one shared formatter: without its lock a thread would parse with
    // another thread's pattern and get a wrong date or none.
    const std::pair<std::string, std::optional<double>> texts[] = {
        {"2020-05-01T10:20:30Z", 1588328430},
        {"2020-05-01T10:20:30.250-0700", 1588353630.25},
        {"2020-05-01T10:20:30", 1588328430},
        {"2020-05-01", std::nullopt},
    };
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) {
                const auto& [text, expected] = texts[(i + t) % 4];
                if (Custom::dateFromRFC3339String(text) != expected) ++wrong;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
}

TEST(Timestamps, PassedOnlyStrictlyAfter) {
    Custom::setClockForTesting([] { return 1000.0; });
    const std::tuple<double, double, bool> cases[] = {
        {990, 10, false},  // timestamp + offset == now: not passed
        {989.5, 10, true},  {995, 10, false},  {1000, 0, false},  {999.999, 0, true},
        {1010, -10, false}, {1009, -10, true}, {-1e300, 0, true},
    };
    for (const auto& [timestamp, offset, passed] : cases)
        EXPECT_EQ(Custom::checkTimestampPassed(timestamp, offset), passed) << timestamp;
    Custom::setClockForTesting({});
}

bool isLowerHex(const std::string& s) {
    return s.find_first_not_of("0123456789abcdef") == std::string::npos;
}

TEST(Generator, WebsiteListIdentifiersAreTheSHA1OfListAndProfile) {
    // SHA-1 of "CustomRule.<list name>.<profile>", in full: the identifiers
    // that the application computes for the same lists.
    const std::tuple<int64_t, NullableString, const char*> cases[] = {
        {7, "defaultProfile", "ff657eb1f34d6dee70cdc68847fb294db020c4c0"},  // SecureWebsites
        {5, "defaultProfile", "c7b9281159cf4048e72b802cacb089fd5c48e4d4"},  // BlockWebsites
        {3, "defaultProfile", "007fe967329adfc8159d4a231cf7bb40ff0593bc"},  // WhitelistWebsites
        {5, "bücher", "95149d66d154c9dfa9a528627df89a1ce6a81ddf"},          // UTF-8 in
    };
    for (const auto& [type, profile, digest] : cases)
        EXPECT_EQ(Generator::customRuleID(type, profile), digest) << type;
    // A null profile formats like the text "(null)".
    EXPECT_EQ(Generator::customRuleID(5, std::nullopt),
              Generator::customRuleID(5, std::string("(null)")));
}

TEST(Generator, OtherIdentifiersAreRandomEvenUnderAFixedClock) {
    std::set<std::string> seen;
    for (int64_t type : {0, 1, 2, 4, 6, 8, 100, -1}) {
        const auto id = Generator::customRuleID(type, std::string("p"));
        EXPECT_EQ(id.size(), 10u) << type;
        EXPECT_TRUE(isLowerHex(id));
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 8u);
    // With the time fixed, only the 24 random bits tell two seeds apart.
    Custom::setClockForTesting([] { return 1588328430.0; });
    seen.clear();
    for (int i = 0; i < 200; ++i) {
        seen.insert(Generator::profileID());
        seen.insert(Generator::customRuleID());
    }
    Custom::setClockForTesting({});
    EXPECT_GE(seen.size(), 398u);  // a 24-bit collision or two is possible, not more
}

}  // namespace
