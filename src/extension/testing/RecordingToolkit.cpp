#include "extension/testing/RecordingToolkit.h"

#include "extension/PopoverOutlets.h"
#include "platform/Platform.h"

namespace stonewall::testing {

void RecordingPopUpButton::removeAllItems() {
    items_.clear();
    selected_ = -1;
}

void RecordingPopUpButton::selectItemAtIndex(int64_t index) {
    selected_ = (index >= 0 && index < numberOfItems()) ? index : -1;
}

std::optional<NSMenuItem> RecordingPopUpButton::selectedItem() const {
    if (selected_ < 0) return std::nullopt;
    return items_[static_cast<size_t>(selected_)];
}

RecordingPopoverView::RecordingPopoverView()
    : popup_(std::make_shared<RecordingPopUpButton>()),
      progress_(std::make_shared<RecordingProgressIndicator>()) {
    profilePopUp_ = popup_;
    reloadProgress_ = progress_;
    for (auto name : outlets::kTextFields)
        textFields_.emplace(name, std::make_shared<RecordingTextField>());
    for (auto name : outlets::kImageViews)
        imageViews_.emplace(name, std::make_shared<RecordingImageView>());
    for (auto name : outlets::kPushButtons)
        buttons_.emplace(name, std::make_shared<RecordingButton>());
    for (auto name : outlets::kLineViews) views_.emplace(name, std::make_shared<RecordingView>());
    for (auto name : outlets::kStackViews) {
        auto stack = std::make_shared<RecordingStackView>();
        stack->setHidden(true);
        stackViews_.emplace(name, stack);
    }
    for (auto name : outlets::kMessageStackViews)
        stackViews_.emplace(name, std::make_shared<RecordingStackView>());
    for (auto name : outlets::kCenterYConstraints)
        constraints_.emplace(name, std::make_shared<RecordingConstraint>());
    for (auto name : outlets::kSeparatorConstraints)
        constraints_.emplace(name, std::make_shared<RecordingConstraint>());
    for (auto name : outlets::kMainStackConstraints)
        constraints_.emplace(name, std::make_shared<RecordingConstraint>());
    for (auto name : outlets::kExtensionButtons) {
        Row row{std::make_shared<RecordingView>(), std::make_shared<RecordingTextField>(),
                std::make_shared<RecordingImageView>(), nullptr};
        row.button = ExtensionButton::initWithView(row.view, row.name, row.icon);
        extensionButtons_.emplace(name, row.button);
        rows_.emplace(name, std::move(row));
    }
}

void RecordingPopoverView::dismissPopover() {
    ++dismissCount_;
    if (onDismiss) onDismiss();
}

std::shared_ptr<RecordingTextField> RecordingPopoverView::label(std::string_view outlet) const {
    return find<RecordingTextField>(textFields_, outlet);
}
std::shared_ptr<RecordingImageView> RecordingPopoverView::image(std::string_view outlet) const {
    return find<RecordingImageView>(imageViews_, outlet);
}
std::shared_ptr<RecordingButton> RecordingPopoverView::pushButton(std::string_view outlet) const {
    return find<RecordingButton>(buttons_, outlet);
}
std::shared_ptr<ExtensionButton> RecordingPopoverView::row(std::string_view outlet) const {
    return find<ExtensionButton>(extensionButtons_, outlet);
}
std::string RecordingPopoverView::rowTitle(std::string_view outlet) const {
    auto it = rows_.find(outlet);
    return it == rows_.end() ? std::string() : it->second.name->stringValue();
}
std::shared_ptr<RecordingView> RecordingPopoverView::rowView(std::string_view outlet) const {
    auto it = rows_.find(outlet);
    return it == rows_.end() ? nullptr : it->second.view;
}
std::shared_ptr<RecordingTextField> RecordingPopoverView::rowLabel(std::string_view outlet) const {
    auto it = rows_.find(outlet);
    return it == rows_.end() ? nullptr : it->second.name;
}
std::shared_ptr<RecordingView> RecordingPopoverView::separator(std::string_view outlet) const {
    return find<RecordingView>(views_, outlet);
}
std::shared_ptr<RecordingStackView> RecordingPopoverView::stack(std::string_view outlet) const {
    return find<RecordingStackView>(stackViews_, outlet);
}
std::shared_ptr<RecordingConstraint> RecordingPopoverView::layoutConstraint(
    std::string_view outlet) const {
    return find<RecordingConstraint>(constraints_, outlet);
}

int64_t RecordingPopoverView::visibleStack() const {
    int64_t shown = 0;
    for (size_t i = 0; i < outlets::kStackViews.size(); ++i) {
        if (stackViews_.find(outlets::kStackViews[i])->second->isHidden()) continue;
        if (shown != 0) return 0;
        shown = static_cast<int64_t>(i) + 1;
    }
    return shown;
}

std::shared_ptr<PopoverView> RecordingToolkit::loadPopoverView() {
    popover_ = std::make_shared<RecordingPopoverView>();
    return popover_;
}

std::shared_ptr<NSImage> RecordingToolkit::imageNamed(const std::string& name) {
    return std::make_shared<NSImage>(name);
}

void RecordingToolkit::runAnimationGroup(double duration, const std::function<void()>& changes,
                                         std::function<void()> completion) {
    durations_.push_back(duration);
    if (changes) changes();
    if (completion) platform::dispatch().mainQueue().async(std::move(completion));
}

}  // namespace stonewall::testing
