// The browser's main queue: work held while the popover opens runs after the
// release, in the order it was posted, from whichever thread posted it.

#include <glib.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "front/GtkMainDispatch.h"

namespace stonewall::browser {
namespace {

void runPending() {
    while (g_main_context_iteration(nullptr, /*may_block=*/FALSE)) {
    }
}

TEST(GtkMainDispatchTest, HeldWorkRunsAfterTheReleaseInPostedOrder) {
    GtkMainDispatch dispatch(nullptr);
    std::vector<std::string> ran;
    platform::Queue& main = dispatch.mainQueue();

    main.async([&] { ran.push_back("before"); });
    dispatch.holdMainQueue();
    main.async([&] { ran.push_back("held 1"); });
    std::thread([&] { main.async([&] { ran.push_back("held 2 from a worker"); }); }).join();
    bool timerRan = false;
    main.asyncAfter(std::chrono::milliseconds(0), [&] { timerRan = true; });
    runPending();
    // Posted before the hold, and timers (a row's flash), are not held.
    EXPECT_EQ(ran, (std::vector<std::string>{"before"}));
    EXPECT_TRUE(timerRan);

    dispatch.releaseMainQueue();
    main.async([&] { ran.push_back("after"); });
    runPending();
    EXPECT_EQ(ran, (std::vector<std::string>{"before", "held 1", "held 2 from a worker", "after"}));
}

}  // namespace
}  // namespace stonewall::browser
