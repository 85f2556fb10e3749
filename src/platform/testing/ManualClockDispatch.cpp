#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "platform/testing/TestPlatform.h"

namespace stonewall::platform::testing {

namespace {

// What one queue is, independent of the Queue object handed out: pending
// items keep it alive, so a serial queue may be dropped with work still in it.
enum class Order { Serial, Concurrent };
enum class Role { Main, Other };

struct QueueCore {
    QueueCore(std::string label, Order order)
        : label(std::move(label)), serial(order == Order::Serial) {}

    const std::string label;
    const bool serial;
    // Serial queues run one item at a time even when a real thread sync()s
    // while the test thread drains; recursive so that a nested runUntilIdle()
    // inside an item does not deadlock on its own queue.
    std::recursive_mutex runMutex;
};

// The queues whose items (or sync() work) the calling thread is running,
// innermost last.
thread_local std::vector<const QueueCore*> tCurrentQueues;

bool runningOnThisThread(const QueueCore* core) {
    return std::find(tCurrentQueues.begin(), tCurrentQueues.end(), core) != tCurrentQueues.end();
}

// Runs work with `core` marked current (and held, for serial queues).
void runMarked(QueueCore& core, const Work& work) {
    std::unique_lock<std::recursive_mutex> hold(core.runMutex, std::defer_lock);
    if (core.serial) hold.lock();
    tCurrentQueues.push_back(&core);
    struct Pop {
        ~Pop() { tCurrentQueues.pop_back(); }
    } pop;
    if (work) work();
}

}  // namespace

struct ManualClockDispatch::State {
    struct Item {
        std::shared_ptr<QueueCore> queue;
        Work work;
    };
    using Key = std::pair<Nanoseconds, uint64_t>;  // due time, submission number

    std::mutex mutex;
    Nanoseconds now{0};
    uint64_t nextSequence = 0;
    std::map<Key, Item> items;
    std::atomic<bool> stopRequested{false};
    const std::thread::id mainThread = std::this_thread::get_id();

    std::shared_ptr<QueueCore> mainCore =
        std::make_shared<QueueCore>("com.apple.main-thread", Order::Serial);
    std::shared_ptr<Queue> mainQueue;
    std::shared_ptr<Queue> defaultQueue;
    std::shared_ptr<Queue> highQueue;

    void submit(std::shared_ptr<QueueCore> queue, Nanoseconds delay, Work work) {
        std::lock_guard lock(mutex);
        const Nanoseconds due = now + std::max(delay, Nanoseconds{0});
        items.emplace(Key{due, nextSequence++}, Item{std::move(queue), std::move(work)});
    }

    // Takes the earliest item due by `limit`, if any.
    std::optional<Item> takeDue(Nanoseconds limit) {
        std::lock_guard lock(mutex);
        if (items.empty() || items.begin()->first.first > limit) return std::nullopt;
        Item item = std::move(items.begin()->second);
        items.erase(items.begin());
        return item;
    }

    // Runs one item due now; false when none is.
    bool runOne() {
        Nanoseconds limit;
        {
            std::lock_guard lock(mutex);
            limit = now;
        }
        std::optional<Item> item = takeDue(limit);
        if (!item) return false;
        runMarked(*item->queue, item->work);
        // The work's captures go here, outside the lock, in case they submit.
        item.reset();
        return true;
    }
};

namespace {

class ManualQueue : public Queue {
  public:
    ManualQueue(std::weak_ptr<ManualClockDispatch::State> state, std::shared_ptr<QueueCore> core,
                Role role)
        : state_(std::move(state)), core_(std::move(core)), isMain_(role == Role::Main) {}

    const std::string& label() const override { return core_->label; }

    void async(Work work) override { asyncAfter(Nanoseconds{0}, std::move(work)); }

    void asyncAfter(Nanoseconds delay, Work work) override {
        // A queue that outlives its dispatch has nobody left to run it.
        if (auto state = state_.lock()) state->submit(core_, delay, std::move(work));
    }

    void sync(Work work) override {
        if (core_->serial && isCurrent()) {
            std::fprintf(stderr,
                         "stonewall: sync onto the queue '%s' from inside that queue would "
                         "never return\n",
                         core_->label.c_str());
            std::fflush(stderr);
            std::abort();
        }
        runMarked(*core_, work);
    }

    bool isCurrent() const override {
        if (runningOnThisThread(core_.get())) return true;
        if (!isMain_) return false;
        auto state = state_.lock();
        return state && std::this_thread::get_id() == state->mainThread && tCurrentQueues.empty();
    }

  private:
    std::weak_ptr<ManualClockDispatch::State> state_;
    std::shared_ptr<QueueCore> core_;
    bool isMain_;
};

}  // namespace

ManualClockDispatch::ManualClockDispatch() : state_(std::make_shared<State>()) {
    state_->mainQueue = std::make_shared<ManualQueue>(state_, state_->mainCore, Role::Main);
    state_->defaultQueue = std::make_shared<ManualQueue>(
        state_, std::make_shared<QueueCore>("com.apple.root.default-qos", Order::Concurrent),
        Role::Other);
    state_->highQueue = std::make_shared<ManualQueue>(
        state_, std::make_shared<QueueCore>("com.apple.root.user-initiated-qos", Order::Concurrent),
        Role::Other);
}

ManualClockDispatch::~ManualClockDispatch() {
    // Work that never ran is dropped; its captures may own queues or other
    // dispatch users, so they are destroyed outside the lock.
    std::map<State::Key, State::Item> dropped;
    {
        std::lock_guard lock(state_->mutex);
        dropped.swap(state_->items);
    }
}

Queue& ManualClockDispatch::mainQueue() { return *state_->mainQueue; }

Queue& ManualClockDispatch::globalQueue(QueuePriority priority) {
    return priority == QueuePriority::High ? *state_->highQueue : *state_->defaultQueue;
}

std::shared_ptr<Queue> ManualClockDispatch::createSerialQueue(const std::string& label) {
    return std::make_shared<ManualQueue>(state_, std::make_shared<QueueCore>(label, Order::Serial),
                                         Role::Other);
}

void ManualClockDispatch::runMain() {
    while (!state_->stopRequested.load() && state_->runOne()) {
    }
    // A stop asked for before the loop ran ends this run at once; either way
    // it is used up, so the next runMain() runs again.
    state_->stopRequested.store(false);
}

void ManualClockDispatch::stopMain() { state_->stopRequested.store(true); }

std::size_t ManualClockDispatch::runUntilIdle() {
    std::size_t count = 0;
    while (state_->runOne()) ++count;
    return count;
}

std::size_t ManualClockDispatch::advanceBy(Nanoseconds delta) {
    std::size_t count = runUntilIdle();
    Nanoseconds target;
    {
        std::lock_guard lock(state_->mutex);
        target = state_->now + std::max(delta, Nanoseconds{0});
    }
    for (;;) {
        {
            std::lock_guard lock(state_->mutex);
            if (state_->items.empty() || state_->items.begin()->first.first > target) {
                state_->now = target;
                break;
            }
            state_->now = std::max(state_->now, state_->items.begin()->first.first);
        }
        count += runUntilIdle();
    }
    return count + runUntilIdle();
}

Nanoseconds ManualClockDispatch::now() const {
    std::lock_guard lock(state_->mutex);
    return state_->now;
}

std::size_t ManualClockDispatch::pendingCount() const {
    std::lock_guard lock(state_->mutex);
    return state_->items.size();
}

}  // namespace stonewall::platform::testing
