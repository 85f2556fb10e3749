#pragma once

// Internal to platform/linux: a thread that runs a GLib main loop on a
// context of its own (its thread-default context), for the services whose
// library calls must stay on one thread and whose async callbacks come back
// on the context that was thread-default when the call was made.

#include <glib.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace stonewall::platform::gnulinux {

class GLibThread {
  public:
    explicit GLibThread(std::string name);
    // Quits the loop and joins; work not yet run is dropped.
    ~GLibThread();
    GLibThread(const GLibThread&) = delete;
    GLibThread& operator=(const GLibThread&) = delete;

    // Runs work on the thread, after the work submitted before it.
    void invoke(std::function<void()> work);
    bool isCurrent() const { return std::this_thread::get_id() == thread_.get_id(); }
    GMainContext* context() const { return context_; }

    struct Inbox;

  private:
    // Work goes through a queue of ours rather than through GLib alone, so
    // that the hand-over between threads is visible to ThreadSanitizer
    // (GLib itself is not instrumented).
    std::shared_ptr<Inbox> inbox_;
    GMainContext* context_;
    GMainLoop* loop_;
    std::thread thread_;
};

}  // namespace stonewall::platform::gnulinux
