#include "front/GtkMainDispatch.h"

#include <glib.h>

#include <cstdio>
#include <future>
#include <mutex>
#include <vector>

namespace stonewall::browser {

namespace {

void attach(GSource* source, platform::Work work, int priority) {
    g_source_set_priority(source, priority);
    g_source_set_callback(
        source,
        +[](gpointer data) -> gboolean {
            (*static_cast<platform::Work*>(data))();
            return G_SOURCE_REMOVE;
        },
        new platform::Work(std::move(work)),
        +[](gpointer data) { delete static_cast<platform::Work*>(data); });
    g_source_attach(source, g_main_context_default());
    g_source_unref(source);
}

class MainContextQueue : public platform::Queue {
  public:
    void hold() {
        std::lock_guard lock(mutex_);
        held_ = true;
    }
    void release() {
        std::vector<platform::Work> pending;
        {
            std::lock_guard lock(mutex_);
            held_ = false;
            pending.swap(pending_);
        }
        for (auto& work : pending) attachIdle(std::move(work));
    }

    const std::string& label() const override { return label_; }
    // An idle source rather than g_main_context_invoke, which would run the
    // work at once when called on the main thread: async must not. At idle
    // priority, below GTK's layout and paint: a frame that is due is drawn
    // before queued work, so a popover shows at once and what its views ask
    // the engine (the website buttons read the profile's lists) follows in
    // the next frame, rather than the other way round.
    void async(platform::Work work) override {
        {
            std::lock_guard lock(mutex_);
            if (held_) {
                pending_.push_back(std::move(work));
                return;
            }
        }
        attachIdle(std::move(work));
    }
    void sync(platform::Work work) override {
        if (isCurrent()) {
            std::fputs(
                "stonewall-browser: sync onto the main queue from the main queue; "
                "running the work in place\n",
                stderr);
            work();
            return;
        }
        std::promise<void> done;
        async([&] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }
    void asyncAfter(platform::Nanoseconds delay, platform::Work work) override {
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(delay).count();
        attach(g_timeout_source_new(static_cast<guint>(ms < 0 ? 0 : ms)), std::move(work),
               G_PRIORITY_DEFAULT);
    }
    bool isCurrent() const override { return g_main_context_is_owner(g_main_context_default()); }

  private:
    static void attachIdle(platform::Work work) {
        attach(g_idle_source_new(), std::move(work), G_PRIORITY_DEFAULT_IDLE);
    }

    std::string label_ = "com.apple.main-thread";
    std::mutex mutex_;
    bool held_ = false;
    std::vector<platform::Work> pending_;
};

}  // namespace

struct GtkMainDispatch::Loop {
    GMainLoop* loop = g_main_loop_new(g_main_context_default(), FALSE);
    ~Loop() { g_main_loop_unref(loop); }
};

GtkMainDispatch::GtkMainDispatch(std::shared_ptr<platform::Dispatch> workers)
    : workers_(std::move(workers)), main_(new MainContextQueue()), loop_(new Loop()) {}

GtkMainDispatch::~GtkMainDispatch() = default;

platform::Queue& GtkMainDispatch::mainQueue() { return *main_; }

platform::Queue& GtkMainDispatch::globalQueue(platform::QueuePriority priority) {
    return workers_->globalQueue(priority);
}

std::shared_ptr<platform::Queue> GtkMainDispatch::createSerialQueue(const std::string& label) {
    return workers_->createSerialQueue(label);
}

void GtkMainDispatch::runMain() { g_main_loop_run(loop_->loop); }

void GtkMainDispatch::stopMain() { g_main_loop_quit(loop_->loop); }

void GtkMainDispatch::holdMainQueue() { static_cast<MainContextQueue&>(*main_).hold(); }

void GtkMainDispatch::releaseMainQueue() { static_cast<MainContextQueue&>(*main_).release(); }

}  // namespace stonewall::browser
