#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace stonewall::platform {

using Work = std::function<void()>;
using Nanoseconds = std::chrono::nanoseconds;

// A queue of work items. A serial queue runs one item at a time in submission
// order; the global queues may run items concurrently; the main queue runs its
// items one at a time on the thread that runs the main loop.
class Queue {
  public:
    virtual ~Queue() = default;

    virtual const std::string& label() const = 0;

    // Submits work and returns at once.
    virtual void async(Work work) = 0;

    // Runs work on the queue and returns when it has finished. Calling this on
    // a serial queue (or the main queue) from inside that same queue can never
    // return; debug builds detect it and abort with a message naming the queue.
    virtual void sync(Work work) = 0;

    // Submits work to run once `delay` has passed.
    virtual void asyncAfter(Nanoseconds delay, Work work) = 0;

    // True when the calling thread is running an item of this queue (for the
    // main queue: the thread that runs the main loop).
    virtual bool isCurrent() const = 0;
};

enum class QueuePriority { Default, High };

// The process's queues.
class Dispatch {
  public:
    virtual ~Dispatch() = default;

    virtual Queue& mainQueue() = 0;
    virtual Queue& globalQueue(QueuePriority priority) = 0;
    virtual std::shared_ptr<Queue> createSerialQueue(const std::string& label) = 0;

    // Runs the main queue on the calling thread until stopMain() is called
    // (from any thread, also from an item of the main queue).
    virtual void runMain() = 0;
    virtual void stopMain() = 0;
};

// One-time initialisation, safe against concurrent first calls.
using OnceToken = std::once_flag;
inline void dispatchOnce(OnceToken& token, const Work& work) { std::call_once(token, work); }

}  // namespace stonewall::platform
