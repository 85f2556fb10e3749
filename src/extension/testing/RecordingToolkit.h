#pragma once

// A toolkit that draws nothing and remembers everything: each view keeps the
// last text, colour, font, image and visibility it was given, so a test can
// read the popover as a user would see it. Single-threaded, like the manual
// clock that drives the tests.

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "extension/ExtensionButton.h"
#include "extension/OutletPopoverView.h"
#include "extension/platform/Toolkit.h"

namespace stonewall::testing {

// The NSView part shared by every recording view.
template <typename Base>
class RecordingViewBase : public Base {
  public:
    void setHidden(bool hidden) override { hidden_ = hidden; }
    bool isHidden() const override { return hidden_; }
    void setLayerBackgroundColor(const NSColor& color) override { background_ = color; }
    void setLayerCornerRadius(double radius) override { cornerRadius_ = radius; }
    Rect bounds() const override { return bounds_; }
    bool isFirstResponder() const override { return firstResponder_; }
    void setAccessibilityLabel(const std::string& label) override { accessibilityLabel_ = label; }
    void setAccessibilityValue(std::optional<bool> checked) override {
        accessibilityValue_ = checked;
    }
    void setAccessibilityEnabled(bool enabled) override { accessibilityEnabled_ = enabled; }

    const std::optional<std::string>& accessibilityLabel() const { return accessibilityLabel_; }
    const std::optional<bool>& accessibilityValue() const { return accessibilityValue_; }
    bool accessibilityEnabled() const { return accessibilityEnabled_; }
    const std::optional<NSColor>& layerBackgroundColor() const { return background_; }
    double layerCornerRadius() const { return cornerRadius_; }
    void setBounds(Rect bounds) { bounds_ = bounds; }
    void setFirstResponder(bool firstResponder) { firstResponder_ = firstResponder; }

  private:
    bool hidden_ = false;
    std::optional<NSColor> background_;
    double cornerRadius_ = 0;
    Rect bounds_{{0, 0}, {290, 24}};
    bool firstResponder_ = false;
    std::optional<std::string> accessibilityLabel_;
    std::optional<bool> accessibilityValue_;
    bool accessibilityEnabled_ = true;
};

class RecordingView : public RecordingViewBase<NSView> {};

class RecordingTextField : public RecordingViewBase<NSTextField> {
  public:
    void setStringValue(const std::string& text) override { text_ = text; }
    std::string stringValue() const override { return text_; }
    void setTextColor(const NSColor& color) override { color_ = color; }
    void setFont(const NSFont& font) override { font_ = font; }
    const std::optional<NSColor>& textColor() const { return color_; }
    const std::optional<NSFont>& font() const { return font_; }

  private:
    std::string text_;
    std::optional<NSColor> color_;
    std::optional<NSFont> font_;
};

class RecordingImageView : public RecordingViewBase<NSImageView> {
  public:
    void setImage(std::shared_ptr<NSImage> image) override { image_ = std::move(image); }
    // The image's name, "" for none.
    std::string imageName() const { return image_ ? image_->name() : std::string(); }

  private:
    std::shared_ptr<NSImage> image_;
};

class RecordingButton : public RecordingViewBase<NSButton> {
  public:
    void setTitle(const std::string& title) override { title_ = title; }
    std::string title() const override { return title_; }
    void setEnabled(bool enabled) override { enabled_ = enabled; }
    bool isEnabled() const override { return enabled_; }
    void setActionHandler(std::function<void()> action) override { action_ = std::move(action); }
    // A user's press: the wired action, if any.
    void press() {
        if (auto action = action_) action();
    }

  private:
    std::string title_;
    bool enabled_ = true;
    std::function<void()> action_;
};

class RecordingPopUpButton : public RecordingViewBase<NSPopUpButton> {
  public:
    void removeAllItems() override;
    void addItem(const NSMenuItem& item) override { items_.push_back(item); }
    int64_t numberOfItems() const override { return static_cast<int64_t>(items_.size()); }
    void selectItemAtIndex(int64_t index) override;
    int64_t indexOfSelectedItem() const override { return selected_; }
    std::optional<NSMenuItem> selectedItem() const override;
    const std::vector<NSMenuItem>& items() const { return items_; }

  private:
    std::vector<NSMenuItem> items_;
    int64_t selected_ = -1;
};

class RecordingProgressIndicator : public RecordingViewBase<NSProgressIndicator> {
  public:
    void startAnimation() override { animating_ = true; }
    void stopAnimation() override { animating_ = false; }
    bool isAnimating() const { return animating_; }

  private:
    bool animating_ = false;
};

class RecordingStackView : public RecordingViewBase<NSStackView> {
  public:
    void setSpacing(double spacing) override { spacing_ = spacing; }
    double spacing() const override { return spacing_; }

  private:
    double spacing_ = 8;
};

class RecordingConstraint : public NSLayoutConstraint {
  public:
    void setConstant(double constant) override { constant_ = constant; }
    double constant() const override { return constant_; }

  private:
    double constant_ = 20;
};

// Every outlet of the popover's layout, each a recording view; the stacks
// start hidden as a layout's do until the controller shows one.
class RecordingPopoverView : public OutletPopoverView {
  public:
    RecordingPopoverView();

    void setPreferredContentSize(Size size) override { preferredContentSize_ = size; }
    bool respondsToDismissPopover() const override { return respondsToDismiss_; }
    void dismissPopover() override;

    // Typed access for tests; null for unknown names.
    std::shared_ptr<RecordingTextField> label(std::string_view outlet) const;
    std::shared_ptr<RecordingImageView> image(std::string_view outlet) const;
    std::shared_ptr<RecordingButton> pushButton(std::string_view outlet) const;
    std::shared_ptr<ExtensionButton> row(std::string_view outlet) const;
    // The title shown on a row ("" when it has none).
    std::string rowTitle(std::string_view outlet) const;
    std::shared_ptr<RecordingView> rowView(std::string_view outlet) const;
    std::shared_ptr<RecordingTextField> rowLabel(std::string_view outlet) const;
    std::shared_ptr<RecordingView> separator(std::string_view outlet) const;
    std::shared_ptr<RecordingStackView> stack(std::string_view outlet) const;
    std::shared_ptr<RecordingConstraint> layoutConstraint(std::string_view outlet) const;
    const std::shared_ptr<RecordingPopUpButton>& popup() const { return popup_; }
    const std::shared_ptr<RecordingProgressIndicator>& progress() const { return progress_; }

    // The one stack not hidden (1-6), 0 when none or several are shown.
    int64_t visibleStack() const;
    const std::optional<Size>& preferredContentSize() const { return preferredContentSize_; }
    int dismissCount() const { return dismissCount_; }
    void setRespondsToDismissPopover(bool responds) { respondsToDismiss_ = responds; }
    // Called on each dismissal (the simulated browser closes its popover).
    std::function<void()> onDismiss;

  private:
    struct Row {
        std::shared_ptr<RecordingView> view;
        std::shared_ptr<RecordingTextField> name;
        std::shared_ptr<RecordingImageView> icon;
        std::shared_ptr<ExtensionButton> button;
    };
    std::map<std::string, Row, std::less<>> rows_;
    std::shared_ptr<RecordingPopUpButton> popup_;
    std::shared_ptr<RecordingProgressIndicator> progress_;
    std::optional<Size> preferredContentSize_;
    bool respondsToDismiss_ = true;
    int dismissCount_ = 0;
};

class RecordingToolkit : public Toolkit {
  public:
    std::shared_ptr<PopoverView> loadPopoverView() override;
    std::shared_ptr<NSImage> imageNamed(const std::string& name) override;
    void runAnimationGroup(double duration, const std::function<void()>& changes,
                           std::function<void()> completion) override;
    bool isDarkAppearance() const override { return dark_; }
    LayoutDirection userInterfaceLayoutDirection() const override { return direction_; }
    std::string preferredLocalization() const override { return localization_; }
    bool fullKeyboardAccessEnabled() const override { return fullKeyboardAccess_; }

    void setDarkAppearance(bool dark) { dark_ = dark; }
    void setLayoutDirection(LayoutDirection direction) { direction_ = direction; }
    void setPreferredLocalization(std::string localization) {
        localization_ = std::move(localization);
    }
    void setFullKeyboardAccess(bool enabled) { fullKeyboardAccess_ = enabled; }

    // The last view tree made.
    const std::shared_ptr<RecordingPopoverView>& popover() const { return popover_; }
    // The duration of every animation group run, in order.
    const std::vector<double>& animationDurations() const { return durations_; }

  private:
    bool dark_ = false;
    LayoutDirection direction_ = LayoutDirection::LeftToRight;
    std::string localization_ = "en";
    bool fullKeyboardAccess_ = false;
    std::shared_ptr<RecordingPopoverView> popover_;
    std::vector<double> durations_;
};

}  // namespace stonewall::testing
