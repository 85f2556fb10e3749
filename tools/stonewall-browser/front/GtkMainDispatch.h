#pragma once

// The browser's dispatch: the main queue is GTK's main context, so engine
// completions and view updates run on the thread that owns the widgets; the
// global and serial queues are the usual worker threads.

#include <memory>

#include "platform/Dispatch.h"

namespace stonewall::browser {

class GtkMainDispatch : public platform::Dispatch {
  public:
    explicit GtkMainDispatch(std::shared_ptr<platform::Dispatch> workers);
    ~GtkMainDispatch() override;

    platform::Queue& mainQueue() override;
    platform::Queue& globalQueue(platform::QueuePriority priority) override;
    std::shared_ptr<platform::Queue> createSerialQueue(const std::string& label) override;
    // GTK runs the main context; these run a nested loop for callers that
    // need one (none in the browser).
    void runMain() override;
    void stopMain() override;

    // Holds work posted to the main queue until releaseMainQueue(), which
    // posts it in order: the popover's first frame is drawn before the
    // engine reads its views ask for. Main thread; holds do not nest.
    void holdMainQueue();
    void releaseMainQueue();

  private:
    std::shared_ptr<platform::Dispatch> workers_;
    std::unique_ptr<platform::Queue> main_;
    struct Loop;
    std::unique_ptr<Loop> loop_;
};

}  // namespace stonewall::browser
