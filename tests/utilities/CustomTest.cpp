#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "utilities/Custom.h"

using namespace stonewall;

namespace {

TEST(RFC3339, ParsesTheAcceptedForms) {
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
        {"2020-05-01T10:20:30.123456789012345678901234567890123456789Z", std::nullopt},
        {"", std::nullopt},
        {"2020-05-01T10:20:30\xFFZ", std::nullopt},  // invalid UTF-8
        {std::string(1 << 20, '9'), std::nullopt},
        {"2020-05-01T10:20:30Z" + std::string(1 << 20, 'z'), std::nullopt},
        // Every colon after position 20 goes, however many there are.
        {"2020-05-01T10:20:30Z" + std::string(1 << 20, ':'), base},
    };
    for (const auto& [input, expected] : cases) {
        auto parsed = Custom::dateFromRFC3339String(input);
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
    struct Case {
        double timestamp, offset;
        bool passed;
    };
    const Case cases[] = {
        {990, 10, false},  // timestamp + offset == now: not passed
        {989.5, 10, true},  {995, 10, false},  {1000, 0, false},  {999.999, 0, true},
        {1010, -10, false}, {1009, -10, true}, {-1e300, 0, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Custom::checkTimestampPassed(c.timestamp, c.offset), c.passed)
            << c.timestamp << " + " << c.offset;
    }
    EXPECT_EQ(Custom::currentTimestamp(), 1000.0);
    Custom::setClockForTesting({});
    EXPECT_GT(Custom::currentTimestamp(), 1.6e9);
}

}  // namespace
