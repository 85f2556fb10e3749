#pragma once

#include <memory>
#include <string>

#include "platform/Dispatch.h"

namespace stonewall::platform::gnulinux {

// Dispatch on real threads.
// - The main queue is a GLib main context of its own, run by runMain() on
//   the calling thread (which then is the main thread; before the first
//   runMain() it is the thread that made the object). Its items run one at a
//   time in submission order.
// - The two global queues are thread pools (at least two threads each);
//   sync() onto them runs the work on the calling thread, as no pool thread
//   is needed for it and a full pool cannot starve it.
// - Every serial queue has one worker thread of its own, so a sync() onto it
//   from a pool thread never waits for a free pool thread.
// - Delayed items wait on one timer thread and are then submitted to their
//   queue.
// A sync() onto a serial queue or the main queue from a thread that already
// holds that queue (runs one of its items, or waits in sync() for a chain
// that started in it) can never return. Debug builds abort with a message
// naming the queue; release builds write that message to stderr and run the
// work on the calling thread instead of hanging.
// Work still waiting when the object is destroyed is dropped; serial queues
// that outlive it keep running their own items.
class LinuxDispatch : public Dispatch {
  public:
    LinuxDispatch();
    ~LinuxDispatch() override;
    LinuxDispatch(const LinuxDispatch&) = delete;
    LinuxDispatch& operator=(const LinuxDispatch&) = delete;

    Queue& mainQueue() override;
    Queue& globalQueue(QueuePriority priority) override;
    std::shared_ptr<Queue> createSerialQueue(const std::string& label) override;
    void runMain() override;
    void stopMain() override;

    // Threads of each global pool.
    static unsigned poolSize();

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace stonewall::platform::gnulinux
