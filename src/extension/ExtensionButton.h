#pragma once

// The menu-like row button of the popover's main view: hover highlight, and
// on release a short flash before the action fires (90 ms to re-highlight,
// 150 ms more to act), the control's signature feedback. Space on a focused
// button acts at once. A disabled button ignores hover and clicks.
//
// The toolkit owns the widget (NSView plus its title field and icon) and
// forwards the widget's events here; this object decides colours, images
// and timing and writes them back through the view interfaces.
//
// Threads: the main thread only (toolkit events and the delayed flash, which
// runs on the main queue). Delayed steps hold the button weakly: a button
// destroyed during its flash fires nothing.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "extension/platform/Toolkit.h"

namespace stonewall {

// Tracking-area options: mouse entered and exited, active always.
inline constexpr uint32_t kExtensionButtonTrackingOptions = 129;
// The key code of the space bar.
inline constexpr int64_t kSpaceKeyCode = 49;

struct TrackingArea {
    Rect rect;
    uint32_t options = 0;
    bool operator==(const TrackingArea&) const = default;
};

// The shape the toolkit fills to draw the keyboard focus ring.
struct FocusRingMask {
    Rect rect;
    double cornerRadius = 0;
    bool operator==(const FocusRingMask&) const = default;
};

class ExtensionButton : public std::enable_shared_from_this<ExtensionButton> {
  public:
    static constexpr std::chrono::milliseconds kFlashDelay{90};
    static constexpr std::chrono::milliseconds kActionDelay{150};

    // Creation (as from a frame or from the layout alike): background red on
    // 11.0 or later (the first clear() replaces it), clear before; title in
    // disabledColor; enabled; a tracking area over the bounds. Any of the
    // views may be null (the layout lacks it); the button then skips it.
    static std::shared_ptr<ExtensionButton> initWithView(std::shared_ptr<NSView> view,
                                                         std::shared_ptr<NSTextField> nameTextField,
                                                         std::shared_ptr<NSImageView> imageView);

    ExtensionButton(const ExtensionButton&) = delete;
    ExtensionButton& operator=(const ExtensionButton&) = delete;

    // --- Properties -------------------------------------------------------------

    // Clicks fire the action only when set; the layout decides per button.
    bool mouseUp() const { return mouseUp_; }
    void setMouseUp(bool mouseUp) { mouseUp_ = mouseUp; }
    const std::shared_ptr<NSImage>& image() const { return image_; }
    void setImage(std::shared_ptr<NSImage> image) { image_ = std::move(image); }
    const std::shared_ptr<NSImage>& imageSelected() const { return imageSelected_; }
    void setImageSelected(std::shared_ptr<NSImage> image) { imageSelected_ = std::move(image); }
    const TrackingArea& trackingArea() const { return trackingArea_; }
    const std::shared_ptr<NSView>& view() const { return view_; }
    const std::shared_ptr<NSTextField>& nameTextField() const { return nameTextField_; }
    const std::shared_ptr<NSImageView>& imageView() const { return imageView_; }

    bool isEnabled() const { return enabled_; }
    // Redraws the title colour (updateLayer).
    void setEnabled(bool enabled);

    // The target's action; an empty function is "no action set".
    void setAction(std::function<void()> action) { action_ = std::move(action); }
    bool hasAction() const { return static_cast<bool>(action_); }

    // Fixed answers of the control.
    static constexpr bool isFlipped() { return true; }
    static constexpr bool wantsUpdateLayer() { return true; }
    static constexpr bool acceptsFirstMouse() { return true; }
    static constexpr bool allowsVibrancy() { return false; }
    // Only with the system's full keyboard access.
    bool canBecomeKeyView() const;
    bool acceptsFirstResponder() const;

    // --- Drawing ----------------------------------------------------------------

    void updateTrackingAreas();
    // Title in extensionTextColor when enabled, else disabledColor.
    void updateLayer();
    // Background clear and the title colour of updateLayer.
    void clear();
    FocusRingMask drawFocusRingMask() const;

    // --- Events from the toolkit --------------------------------------------------

    void mouseEntered();
    void mouseExited();
    // The press is handled on release.
    void mouseDown() {}
    // `location` in the button's own coordinates.
    void mouseUp(Point location);
    // True when the key was the button's (space while focused): the action
    // has then been sent.
    bool performKeyEquivalent(int64_t keyCode);

  private:
    ExtensionButton(std::shared_ptr<NSView> view, std::shared_ptr<NSTextField> nameTextField,
                    std::shared_ptr<NSImageView> imageView);
    void highlight();
    void setTitleColor(const NSColor& color);

    std::shared_ptr<NSView> view_;
    std::shared_ptr<NSTextField> nameTextField_;
    std::shared_ptr<NSImageView> imageView_;
    std::shared_ptr<NSImage> image_;
    std::shared_ptr<NSImage> imageSelected_;
    TrackingArea trackingArea_;
    std::function<void()> action_;
    bool mouseUp_ = false;
    bool enabled_ = true;
};

}  // namespace stonewall
