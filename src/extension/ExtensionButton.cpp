#include "extension/ExtensionButton.h"

#include "extension/Palette.h"
#include "extension/platform/FrontServices.h"
#include "platform/Platform.h"

namespace stonewall {

std::shared_ptr<ExtensionButton> ExtensionButton::initWithView(
    std::shared_ptr<NSView> view, std::shared_ptr<NSTextField> nameTextField,
    std::shared_ptr<NSImageView> imageView) {
    return std::shared_ptr<ExtensionButton>(
        new ExtensionButton(std::move(view), std::move(nameTextField), std::move(imageView)));
}

ExtensionButton::ExtensionButton(std::shared_ptr<NSView> view,
                                 std::shared_ptr<NSTextField> nameTextField,
                                 std::shared_ptr<NSImageView> imageView)
    : view_(std::move(view)),
      nameTextField_(std::move(nameTextField)),
      imageView_(std::move(imageView)) {
    // The red marks a row the popover has not reset yet; the popover clears
    // every row each time its main view shows, so users never see it.
    if (view_) {
        view_->setLayerBackgroundColor(AppearanceContext::current().isBigSurOrLater()
                                           ? NSColor::systemRed()
                                           : NSColor::clear());
    }
    setTitleColor(Custom::disabledColor());
    enabled_ = true;
    updateTrackingAreas();
}

void ExtensionButton::setEnabled(bool enabled) {
    enabled_ = enabled;
    if (view_) view_->setAccessibilityEnabled(enabled);
    updateLayer();
}

bool ExtensionButton::canBecomeKeyView() const {
    return platform::toolkit().fullKeyboardAccessEnabled();
}

bool ExtensionButton::acceptsFirstResponder() const { return canBecomeKeyView(); }

void ExtensionButton::updateTrackingAreas() {
    trackingArea_ = TrackingArea{view_ ? view_->bounds() : Rect{}, kExtensionButtonTrackingOptions};
}

void ExtensionButton::updateLayer() {
    setTitleColor(enabled_ ? Custom::extensionTextColor() : Custom::disabledColor());
}

void ExtensionButton::clear() {
    if (view_) view_->setLayerBackgroundColor(NSColor::clear());
    updateLayer();
}

FocusRingMask ExtensionButton::drawFocusRingMask() const {
    return FocusRingMask{view_ ? view_->bounds() : Rect{}, 0};
}

void ExtensionButton::setTitleColor(const NSColor& color) {
    if (nameTextField_) nameTextField_->setTextColor(color);
}

void ExtensionButton::highlight() {
    if (view_) view_->setLayerBackgroundColor(Custom::selectedContentBackgroundColor());
    setTitleColor(Custom::selectedMenuItemTextColor());
}

void ExtensionButton::mouseEntered() {
    if (!enabled_) return;
    if (view_) {
        if (AppearanceContext::current().isMojaveOrLater()) {
            view_->setLayerCornerRadius(4);
            view_->setLayerBackgroundColor(Custom::selectedContentBackgroundColor());
        } else {
            view_->setLayerBackgroundColor(Custom::selectedMenuItemColor());
        }
    }
    setTitleColor(Custom::selectedMenuItemTextColor());
    if (imageView_) imageView_->setImage(imageSelected_);
}

void ExtensionButton::mouseExited() {
    clear();
    if (imageView_) imageView_->setImage(image_);
}

void ExtensionButton::mouseUp(Point location) {
    if (!enabled_) return;
    clear();
    const bool inside = view_ && view_->bounds().contains(location);
    if (!mouseUp_ || !inside || !action_) return;
    // Flash the row, then act: the user sees which row took the click before
    // the popover changes under the pointer.
    std::weak_ptr<ExtensionButton> weakSelf = weak_from_this();
    platform::dispatch().mainQueue().asyncAfter(kFlashDelay, [weakSelf] {
        auto self = weakSelf.lock();
        if (!self) return;
        self->highlight();
        platform::dispatch().mainQueue().asyncAfter(kActionDelay, [weakSelf] {
            auto button = weakSelf.lock();
            if (!button) return;
            // The action may replace the button's own action; keep it alive.
            if (auto action = button->action_) action();
            button->clear();
        });
    });
}

bool ExtensionButton::performKeyEquivalent(int64_t keyCode) {
    if (!view_ || !view_->isFirstResponder() || keyCode != kSpaceKeyCode) return false;
    if (auto action = action_) action();
    return true;
}

}  // namespace stonewall
