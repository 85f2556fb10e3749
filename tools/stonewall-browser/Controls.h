#pragma once

// The popover's two custom controls as GTK widgets.
//
// ExtensionButton: the menu-like row of the popover's main view. It
// highlights while hovered, and a click released inside it flashes (clear,
// highlight again after 90 ms, act and clear after a further 150 ms) before
// acting; the space key acts at once. Disabled rows ignore hover and clicks.
//
// CustomSwitch: an on/off switch drawn with GtkSnapshot, its knob stretched
// while pressed and moved with a slightly overshooting 0.4 s animation.
//
// Main thread only. Both are owned by their GTK parent; the C++ objects live
// as long as their widget (they are attached to it as data).

#include <gtk/gtk.h>

#include <functional>
#include <string>

#include "KnobGeometry.h"

namespace stonewall::browser {

class ExtensionButton {
  public:
    using Action = std::function<void()>;

    // Made with a title and an icon pair (file paths, may be empty).
    static ExtensionButton* create(const std::string& title);

    GtkWidget* widget() const { return box_; }
    void setTitle(const std::string& title);
    std::string title() const;
    void setImages(const std::string& image, const std::string& imageSelected);
    void setEnabled(bool enabled);
    bool isEnabled() const { return enabled_; }
    void setAction(Action action) { action_ = std::move(action); }
    // Clicks act only when this is set (every row of the popover sets it).
    void setMouseUp(bool mouseUp) { mouseUp_ = mouseUp; }

    // Plain look: no highlight, the normal icon.
    void clear();
    // What a release inside the row does: the flash, then the action.
    void releaseInside();
    // What space does: the action at once.
    void activateFromKeyboard();

  private:
    ExtensionButton() = default;
    void highlight();

    GtkWidget* box_ = nullptr;
    GtkWidget* image_ = nullptr;
    GtkWidget* label_ = nullptr;
    std::string imagePath_;
    std::string imageSelectedPath_;
    bool enabled_ = true;
    bool mouseUp_ = false;
    bool hovered_ = false;
    unsigned flashSource_ = 0;
    Action action_;
};

GtkWidget* customSwitchNew();
void customSwitchSetChecked(GtkWidget* customSwitch, bool checked);
bool customSwitchIsChecked(GtkWidget* customSwitch);
// Called with the new value after a click or space flipped it.
void customSwitchSetAction(GtkWidget* customSwitch, std::function<void(bool)> action);

}  // namespace stonewall::browser
