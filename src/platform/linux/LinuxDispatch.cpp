#include "platform/linux/LinuxDispatch.h"

#include <glib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace stonewall::platform::gnulinux {

namespace {

// Identity of a queue for the "which queues does this thread hold" check.
struct QueueCore {
    explicit QueueCore(std::string label) : label(std::move(label)) {}
    const std::string label;
};

// The queues the calling thread holds: the ones whose items it runs, plus
// those of the sync() chain that led here (sync runs work on the caller's
// thread, so a chain stays on one thread).
thread_local std::vector<const QueueCore*> tHeld;

class HeldScope {
  public:
    explicit HeldScope(const QueueCore* core) : mark_(tHeld.size()) { tHeld.push_back(core); }
    ~HeldScope() { tHeld.resize(mark_); }
    HeldScope(const HeldScope&) = delete;
    HeldScope& operator=(const HeldScope&) = delete;

  private:
    std::size_t mark_;
};

bool holds(const QueueCore* core) {
    return std::find(tHeld.begin(), tHeld.end(), core) != tHeld.end();
}

// The deadlock that sync() detects. Debug builds stop at the mistake;
// release builds say so and do the work on the calling thread rather than
// hang the process for good.
void reportSelfSync(const std::string& label) {
#ifdef NDEBUG
    std::fprintf(stderr,
                 "stonewall: sync onto the queue '%s' from inside that queue can never return; "
                 "running the work on the calling thread instead\n",
                 label.c_str());
#else
    std::fprintf(stderr,
                 "stonewall: sync onto the queue '%s' from inside that queue can never return\n",
                 label.c_str());
    std::fflush(stderr);
    std::abort();
#endif
}

void joinOrDetach(std::thread& thread) {
    if (!thread.joinable()) return;
    // The last owner may go away on the thread itself (an item dropping the
    // final reference); it then finishes on its own.
    if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();
    } else {
        thread.join();
    }
}

// A handshake that lets sync() run its work on the calling thread while the
// queue's own runner waits at the point the work was submitted, so the work
// keeps its place in the queue's order.
struct SyncTicket {
    std::mutex mutex;
    std::condition_variable changed;
    bool turn = false;
    bool done = false;

    // Runs on the queue's runner: hand the queue over, wait for it back.
    void handOver() {
        std::unique_lock lock(mutex);
        turn = true;
        changed.notify_all();
        changed.wait(lock, [&] { return done; });
    }
    void waitForTurn() {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return turn; });
    }
    void finish() {
        std::lock_guard lock(mutex);
        done = true;
        changed.notify_all();
    }
};

// --- Timer ---------------------------------------------------------------------

// One thread that holds delayed items and submits each to its queue when due.
class Timer {
  public:
    using Clock = std::chrono::steady_clock;

    Timer() : thread_([this] { loop(); }) {}
    ~Timer() { shutDown(); }

    // Ends the thread and drops what never fell due; later items are dropped.
    void shutDown() {
        std::multimap<Clock::time_point, std::function<void()>> dropped;
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            dropped.swap(entries_);
        }
        changed_.notify_all();
        joinOrDetach(thread_);
        // `dropped` goes here, outside the lock: its captures may own queues.
    }

    void schedule(Nanoseconds delay, std::function<void()> submit) {
        const auto due = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                            std::max(delay, Nanoseconds{0}));
        {
            std::lock_guard lock(mutex_);
            if (stopping_) return;
            // Equal due times keep submission order: multimap inserts after
            // the equal ones.
            entries_.emplace(due, std::move(submit));
        }
        changed_.notify_all();
    }

  private:
    void loop() {
        std::unique_lock lock(mutex_);
        while (!stopping_) {
            if (entries_.empty()) {
                changed_.wait(lock);
                continue;
            }
            const auto due = entries_.begin()->first;
            if (Clock::now() < due) {
                changed_.wait_until(lock, due);
                continue;
            }
            std::function<void()> submit = std::move(entries_.begin()->second);
            entries_.erase(entries_.begin());
            lock.unlock();
            submit();
            submit = nullptr;
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::multimap<Clock::time_point, std::function<void()>> entries_;
    bool stopping_ = false;
    std::thread thread_;  // last: starts once the members above exist
};

// --- Global queues ---------------------------------------------------------------

class ThreadPool {
  public:
    ThreadPool(const QueueCore* core, unsigned size) : core_(core) {
        for (unsigned i = 0; i < size; ++i) threads_.emplace_back([this] { loop(); });
    }
    ~ThreadPool() {
        std::deque<Work> dropped;
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            dropped.swap(items_);
        }
        changed_.notify_all();
        for (auto& thread : threads_) joinOrDetach(thread);
    }

    void submit(Work work) {
        {
            std::lock_guard lock(mutex_);
            if (stopping_) return;
            items_.push_back(std::move(work));
        }
        changed_.notify_one();
    }

  private:
    void loop() {
        std::unique_lock lock(mutex_);
        for (;;) {
            changed_.wait(lock, [&] { return stopping_ || !items_.empty(); });
            if (stopping_) return;
            Work work = std::move(items_.front());
            items_.pop_front();
            lock.unlock();
            {
                HeldScope held(core_);
                if (work) work();
                work = nullptr;
            }
            lock.lock();
        }
    }

    const QueueCore* core_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Work> items_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

class GlobalQueue : public Queue {
  public:
    GlobalQueue(std::string label, unsigned size, std::shared_ptr<Timer> timer)
        : core_(std::move(label)),
          pool_(std::make_shared<ThreadPool>(&core_, size)),
          timer_(std::move(timer)) {}

    const std::string& label() const override { return core_.label; }
    void async(Work work) override { pool_->submit(std::move(work)); }
    void asyncAfter(Nanoseconds delay, Work work) override {
        timer_->schedule(
            delay, [pool = std::weak_ptr<ThreadPool>(pool_), work = std::move(work)]() mutable {
                if (auto alive = pool.lock()) alive->submit(std::move(work));
            });
    }
    // Concurrent queues need no pool thread to run synchronous work.
    void sync(Work work) override {
        HeldScope held(&core_);
        if (work) work();
    }
    bool isCurrent() const override { return holds(&core_); }

    // Stops the pool before the timer that feeds it goes.
    void shutDown() { pool_.reset(); }

  private:
    QueueCore core_;
    std::shared_ptr<ThreadPool> pool_;
    std::shared_ptr<Timer> timer_;
};

// --- Serial queues -----------------------------------------------------------------

struct SerialState {
    explicit SerialState(std::string label) : core(std::move(label)) {}

    QueueCore core;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Work> items;
    bool closing = false;

    void push(Work work) {
        {
            std::lock_guard lock(mutex);
            items.push_back(std::move(work));
        }
        changed.notify_one();
    }

    // The worker: items in order until the queue is closed and empty.
    void run() {
        std::unique_lock lock(mutex);
        for (;;) {
            changed.wait(lock, [&] { return closing || !items.empty(); });
            if (items.empty()) return;
            Work work = std::move(items.front());
            items.pop_front();
            lock.unlock();
            {
                HeldScope held(&core);
                if (work) work();
                work = nullptr;
            }
            lock.lock();
        }
    }
};

class SerialQueue : public Queue, public std::enable_shared_from_this<SerialQueue> {
  public:
    SerialQueue(const std::string& label, std::shared_ptr<Timer> timer)
        : state_(std::make_shared<SerialState>(label)),
          timer_(std::move(timer)),
          worker_([state = state_] { state->run(); }) {}

    ~SerialQueue() override {
        {
            std::lock_guard lock(state_->mutex);
            state_->closing = true;
        }
        state_->changed.notify_all();
        // Items already submitted still run before the worker ends.
        joinOrDetach(worker_);
    }

    const std::string& label() const override { return state_->core.label; }
    void async(Work work) override { state_->push(std::move(work)); }
    void asyncAfter(Nanoseconds delay, Work work) override {
        // A pending delayed item keeps its queue alive, as queued work does.
        timer_->schedule(delay, [self = shared_from_this(), work = std::move(work)]() mutable {
            self->async(std::move(work));
        });
    }
    void sync(Work work) override {
        if (holds(&state_->core)) {
            reportSelfSync(state_->core.label);
            HeldScope held(&state_->core);
            if (work) work();
            return;
        }
        auto ticket = std::make_shared<SyncTicket>();
        state_->push([ticket] { ticket->handOver(); });
        ticket->waitForTurn();
        {
            HeldScope held(&state_->core);
            if (work) work();
        }
        ticket->finish();
    }
    bool isCurrent() const override { return holds(&state_->core); }

  private:
    std::shared_ptr<SerialState> state_;
    std::shared_ptr<Timer> timer_;
    std::thread worker_;
};

// --- Main queue ----------------------------------------------------------------------

struct MainState {
    MainState() : core("com.apple.main-thread"), context(g_main_context_new()) {}
    ~MainState() {
        close();
        g_main_context_unref(context);
    }

    QueueCore core;
    GMainContext* context;
    std::atomic<std::thread::id> thread{std::this_thread::get_id()};
    std::atomic<bool> stopRequested{false};

    std::mutex mutex;
    std::deque<Work> items;
    GSource* scheduled = nullptr;  // the source that drains `items`, if any
    bool closed = false;

    bool onMainThread() const { return std::this_thread::get_id() == thread.load(); }

    void push(Work work) {
        std::lock_guard lock(mutex);
        if (closed) return;
        items.push_back(std::move(work));
        if (scheduled) return;
        // One source drains the whole FIFO, an item per loop iteration, so
        // stopMain() between two items leaves the rest for the next run.
        GSource* source = g_idle_source_new();
        g_source_set_priority(source, G_PRIORITY_DEFAULT);
        // A plain pointer: close() takes the source away before the state
        // goes, and a pointer handed through GLib stays invisible to
        // ThreadSanitizer where a shared_ptr object would not.
        g_source_set_callback(source, &MainState::drainOne, this, nullptr);
        g_source_attach(source, context);
        scheduled = source;
    }

    // Drops what waits and the source that points at this state; later
    // items are dropped too.
    void close() {
        GSource* source = nullptr;
        std::deque<Work> dropped;
        {
            std::lock_guard lock(mutex);
            closed = true;
            source = std::exchange(scheduled, nullptr);
            dropped.swap(items);
        }
        if (source) {
            g_source_destroy(source);
            g_source_unref(source);
        }
    }

    static gboolean drainOne(gpointer data) {
        MainState& state = *static_cast<MainState*>(data);
        Work work;
        {
            std::lock_guard lock(state.mutex);
            if (state.items.empty()) {
                state.unschedule();
                return G_SOURCE_REMOVE;
            }
            work = std::move(state.items.front());
            state.items.pop_front();
        }
        {
            HeldScope held(&state.core);
            if (work) work();
            work = nullptr;
        }
        std::lock_guard lock(state.mutex);
        if (state.items.empty()) {
            state.unschedule();
            return G_SOURCE_REMOVE;
        }
        return G_SOURCE_CONTINUE;
    }

    // Called with the mutex held, from the source's own callback.
    void unschedule() {
        if (scheduled) g_source_unref(std::exchange(scheduled, nullptr));
    }
};

class MainQueue : public Queue {
  public:
    MainQueue(std::shared_ptr<MainState> state, std::shared_ptr<Timer> timer)
        : state_(std::move(state)), timer_(std::move(timer)) {}

    const std::string& label() const override { return state_->core.label; }
    void async(Work work) override { state_->push(std::move(work)); }
    void asyncAfter(Nanoseconds delay, Work work) override {
        timer_->schedule(delay, [state = state_, work = std::move(work)]() mutable {
            state->push(std::move(work));
        });
    }
    void sync(Work work) override {
        if (isCurrent()) {
            reportSelfSync(state_->core.label);
            HeldScope held(&state_->core);
            if (work) work();
            return;
        }
        auto ticket = std::make_shared<SyncTicket>();
        async([ticket] { ticket->handOver(); });
        ticket->waitForTurn();
        {
            HeldScope held(&state_->core);
            if (work) work();
        }
        ticket->finish();
    }
    // The main thread holds the main queue whether or not the loop runs: a
    // sync() onto it from there could never return either way.
    bool isCurrent() const override { return state_->onMainThread() || holds(&state_->core); }

  private:
    std::shared_ptr<MainState> state_;
    std::shared_ptr<Timer> timer_;
};

}  // namespace

struct LinuxDispatch::Impl {
    std::shared_ptr<Timer> timer = std::make_shared<Timer>();
    std::shared_ptr<MainState> main = std::make_shared<MainState>();
    MainQueue mainQueue{main, timer};
    GlobalQueue defaultQueue{"com.apple.root.default-qos", LinuxDispatch::poolSize(), timer};
    GlobalQueue highQueue{"com.apple.root.user-initiated-qos", LinuxDispatch::poolSize(), timer};
};

LinuxDispatch::LinuxDispatch() : impl_(std::make_unique<Impl>()) {}

LinuxDispatch::~LinuxDispatch() {
    // Pools first: their items may still schedule on the timer. Serial
    // queues that outlive us keep the timer object, but it no longer runs.
    impl_->highQueue.shutDown();
    impl_->defaultQueue.shutDown();
    impl_->timer->shutDown();
    impl_->main->close();
}

unsigned LinuxDispatch::poolSize() {
    return std::max(2u, std::min(8u, std::thread::hardware_concurrency()));
}

Queue& LinuxDispatch::mainQueue() { return impl_->mainQueue; }

Queue& LinuxDispatch::globalQueue(QueuePriority priority) {
    return priority == QueuePriority::High ? impl_->highQueue : impl_->defaultQueue;
}

std::shared_ptr<Queue> LinuxDispatch::createSerialQueue(const std::string& label) {
    return std::make_shared<SerialQueue>(label, impl_->timer);
}

void LinuxDispatch::runMain() {
    MainState& main = *impl_->main;
    main.thread.store(std::this_thread::get_id());
    g_main_context_push_thread_default(main.context);
    while (!main.stopRequested.load()) g_main_context_iteration(main.context, TRUE);
    // A stop asked for before the loop ran ends this run at once; either way
    // it is used up, so the next runMain() runs again.
    main.stopRequested.store(false);
    g_main_context_pop_thread_default(main.context);
}

void LinuxDispatch::stopMain() {
    impl_->main->stopRequested.store(true);
    g_main_context_wakeup(impl_->main->context);
}

}  // namespace stonewall::platform::gnulinux
