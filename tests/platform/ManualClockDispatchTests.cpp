#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/testing/TestPlatform.h"

namespace stonewall::platform::testing {
namespace {

using namespace std::chrono_literals;

TEST(ManualClockDispatch, RunsDueItemsOfAllQueuesInSubmissionOrderIncludingNewOnes) {
    ManualClockDispatch dispatch;
    auto serial = dispatch.createSerialQueue("com.example.serial");
    std::vector<std::string> order;
    dispatch.globalQueue(QueuePriority::Default).async([&] { order.push_back("default"); });
    dispatch.mainQueue().async([&] {
        order.push_back("main");
        // Submitted while draining: runs after what was already waiting.
        serial->async([&] { order.push_back("nested"); });
    });
    serial->async([&] { order.push_back("serial"); });
    dispatch.globalQueue(QueuePriority::High).async([&] { order.push_back("high"); });
    dispatch.mainQueue().asyncAfter(1s, [&] { order.push_back("later"); });
    EXPECT_TRUE(order.empty()) << "nothing runs until asked";
    EXPECT_EQ(dispatch.pendingCount(), 5u);

    EXPECT_EQ(dispatch.runUntilIdle(), 5u);
    EXPECT_EQ(order, (std::vector<std::string>{"default", "main", "serial", "high", "nested"}));
    EXPECT_EQ(dispatch.pendingCount(), 1u);  // the delayed one is not due yet
}

TEST(ManualClockDispatch, AdvanceRunsDelayedItemsInDueOrderAtTheirDueTime) {
    using Submissions = std::vector<std::pair<Nanoseconds, std::string>>;
    using Order = std::vector<std::string>;
    // Due order beats submission order; the same due time keeps submission
    // order; the boundary is inclusive; zero and negative delays are due now.
    const std::tuple<Submissions, Nanoseconds, Order> cases[] = {
        {{{3s, "c"}, {1s, "a"}, {2s, "b"}}, 5s, {"a", "b", "c"}},
        {{{2s, "x"}, {2s, "y"}, {2s, "z"}}, 2s, {"x", "y", "z"}},
        {{{2s, "due"}, {2s + 1ns, "late"}}, 2s, {"due"}},
        {{{0s, "zero"}, {-5s, "negative"}}, 0s, {"zero", "negative"}}};
    for (const auto& [submissions, advance, expected] : cases) {
        ManualClockDispatch dispatch;
        Order order;
        for (const auto& [delay, label] : submissions) {
            dispatch.mainQueue().asyncAfter(delay, [&, label = label, delay = delay] {
                order.push_back(label);
                EXPECT_GE(dispatch.now(), delay);
            });
        }
        dispatch.advanceBy(advance);
        EXPECT_EQ(order, expected);
        EXPECT_EQ(dispatch.now(), advance);
    }
}

TEST(ManualClockDispatch, DelayedItemsSubmittedByDelayedItemsRunWithinTheSameAdvance) {
    ManualClockDispatch dispatch;
    std::vector<Nanoseconds> times;
    dispatch.mainQueue().asyncAfter(1s, [&] {
        times.push_back(dispatch.now());
        dispatch.globalQueue(QueuePriority::High).asyncAfter(1s, [&] {
            times.push_back(dispatch.now());
            dispatch.mainQueue().asyncAfter(5s, [&] { times.push_back(dispatch.now()); });
        });
    });
    EXPECT_EQ(dispatch.advanceBy(3s), 2u);
    EXPECT_EQ(times, (std::vector<Nanoseconds>{1s, 2s}));
    EXPECT_EQ(dispatch.now(), 3s);
    EXPECT_EQ(dispatch.pendingCount(), 1u);
    EXPECT_EQ(dispatch.advanceBy(4s), 1u);
    EXPECT_EQ(times.back(), 7s);
}

TEST(ManualClockDispatch, MainQueueIsCurrentOnTheCreatingThreadOutsideOtherQueues) {
    ManualClockDispatch dispatch;
    auto serial = dispatch.createSerialQueue("com.example.serial");
    auto other = dispatch.createSerialQueue("com.example.other");
    Queue& main = dispatch.mainQueue();
    Queue& global = dispatch.globalQueue(QueuePriority::Default);
    std::vector<bool> seen;  // main, serial, other, global as each item sees them
    auto look = [&] {
        for (Queue* queue : {&main, serial.get(), other.get(), &global})
            seen.push_back(queue->isCurrent());
    };
    look();
    serial->async([&] {
        look();
        other->sync(look);  // sync onto another queue from an item is allowed
    });
    global.async(look);
    main.async(look);
    dispatch.runUntilIdle();
    EXPECT_EQ(seen, (std::vector<bool>{true,  false, false, false,  //
                                       false, true,  false, false,  //
                                       false, true,  true,  false,  //
                                       false, false, false, true,   //
                                       true,  false, false, false}));
    bool mainOnOtherThread = true;
    std::thread([&] { mainOnOtherThread = main.isCurrent(); }).join();
    EXPECT_FALSE(mainOnOtherThread);
}

// Production code, but the doubles are how a test installs services.
TEST(PlatformRegistryDeathTest, UsingAServiceThatIsNotInstalledAbortsNamingIt) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH((void)platform::contentBlocker(), "contentBlocker");
}

}  // namespace
}  // namespace stonewall::platform::testing
