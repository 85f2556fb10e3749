#pragma once

// The front's toolkit on GTK 4 with libadwaita: builds the popover's views,
// loads the image resources (each file once), runs animation groups and
// answers the appearance, following the desktop's colour scheme through
// libadwaita's style manager.
//
// Made and used on the main thread; isDarkAppearance and the other answers
// may be read from any thread.

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "extension/platform/Toolkit.h"
#include "front/GtkPopoverView.h"

namespace stonewall::browser {

class GtkToolkit : public Toolkit {
  public:
    // `resources`: the folder of the SVG images.
    explicit GtkToolkit(std::string resources);
    ~GtkToolkit() override;

    std::shared_ptr<PopoverView> loadPopoverView() override;
    std::shared_ptr<NSImage> imageNamed(const std::string& name) override;
    void runAnimationGroup(double duration, const std::function<void()>& changes,
                           std::function<void()> completion) override;
    bool isDarkAppearance() const override { return dark_; }
    LayoutDirection userInterfaceLayoutDirection() const override;
    std::string preferredLocalization() const override;
    // GTK's Tab reaches every focusable control.
    bool fullKeyboardAccessEnabled() const override { return true; }

    // The view tree loadPopoverView made; null before.
    const std::shared_ptr<GtkPopoverView>& popoverView() const { return popover_; }

  private:
    static void onDarkChanged(GObject* styleManager, GParamSpec*, GtkToolkit* self);

    std::string resources_;
    std::atomic<bool> dark_{false};
    gulong darkHandler_ = 0;
    gulong contrastHandler_ = 0;
    std::shared_ptr<GtkPopoverView> popover_;
    std::mutex imagesMutex_;
    std::map<std::string, std::shared_ptr<NSImage>> images_;
};

}  // namespace stonewall::browser
