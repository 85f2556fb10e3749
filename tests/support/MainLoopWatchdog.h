#pragma once

// Runs a dispatch's main loop on the calling thread for a test, stopping it
// if it is still running after `limit`, so that a lost completion fails the
// test instead of hanging the suite.

#include <atomic>
#include <chrono>
#include <memory>

#include "platform/Dispatch.h"

namespace stonewall::test_support {

// True when the loop was stopped by the code under test, false when the
// watchdog had to stop it. A watchdog left over from an earlier run finds
// its run over and does nothing.
[[nodiscard]] inline bool runMainWithWatchdog(platform::Dispatch& dispatch,
                                              std::chrono::milliseconds limit) {
    struct Run {
        std::atomic<bool> over{false}, fired{false};
    };
    const auto run = std::make_shared<Run>();
    dispatch.mainQueue().asyncAfter(limit, [&dispatch, run] {
        if (run->over) return;
        run->fired = true;
        dispatch.stopMain();
    });
    dispatch.runMain();
    run->over = true;
    return !run->fired;
}

}  // namespace stonewall::test_support
