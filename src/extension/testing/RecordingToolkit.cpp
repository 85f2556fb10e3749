#include "extension/testing/RecordingToolkit.h"

#include "extension/PopoverOutlets.h"
#include "platform/Platform.h"

namespace stonewall::testing {

namespace {

template <typename Map>
auto lookup(const Map& map, std::string_view name) -> typename Map::mapped_type {
    auto it = map.find(name);
    return it == map.end() ? typename Map::mapped_type{} : it->second;
}

}  // namespace

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
    for (auto name : outlets::kTextFields)
        labels_.emplace(name, std::make_shared<RecordingTextField>());
    for (auto name : outlets::kImageViews)
        images_.emplace(name, std::make_shared<RecordingImageView>());
    for (auto name : outlets::kPushButtons)
        buttons_.emplace(name, std::make_shared<RecordingButton>());
    for (auto name : outlets::kLineViews) lines_.emplace(name, std::make_shared<RecordingView>());
    for (auto name : outlets::kStackViews) {
        auto stack = std::make_shared<RecordingStackView>();
        stack->setHidden(true);
        stacks_.emplace(name, stack);
    }
    for (auto name : outlets::kMessageStackViews)
        stacks_.emplace(name, std::make_shared<RecordingStackView>());
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
        rows_.emplace(name, std::move(row));
    }
}

std::shared_ptr<NSView> RecordingPopoverView::view(std::string_view outlet) {
    return lookup(lines_, outlet);
}
std::shared_ptr<NSTextField> RecordingPopoverView::textField(std::string_view outlet) {
    return lookup(labels_, outlet);
}
std::shared_ptr<NSImageView> RecordingPopoverView::imageView(std::string_view outlet) {
    return lookup(images_, outlet);
}
std::shared_ptr<NSButton> RecordingPopoverView::button(std::string_view outlet) {
    return lookup(buttons_, outlet);
}
std::shared_ptr<ExtensionButton> RecordingPopoverView::extensionButton(std::string_view outlet) {
    return row(outlet);
}
std::shared_ptr<NSPopUpButton> RecordingPopoverView::popUpButton(std::string_view outlet) {
    return outlet == outlets::kProfilePopupButton ? popup_ : nullptr;
}
std::shared_ptr<NSProgressIndicator> RecordingPopoverView::progressIndicator(
    std::string_view outlet) {
    return outlet == outlets::kReloadProgressIndicator ? progress_ : nullptr;
}
std::shared_ptr<NSStackView> RecordingPopoverView::stackView(std::string_view outlet) {
    return lookup(stacks_, outlet);
}
std::shared_ptr<NSLayoutConstraint> RecordingPopoverView::constraint(std::string_view outlet) {
    return lookup(constraints_, outlet);
}

void RecordingPopoverView::dismissPopover() {
    ++dismissCount_;
    if (onDismiss) onDismiss();
}

std::shared_ptr<RecordingTextField> RecordingPopoverView::label(std::string_view outlet) const {
    return lookup(labels_, outlet);
}
std::shared_ptr<RecordingImageView> RecordingPopoverView::image(std::string_view outlet) const {
    return lookup(images_, outlet);
}
std::shared_ptr<RecordingButton> RecordingPopoverView::pushButton(std::string_view outlet) const {
    return lookup(buttons_, outlet);
}
std::shared_ptr<ExtensionButton> RecordingPopoverView::row(std::string_view outlet) const {
    auto it = rows_.find(outlet);
    return it == rows_.end() ? nullptr : it->second.button;
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
    return lookup(lines_, outlet);
}
std::shared_ptr<RecordingStackView> RecordingPopoverView::stack(std::string_view outlet) const {
    return lookup(stacks_, outlet);
}
std::shared_ptr<RecordingConstraint> RecordingPopoverView::layoutConstraint(
    std::string_view outlet) const {
    return lookup(constraints_, outlet);
}

int64_t RecordingPopoverView::visibleStack() const {
    int64_t shown = 0;
    for (size_t i = 0; i < outlets::kStackViews.size(); ++i) {
        if (lookup(stacks_, outlets::kStackViews[i])->isHidden()) continue;
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
