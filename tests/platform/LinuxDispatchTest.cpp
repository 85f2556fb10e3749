#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "platform/linux/LinuxDispatch.h"
#include "support/MainLoopWatchdog.h"

namespace stonewall::platform::gnulinux {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kWatchdog = 10s;

void runMain(LinuxDispatch& dispatch) {
    EXPECT_TRUE(test_support::runMainWithWatchdog(dispatch, kWatchdog))
        << "the main loop was not stopped in time";
}

template <typename T>
T waitFor(std::future<T>& future) {
    if (future.wait_for(kWatchdog) != std::future_status::ready) {
        ADD_FAILURE() << "timed out";
        std::abort();  // the work still refers to this frame
    }
    return future.get();
}

TEST(LinuxDispatch, MainQueueRunsItemsInOrderOnTheLoopThreadUntilStopped) {
    LinuxDispatch dispatch;
    std::vector<int> order;  // touched on the main thread only
    bool allOnMain = true;
    for (int i = 0; i < 100; ++i) {
        dispatch.mainQueue().async([&, i] {
            order.push_back(i);
            allOnMain = allOnMain && dispatch.mainQueue().isCurrent();
        });
    }
    // Submitted from another thread while the loop runs.
    std::thread([&] { dispatch.mainQueue().async([&] { dispatch.stopMain(); }); }).join();
    dispatch.mainQueue().async([&] { order.push_back(-1); });  // after the stop
    runMain(dispatch);
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[static_cast<size_t>(i)], i);
    EXPECT_TRUE(allOnMain);

    // The item left behind runs in the next run.
    dispatch.mainQueue().async([&] { dispatch.stopMain(); });
    runMain(dispatch);
    EXPECT_EQ(order.back(), -1);

    // A sync onto main from another thread waits for the loop; a stop from
    // another thread wakes the idle loop.
    std::atomic<bool> ranOnMainQueue{false};
    std::thread worker([&] {
        std::this_thread::sleep_for(20ms);
        dispatch.mainQueue().sync([&] { ranOnMainQueue = dispatch.mainQueue().isCurrent(); });
        std::this_thread::sleep_for(20ms);
        dispatch.stopMain();
    });
    runMain(dispatch);
    worker.join();
    EXPECT_TRUE(ranOnMainQueue);
}

TEST(LinuxDispatch, DelayedItemsRunNoEarlierThanAskedAndInDueOrder) {
    LinuxDispatch dispatch;
    const auto start = Clock::now();
    std::vector<std::pair<int, Clock::duration>> ran;  // main thread only
    auto serial = dispatch.createSerialQueue("com.example.delayed");
    dispatch.mainQueue().asyncAfter(60ms, [&] {
        ran.emplace_back(3, Clock::now() - start);
        dispatch.stopMain();
    });
    dispatch.mainQueue().asyncAfter(20ms, [&] { ran.emplace_back(1, Clock::now() - start); });
    // Through other queues back to the main queue.
    dispatch.globalQueue(QueuePriority::High).asyncAfter(40ms, [&] {
        dispatch.mainQueue().async([&] { ran.emplace_back(2, Clock::now() - start); });
    });
    serial->asyncAfter(0ns, [&] {
        dispatch.mainQueue().async([&] { ran.emplace_back(0, Clock::now() - start); });
    });
    runMain(dispatch);
    ASSERT_EQ(ran.size(), 4u);
    const Clock::duration minimum[] = {0ms, 20ms, 40ms, 60ms};
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(ran[static_cast<size_t>(i)].first, i);
        EXPECT_GE(ran[static_cast<size_t>(i)].second, minimum[i]);
    }
}

TEST(LinuxDispatch, GlobalQueuesRunItemsConcurrently) {
    LinuxDispatch dispatch;
    ASSERT_GE(LinuxDispatch::poolSize(), 2u);
    for (QueuePriority priority : {QueuePriority::Default, QueuePriority::High}) {
        // Two items that can only finish together prove two threads.
        std::promise<void> firstArrived, secondArrived;
        auto first = firstArrived.get_future().share();
        auto second = secondArrived.get_future().share();
        std::promise<bool> bothDone;
        auto done = bothDone.get_future();
        std::atomic<int> finished{0};
        auto finish = [&] {
            if (++finished == 2) bothDone.set_value(true);
        };
        dispatch.globalQueue(priority).async([&] {
            firstArrived.set_value();
            if (second.wait_for(kWatchdog) == std::future_status::ready) finish();
        });
        dispatch.globalQueue(priority).async([&] {
            secondArrived.set_value();
            if (first.wait_for(kWatchdog) == std::future_status::ready) finish();
        });
        EXPECT_TRUE(waitFor(done));
    }
}

TEST(LinuxDispatch, SerialQueueRunsOneItemAtATimeInSubmissionOrderAndSyncsOnTheCaller) {
    LinuxDispatch dispatch;
    auto serial = dispatch.createSerialQueue("com.example.serial");
    constexpr int kThreads = 4;
    constexpr int kItems = 500;
    std::vector<std::vector<int>> seen(kThreads);  // written on the queue only
    std::atomic<int> inside{0};
    std::atomic<bool> overlapped{false};
    std::vector<std::thread> submitters;
    for (int t = 0; t < kThreads; ++t) {
        submitters.emplace_back([&, t] {
            for (int i = 0; i < kItems; ++i) {
                serial->async([&, t, i] {
                    if (inside.fetch_add(1) != 0) overlapped = true;
                    seen[static_cast<size_t>(t)].push_back(i);
                    inside.fetch_sub(1);
                });
            }
        });
    }
    for (auto& thread : submitters) thread.join();
    // A sync runs after every item submitted before it, on the caller's
    // thread, which then holds the queue (and, having made the dispatch,
    // the main queue too).
    const auto caller = std::this_thread::get_id();
    bool onCaller = false, current = false, mainCurrent = false;
    serial->sync([&] {
        onCaller = std::this_thread::get_id() == caller;
        current = serial->isCurrent();
        mainCurrent = dispatch.mainQueue().isCurrent();
    });
    EXPECT_TRUE(onCaller && current && mainCurrent);
    EXPECT_FALSE(serial->isCurrent());
    EXPECT_FALSE(overlapped);
    for (const auto& list : seen) {
        ASSERT_EQ(list.size(), static_cast<size_t>(kItems));
        for (int i = 0; i < kItems; ++i) EXPECT_EQ(list[static_cast<size_t>(i)], i);
    }
}

TEST(LinuxDispatch, ManyPoolItemsSyncingOntoOneSerialQueueDoNotStarve) {
    LinuxDispatch dispatch;
    auto serial = dispatch.createSerialQueue("com.mapleharbor.Stonewall.SharedDataQueue");
    constexpr int kItems = 32;  // far more than pool threads
    std::atomic<int> done{0};
    std::promise<void> all;
    auto allDone = all.get_future();
    int counter = 0;  // guarded by the serial queue
    for (int i = 0; i < kItems; ++i) {
        dispatch.globalQueue(i % 2 ? QueuePriority::High : QueuePriority::Default).async([&] {
            serial->sync([&] { ++counter; });
            // A global queue's sync needs no free pool thread.
            dispatch.globalQueue(QueuePriority::Default).sync([] {});
            if (++done == kItems) all.set_value();
        });
    }
    waitFor(allDone);
    serial->sync([&] { EXPECT_EQ(counter, kItems); });
}

TEST(LinuxDispatch, DroppedSerialQueuesFinishTheirItems) {
    LinuxDispatch dispatch;
    std::atomic<int> ran{0};
    {
        auto serial = dispatch.createSerialQueue("short-lived");
        for (int i = 0; i < 20; ++i) {
            serial->async([&] {
                std::this_thread::sleep_for(100us);
                ++ran;
            });
        }
    }  // joins after the last item
    EXPECT_EQ(ran.load(), 20);

    // The last reference goes with the queue's own item, on its own thread.
    std::promise<void> finished;
    auto done = finished.get_future();
    {
        auto serial = dispatch.createSerialQueue("self-owned");
        std::promise<void> released;
        auto testLetGo = released.get_future().share();
        serial->async([serial, &finished, testLetGo] {
            testLetGo.wait();
            finished.set_value();
        });
        serial.reset();
        released.set_value();
    }
    waitFor(done);
}

TEST(LinuxDispatch, DestroyingTheDispatchDropsWaitingWork) {
    std::atomic<int> ran{0};
    std::shared_ptr<Queue> survivor;
    {
        LinuxDispatch dispatch;
        survivor = dispatch.createSerialQueue("survivor");
        dispatch.mainQueue().async([&] { ++ran; });
        dispatch.mainQueue().asyncAfter(1h, [&] { ++ran; });
        dispatch.globalQueue(QueuePriority::High).asyncAfter(1h, [&] { ++ran; });
        survivor->asyncAfter(1h, [&] { ++ran; });
    }
    EXPECT_EQ(ran.load(), 0);
    // A serial queue that outlives the dispatch still runs its own items.
    std::promise<void> ranLater;
    auto done = ranLater.get_future();
    survivor->async([&] { ranLater.set_value(); });
    waitFor(done);
}

TEST(LinuxDispatchDeathTest, SyncOntoAQueueThisThreadHoldsIsReported) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
#ifdef NDEBUG
    // Release builds report it and run the work rather than hang.
    LinuxDispatch dispatch;
    auto serial = dispatch.createSerialQueue("com.example.self");
    bool ran = false;
    serial->sync([&] { serial->sync([&] { ran = true; }); });
    EXPECT_TRUE(ran);
    ran = false;
    dispatch.mainQueue().sync([&] { ran = true; });
    EXPECT_TRUE(ran);
#else
    // A chain: first -> second -> first, on one thread, names the queue.
    EXPECT_DEATH(
        {
            LinuxDispatch dispatch;
            auto first = dispatch.createSerialQueue("chain.first");
            auto second = dispatch.createSerialQueue("chain.second");
            first->sync([&] { second->sync([&] { first->sync([] {}); }); });
        },
        "chain.first");
    EXPECT_DEATH(
        {
            LinuxDispatch dispatch;
            dispatch.mainQueue().sync([] {});  // from the main thread
        },
        "com.apple.main-thread");
#endif
}

}  // namespace
}  // namespace stonewall::platform::gnulinux
