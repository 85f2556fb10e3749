#pragma once

// The extension's toolbar button: its image with the badge over a corner,
// and the popover that shows the view tree of the extension's popover
// controller. The button is the toolbar item the extension sets (image and
// badge), tells screen readers how many loads the badge counts, and toggles
// its popover with Alt+Shift+S from inside the popover too. What the popover
// opening and closing means to the extension is the window's business: it
// is told through the handlers below.
//
// Main thread only.

#include <gtk/gtk.h>

#include <functional>
#include <memory>
#include <string>

#include "front/BrowserServices.h"
#include "front/GtkPopoverView.h"

namespace stonewall::browser {

class ExtensionToolbarButton {
  public:
    // The image comes from `resources`; the toolbar item's events and the
    // popover's "view N" go to `events`.
    ExtensionToolbarButton(const std::string& resources, EventSink events);
    ~ExtensionToolbarButton();
    ExtensionToolbarButton(const ExtensionToolbarButton&) = delete;
    ExtensionToolbarButton& operator=(const ExtensionToolbarButton&) = delete;

    // The button, for the header bar.
    GtkWidget* widget() const { return button_; }
    GtkWidget* popover() const { return popover_; }
    // Null when the extension's controller has no GTK view tree.
    GtkPopoverView* popoverView() const { return popoverView_.get(); }
    const std::shared_ptr<BrowserToolbarItem>& item() const { return item_; }

    // Opens the popover as a click on the button does.
    void popup();
    void popdown();
    void toggle();
    bool isOpen() const;

    // Called as the popover shows, with the time the click that opened it
    // came (g_get_monotonic_time).
    void setOnShow(std::function<void(gint64 clicked)> handler) { onShow_ = std::move(handler); }
    enum class Picking { No, Yes };
    // Called once the popover closed; Picking::Yes when it closed on the
    // picker's view, whose keys go on to the page.
    void setOnClosed(std::function<void(Picking)> handler) { onClosed_ = std::move(handler); }
    // Called after the badge changed.
    void setOnBadgeChanged(std::function<void()> handler) { onBadgeChanged_ = std::move(handler); }

  private:
    void describe();

    EventSink events_;
    // Held by this object as well as the header bar, so that it can let go
    // of its signals whatever became of the window.
    GtkWidget* button_ = nullptr;
    GtkWidget* image_ = nullptr;
    GtkWidget* badge_ = nullptr;
    GtkWidget* popover_ = nullptr;
    GtkEventController* popoverKeys_ = nullptr;
    std::shared_ptr<BrowserToolbarItem> item_;
    std::shared_ptr<GtkPopoverView> popoverView_;
    gint64 clicked_ = 0;
    std::function<void(gint64)> onShow_;
    std::function<void(Picking)> onClosed_;
    std::function<void()> onBadgeChanged_;
};

}  // namespace stonewall::browser
