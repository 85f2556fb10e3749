#include "platform/linux/GLibThread.h"

#include <pthread.h>

#include <deque>
#include <future>
#include <mutex>
#include <utility>

namespace stonewall::platform::gnulinux {

struct GLibThread::Inbox {
    std::mutex mutex;
    std::deque<std::function<void()>> items;

    // One source per item; whichever fires takes the oldest item, so the
    // order is the order of invoke().
    static gboolean runOne(gpointer data) {
        Inbox& inbox = *static_cast<Inbox*>(data);
        std::function<void()> work;
        {
            std::lock_guard lock(inbox.mutex);
            if (inbox.items.empty()) return G_SOURCE_REMOVE;
            work = std::move(inbox.items.front());
            inbox.items.pop_front();
        }
        if (work) work();
        return G_SOURCE_REMOVE;
    }
};

GLibThread::GLibThread(std::string name)
    : inbox_(std::make_shared<Inbox>()),
      context_(g_main_context_new()),
      loop_(g_main_loop_new(context_, FALSE)) {
    std::promise<void> started;
    auto running = started.get_future();
    // The thread keeps references of its own: when the last owner goes away
    // on this very thread, the thread outlives the object.
    // The inbox too: sources carry a plain pointer to it (a pointer handed
    // through GLib is invisible to ThreadSanitizer, an object would not be).
    thread_ = std::thread([context = g_main_context_ref(context_), loop = g_main_loop_ref(loop_),
                           inbox = inbox_, name = std::move(name), &started] {
        // Linux limits thread names to 15 bytes.
        ::pthread_setname_np(::pthread_self(), name.substr(0, 15).c_str());
        g_main_context_push_thread_default(context);
        started.set_value();
        g_main_loop_run(loop);
        g_main_context_pop_thread_default(context);
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    });
    // The context is ours before anyone can attach work to it.
    running.wait();
}

GLibThread::~GLibThread() {
    invoke([loop = loop_] { g_main_loop_quit(loop); });
    if (isCurrent()) {
        thread_.detach();  // cannot join ourselves; the loop ends after this item
    } else {
        thread_.join();
    }
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
}

void GLibThread::invoke(std::function<void()> work) {
    {
        std::lock_guard lock(inbox_->mutex);
        inbox_->items.push_back(std::move(work));
    }
    GSource* source = g_idle_source_new();
    g_source_set_priority(source, G_PRIORITY_DEFAULT);
    // Only the loop thread dispatches the source, and it owns the inbox
    // until its loop has ended.
    g_source_set_callback(source, &Inbox::runOne, inbox_.get(), nullptr);
    g_source_attach(source, context_);
    g_source_unref(source);
}

}  // namespace stonewall::platform::gnulinux
