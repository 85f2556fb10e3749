#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "utilities/Custom.h"

using namespace stonewall;

namespace {

TEST(RFC3339, ParsesTheAcceptedForms) {
    const double base = 1588328430;  // 2020-05-01T10:20:30Z
    const std::pair<const char*, std::optional<double>> cases[] = {
        {"2020-05-01T10:20:30Z", base},
        {"2020-05-01t10:20:30z", base},
        {"2020-05-01T10:20:30+02:00", base - 7200},
        {"2020-05-01T10:20:30.250-0700", base + 7 * 3600 + 0.25},
        {"2020-05-01T10:20:30", base},
        {"2020-05-01", std::nullopt},
        {"2020-05-01T10:20:30Zjunk", std::nullopt},
        {"garbage", std::nullopt},
        {"2020-05-01T10:20:30.123456789012345678901234567890123456789Z", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [input, expected] : cases) {
        auto parsed = Custom::dateFromRFC3339String(std::string(input));
        ASSERT_EQ(parsed.has_value(), expected.has_value()) << input;
        if (expected) {
            EXPECT_DOUBLE_EQ(*parsed, *expected) << input;
        }
    }
    EXPECT_EQ(Custom::dateFromRFC3339String(std::nullopt), std::nullopt);
}

TEST(RFC3339, SharedFormatterIsSafeAcrossThreads) {
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                const char* text = (i + t) % 2 ? "2020-05-01T10:20:30Z" : "2020-05-01T10:20:30.250-0700";
                if (!Custom::dateFromRFC3339String(std::string(text))) ++failures;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures, 0);
}

TEST(Timestamps, PassedOnlyStrictlyAfter) {
    Custom::setClockForTesting([] { return 1000.0; });
    EXPECT_FALSE(Custom::checkTimestampPassed(990, 10));  // equal: not passed
    EXPECT_TRUE(Custom::checkTimestampPassed(989.5, 10));
    EXPECT_FALSE(Custom::checkTimestampPassed(995, 10));
    EXPECT_EQ(Custom::currentTimestamp(), 1000.0);
    Custom::setClockForTesting({});
    EXPECT_GT(Custom::currentTimestamp(), 1.6e9);
}

}  // namespace
