#pragma once

// A layer-drawn on/off switch with keyboard use, accessibility (check-box
// role) and a value binding under the name "checked". The knob is a
// golden-ratio share of the track and stretches while pressed; state changes
// animate over 0.4 s with a slight overshoot.
//
// This object keeps the switch's state and computes its four layers; the
// toolkit's widget forwards events here and draws the layers whenever
// display() is called, animating to them when a timing is given.
//
// Threads: the main thread only.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "extension/ExtensionButton.h"
#include "extension/platform/Toolkit.h"

namespace stonewall {

// One drawing layer of the switch. Frames are in the parent layer's
// coordinates (the root's for the background and the knob, the knob's for
// its inside).
struct SwitchLayer {
    Rect frame;
    Point anchorPoint{0.5, 0.5};
    double cornerRadius = 0;
    NSColor backgroundColor = NSColor::clear();
    NSColor borderColor = NSColor::clear();
    double borderWidth = 0;
    double opacity = 1.0;
    NSColor shadowColor = NSColor::black();
    Size shadowOffset{0, -3};
    double shadowRadius = 3;
    double shadowOpacity = 0;
    bool operator==(const SwitchLayer&) const = default;
};

class CustomSwitch;

// The toolkit's side of a switch.
class CustomSwitchView {
  public:
    virtual ~CustomSwitchView() = default;
    // Draw the switch's layers; with a timing, animate from what is shown.
    virtual void display(const CustomSwitch& customSwitch,
                         const std::optional<AnimationTiming>& animation) = 0;
    virtual bool isFirstResponder() const = 0;
    // The label the toolkit's accessibility gives the widget.
    virtual std::string accessibilityLabel() const { return {}; }
};

class CustomSwitch {
  public:
    // The golden ratio that sizes the idle knob, and the pressed divisor.
    static constexpr double kKnobRatio = 1.6180340051651;
    static constexpr double kPressedKnobRatio = 1.38;
    // The animation of every state change.
    static constexpr AnimationTiming kAnimation{0.4, {0.25, 1.5}, {0.5, 1.0}};

    // Creation with the widget's frame: setUp (enabled) and setUpLayers.
    static std::unique_ptr<CustomSwitch> initWithFrame(std::shared_ptr<CustomSwitchView> view,
                                                       Rect frame);

    CustomSwitch(const CustomSwitch&) = delete;
    CustomSwitch& operator=(const CustomSwitch&) = delete;

    // --- Properties -----------------------------------------------------------------

    // The target's action; an empty function is "no action set".
    void setAction(std::function<void()> action) { action_ = std::move(action); }
    bool hasAction() const { return static_cast<bool>(action_); }

    bool checked() const { return checked_; }
    // A change is stored and propagated to the "checked" binding; the switch
    // redraws either way.
    void setChecked(bool checked);
    // The bound value's observer (bind "checked"); empty unbinds.
    void bindChecked(std::function<void(bool)> observer) { binding_ = std::move(observer); }

    bool isActive() const { return active_; }
    bool isEnabled() const { return enabled_; }
    void setEnabled(bool enabled);

    // Stored and redrawn, though the drawing takes its colours from the
    // palette: the product's other programs set them and expect that.
    const NSColor& tintColor() const { return tintColor_; }
    void setTintColor(const NSColor& color);
    const NSColor& disabledBorderColor() const { return disabledBorderColor_; }
    void setDisabledBorderColor(const NSColor& color);

    const SwitchLayer& rootLayer() const { return rootLayer_; }
    const SwitchLayer& backgroundLayer() const { return backgroundLayer_; }
    const SwitchLayer& knobLayer() const { return knobLayer_; }
    const SwitchLayer& knobInsideLayer() const { return knobInsideLayer_; }

    const Rect& frame() const { return frame_; }
    Rect bounds() const { return Rect{{0, 0}, frame_.size}; }
    void setFrame(Rect frame);

    // --- Geometry ------------------------------------------------------------------

    static double knobHeightForSize(Size size) { return size.height - 4; }
    // From the background layer's bounds, the state and the layout direction.
    Rect rectForKnob() const;

    // --- Events from the toolkit -----------------------------------------------------

    // `location` in the switch's own coordinates.
    void mouseDown(Point location);
    void mouseUp(Point location);
    bool performKeyEquivalent(int64_t keyCode);

    // --- Accessibility -------------------------------------------------------------

    static constexpr bool isAccessibilityElement() { return true; }
    static constexpr const char* accessibilityRole() { return "checkbox"; }
    const CustomSwitch* accessibilityHitTest(Point) const { return this; }
    int64_t accessibilityValue() const { return checked_ ? 1 : 0; }
    std::string accessibilityLabel() const;
    // Flips the value and sends the action.
    bool accessibilityPerformPress();

    FocusRingMask drawFocusRingMask() const;
    Rect focusRingMaskBounds() const { return bounds(); }
    bool canBecomeKeyView() const;

  private:
    CustomSwitch(std::shared_ptr<CustomSwitchView> view, Rect frame);
    void setUp();
    void setUpLayers();
    void reloadLayerSize();
    void reloadLayer();
    void setupColors();
    void sendAction();

    std::shared_ptr<CustomSwitchView> view_;
    std::function<void()> action_;
    std::function<void(bool)> binding_;
    Rect frame_;
    bool checked_ = false;
    bool active_ = false;
    bool enabled_ = true;
    NSColor tintColor_ = NSColor::rgb(0.27, 0.86, 0.36);
    NSColor disabledBorderColor_ = NSColor::white(0.0, 0.2);
    SwitchLayer rootLayer_;
    SwitchLayer backgroundLayer_;
    SwitchLayer knobLayer_;
    SwitchLayer knobInsideLayer_;
};

}  // namespace stonewall
