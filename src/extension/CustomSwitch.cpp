#include "extension/CustomSwitch.h"

#include "extension/Palette.h"
#include "extension/platform/FrontServices.h"

namespace stonewall {

namespace {

Rect boundsOf(const Rect& frame) { return Rect{{0, 0}, frame.size}; }

bool rightToLeft() {
    return platform::toolkit().userInterfaceLayoutDirection() == LayoutDirection::RightToLeft;
}

}  // namespace

std::unique_ptr<CustomSwitch> CustomSwitch::initWithFrame(std::shared_ptr<CustomSwitchView> view,
                                                          Rect frame) {
    return std::unique_ptr<CustomSwitch>(new CustomSwitch(std::move(view), frame));
}

CustomSwitch::CustomSwitch(std::shared_ptr<CustomSwitchView> view, Rect frame)
    : view_(std::move(view)), frame_(frame) {
    setUp();
}

void CustomSwitch::setUp() {
    enabled_ = true;
    setUpLayers();
}

void CustomSwitch::setUpLayers() {
    rootLayer_.frame = frame_;

    backgroundLayer_.anchorPoint = {0, 0};
    backgroundLayer_.frame = bounds();
    backgroundLayer_.borderWidth = 2;

    knobLayer_.frame = rectForKnob();
    knobLayer_.backgroundColor = NSColor::white(1.0);
    knobLayer_.shadowColor = NSColor::black();
    knobLayer_.shadowOffset = {0, -2};
    knobLayer_.shadowRadius = 1;
    knobLayer_.shadowOpacity = 0.3;

    knobInsideLayer_.frame = boundsOf(knobLayer_.frame);
    knobInsideLayer_.shadowColor = NSColor::black();
    knobInsideLayer_.shadowOffset = {0, 0};
    knobInsideLayer_.backgroundColor = NSColor::white(1.0);
    knobInsideLayer_.shadowRadius = 1;
    knobInsideLayer_.shadowOpacity = 0.35;

    reloadLayerSize();
}

void CustomSwitch::reloadLayerSize() {
    knobLayer_.frame = rectForKnob();
    knobInsideLayer_.frame = boundsOf(knobLayer_.frame);
    backgroundLayer_.cornerRadius = backgroundLayer_.frame.size.height / 2;
    knobLayer_.cornerRadius = knobLayer_.frame.size.height / 2;
    knobInsideLayer_.cornerRadius = knobInsideLayer_.frame.size.height / 2;
    // Size changes follow the widget's own resizing; animating them would lag.
    if (view_) view_->display(*this, std::nullopt);
}

void CustomSwitch::reloadLayer() {
    setupColors();
    rootLayer_.opacity = enabled_ ? 1.0 : 0.5;
    knobLayer_.frame = rectForKnob();
    knobInsideLayer_.frame = boundsOf(knobLayer_.frame);
    if (view_) view_->display(*this, kAnimation);
}

void CustomSwitch::setupColors() {
    if (checked_) {
        backgroundLayer_.borderColor = Custom::onSwitchBackgroundColor();
        backgroundLayer_.backgroundColor = Custom::onSwitchBackgroundColor();
        return;
    }
    backgroundLayer_.borderColor = Custom::offSwitchBorderColor();
    // From 11.0 on an off switch is a filled grey track, not an outline.
    backgroundLayer_.backgroundColor = AppearanceContext::current().isBigSurOrLater()
                                           ? Custom::offSwitchBorderColor()
                                           : NSColor::clear();
}

Rect CustomSwitch::rectForKnob() const {
    const Size size = backgroundLayer_.frame.size;
    const double width = size.width;
    const bool rtl = rightToLeft();
    const double height = knobHeightForSize(size);
    double knobWidth = 0;
    if (!active_) {
        knobWidth = (width - 4) / kKnobRatio;
    } else {
        // The 40 makes a pressed right-to-left knob narrower than a
        // left-to-right one; the shipped product looks like that.
        knobWidth = rtl ? (width - 40) / kPressedKnobRatio : (width - 4) / kPressedKnobRatio;
    }
    const bool atStart = rtl ? checked_ : !checked_;
    const double x = atStart ? 2 : width - knobWidth - 2;
    return Rect{{x, 2}, {knobWidth, height}};
}

void CustomSwitch::setFrame(Rect frame) {
    frame_ = frame;
    rootLayer_.frame = frame;
    backgroundLayer_.frame = bounds();
    reloadLayerSize();
}

void CustomSwitch::setChecked(bool checked) {
    if (checked != checked_) {
        checked_ = checked;
        if (binding_) binding_(checked_);
    }
    reloadLayer();
}

void CustomSwitch::setEnabled(bool enabled) {
    enabled_ = enabled;
    reloadLayer();
}

void CustomSwitch::setTintColor(const NSColor& color) {
    tintColor_ = color;
    reloadLayer();
}

void CustomSwitch::setDisabledBorderColor(const NSColor& color) {
    disabledBorderColor_ = color;
    reloadLayer();
}

void CustomSwitch::sendAction() {
    if (auto action = action_) action();
}

void CustomSwitch::mouseDown(Point location) {
    if (!bounds().contains(location) || !action_ || !enabled_) return;
    active_ = true;
    reloadLayer();
}

void CustomSwitch::mouseUp(Point location) {
    if (!bounds().contains(location) || !action_ || !enabled_) return;
    active_ = false;
    const bool before = checked_;
    setChecked(!checked_);
    if (checked_ != before) sendAction();
    reloadLayer();
}

bool CustomSwitch::performKeyEquivalent(int64_t keyCode) {
    if (!view_ || !view_->isFirstResponder() || keyCode != kSpaceKeyCode) return false;
    setChecked(!checked_);
    sendAction();
    return true;
}

std::string CustomSwitch::accessibilityLabel() const {
    return view_ ? view_->accessibilityLabel() : std::string();
}

bool CustomSwitch::accessibilityPerformPress() {
    setChecked(!checked_);
    sendAction();
    return true;
}

FocusRingMask CustomSwitch::drawFocusRingMask() const {
    return FocusRingMask{bounds(), bounds().size.height / 2};
}

bool CustomSwitch::canBecomeKeyView() const {
    return platform::toolkit().fullKeyboardAccessEnabled();
}

}  // namespace stonewall
