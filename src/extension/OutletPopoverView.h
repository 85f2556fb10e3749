#pragma once

// A PopoverView whose layout registers its views by outlet name: the
// lookups the front makes are answered from these tables, so a toolkit's
// layout (or a test's) only builds its views and files them here.

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "extension/PopoverOutlets.h"
#include "extension/platform/Toolkit.h"

namespace stonewall {

class OutletPopoverView : public PopoverView {
  public:
    std::shared_ptr<NSView> view(std::string_view outlet) override {
        return find<NSView>(views_, outlet);
    }
    std::shared_ptr<NSTextField> textField(std::string_view outlet) override {
        return find<NSTextField>(textFields_, outlet);
    }
    std::shared_ptr<NSImageView> imageView(std::string_view outlet) override {
        return find<NSImageView>(imageViews_, outlet);
    }
    std::shared_ptr<NSButton> button(std::string_view outlet) override {
        return find<NSButton>(buttons_, outlet);
    }
    std::shared_ptr<ExtensionButton> extensionButton(std::string_view outlet) override {
        return find<ExtensionButton>(extensionButtons_, outlet);
    }
    std::shared_ptr<NSPopUpButton> popUpButton(std::string_view outlet) override {
        return outlet == outlets::kProfilePopupButton ? profilePopUp_ : nullptr;
    }
    std::shared_ptr<NSProgressIndicator> progressIndicator(std::string_view outlet) override {
        return outlet == outlets::kReloadProgressIndicator ? reloadProgress_ : nullptr;
    }
    std::shared_ptr<NSStackView> stackView(std::string_view outlet) override {
        return find<NSStackView>(stackViews_, outlet);
    }
    std::shared_ptr<NSLayoutConstraint> constraint(std::string_view outlet) override {
        return find<NSLayoutConstraint>(constraints_, outlet);
    }

  protected:
    template <typename T>
    using Outlets = std::map<std::string, std::shared_ptr<T>, std::less<>>;

    // The registered view as the type the layout made it (null when absent).
    template <typename Made, typename Registered>
    static std::shared_ptr<Made> find(const Outlets<Registered>& outlets, std::string_view name) {
        auto it = outlets.find(name);
        return it == outlets.end() ? nullptr : std::static_pointer_cast<Made>(it->second);
    }

    Outlets<NSView> views_;
    Outlets<NSTextField> textFields_;
    Outlets<NSImageView> imageViews_;
    Outlets<NSButton> buttons_;
    Outlets<ExtensionButton> extensionButtons_;
    Outlets<NSStackView> stackViews_;
    Outlets<NSLayoutConstraint> constraints_;
    std::shared_ptr<NSPopUpButton> profilePopUp_;
    std::shared_ptr<NSProgressIndicator> reloadProgress_;
};

}  // namespace stonewall
