#pragma once

// Runs a dispatch's main loop on the calling thread for a test, with a
// watchdog thread that stops the loop if it is still running after `limit`,
// so a lost completion fails the test instead of hanging the suite.

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "platform/Dispatch.h"

namespace stonewall::test_support {

// True when the loop was stopped by the code under test, false when the
// watchdog had to stop it.
[[nodiscard]] inline bool runMainWithWatchdog(platform::Dispatch& dispatch,
                                              std::chrono::milliseconds limit) {
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    bool fired = false;
    std::thread watchdog([&] {
        std::unique_lock lock(mutex);
        if (!finished.wait_for(lock, limit, [&] { return done; })) {
            fired = true;
            dispatch.stopMain();
        }
    });
    dispatch.runMain();
    {
        std::lock_guard lock(mutex);
        done = true;
    }
    finished.notify_all();
    watchdog.join();
    return !fired;
}

}  // namespace stonewall::test_support
