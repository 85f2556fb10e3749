#include "extension/SafariExtensionViewController.h"

// SafariExtensionViewController: the popover's outlets, their actions, and
// the views, labels, separators and buttons set up once at creation.

#include "extension/Palette.h"
#include "extension/PopoverOutlets.h"
#include "extension/SafariExtensionViewControllerInternal.h"
#include "platform/Platform.h"

namespace stonewall {

using namespace front_detail;

// --- Outlets and layout -----------------------------------------------------------

void SafariExtensionViewController::loadOutlets() {
    if (!popoverView_) return;
    PopoverView& view = *popoverView_;
    Outlets& o = *outlets_;
    for (size_t i = 0; i < o.stacks.size(); ++i)
        o.stacks[i] = view.stackView(outlets::kStackViews[i]);

    o.statusHeaderLabel = view.textField("statusHeaderLabel");
    o.visualHeaderLabel = view.textField("visualHeaderLabel");
    o.customRulesHeaderLabel = view.textField("customRulesHeaderLabel");
    o.activeProfileHeaderLabel = view.textField("activeProfileHeaderLabel");
    o.appHeaderLabel = view.textField("appHeaderLabel");
    o.visualTitleLabel = view.textField("visualTitleLabel");
    o.visualMessageLabel = view.textField("visualMessageLabel");
    o.profileTitleLabel = view.textField("profileTitleLabel");
    o.profileMessageLabel = view.textField("profileMessageLabel");
    o.websiteTitleLabel = view.textField("websiteTitleLabel");
    o.websiteMessageLabel = view.textField("websiteMessageLabel");
    o.reloadTitleLabel = view.textField("reloadTitleLabel");
    o.errorTitleLabel = view.textField("errorTitleLabel");
    o.errorMessageLabel = view.textField("errorMessageLabel");

    o.statusImageView = view.imageView("statusImageView");
    o.counterImageView = view.imageView("counterImageView");

    auto rows = o.rows();
    for (size_t i = 0; i < rows.size(); ++i)
        *rows[i] = view.extensionButton(outlets::kExtensionButtons[i]);
    for (size_t i = 0; i < o.lineViews.size(); ++i)
        o.lineViews[i] = view.view(outlets::kLineViews[i]);

    o.visualCancelButton = view.button("visualCancelButton");
    o.visualDoneButton = view.button("visualDoneButton");
    o.profileCancelButton = view.button("profileCancelButton");
    o.profileDoneButton = view.button("profileDoneButton");
    o.websiteCancelButton = view.button("websiteCancelButton");
    o.websiteDoneButton = view.button("websiteDoneButton");
    o.errorDoneButton = view.button("errorDoneButton");

    o.profilePopupButton = view.popUpButton(outlets::kProfilePopupButton);
    o.reloadProgressIndicator = view.progressIndicator(outlets::kReloadProgressIndicator);
    for (size_t i = 0; i < 3; ++i) {
        o.messageStacks[i] = view.stackView(outlets::kMessageStackViews[i]);
        o.centerY[i] = view.constraint(outlets::kCenterYConstraints[i]);
    }
    for (size_t i = 0; i < 8; ++i)
        o.separatorConstraints[i] = view.constraint(outlets::kSeparatorConstraints[i]);
    for (size_t i = 0; i < 2; ++i)
        o.mainStackConstraints[i] = view.constraint(outlets::kMainStackConstraints[i]);
}

void SafariExtensionViewController::connectActions() {
    Outlets& o = *outlets_;
    const auto wire = [](const std::shared_ptr<ExtensionButton>& button,
                         std::function<void()> action) {
        if (!button) return;
        // Every row of the popover reacts to clicks.
        button->setMouseUp(true);
        button->setAction(std::move(action));
    };
    wire(o.statusButton, [this] { changeStatusAction(); });
    wire(o.counterButton, [this] { changeCounterAction(); });
    wire(o.visualBlockButton, [this] { visualBlockAction(); });
    wire(o.blockButton, [this] { blockWebsiteAction(); });
    wire(o.secureButton, [this] { secureWebsiteAction(); });
    wire(o.whitelistButton, [this] { whitelistWebsiteAction(); });
    wire(o.profileButton, [this] { changeActiveProfile(); });
    wire(o.appButton, [this] { openAppAction(); });

    const auto press = [](const std::shared_ptr<NSButton>& button, std::function<void()> action) {
        if (button) button->setActionHandler(std::move(action));
    };
    press(o.visualCancelButton, [this] { visualCancelAction(); });
    press(o.visualDoneButton, [this] { visualDoneAction(); });
    press(o.profileCancelButton, [this] { profileCancelAction(); });
    press(o.profileDoneButton, [this] { profileDoneAction(); });
    press(o.websiteCancelButton, [this] { websiteCancelAction(); });
    press(o.websiteDoneButton, [this] { websiteDoneAction(); });
    press(o.errorDoneButton, [this] { errorDoneAction(); });
}

std::string SafariExtensionViewController::localized(const std::string& key) const {
    return platform::bundle().localizedString(key);
}

void SafariExtensionViewController::setupLabels() {
    Outlets& o = *outlets_;
    const NSFont header = Custom::defaultExtensionFontWithSize(13, FontWeight::Semibold);
    const NSFont title = Custom::defaultExtensionFontWithSize(15, FontWeight::Semibold);
    const NSFont body = Custom::defaultExtensionFontWithSize(13, FontWeight::Medium);

    const auto label = [this](const std::shared_ptr<NSTextField>& field, const char* text,
                              const NSFont& font, const NSColor& color) {
        if (!field) return;
        if (text) field->setStringValue(localized(text));
        field->setFont(font);
        field->setTextColor(color);
    };
    const NSColor headerColor = Custom::extensionHeaderColor();
    const NSColor titleColor = Custom::extensionTitleColor();
    const NSColor textColor = Custom::extensionTextColor();
    label(o.statusHeaderLabel, N_("Status"), header, headerColor);
    label(o.visualHeaderLabel, N_("Webpage"), header, headerColor);
    label(o.customRulesHeaderLabel, N_("Website"), header, headerColor);
    label(o.activeProfileHeaderLabel, N_("Profile"), header, headerColor);
    label(o.appHeaderLabel, N_("App"), header, headerColor);
    label(o.visualTitleLabel, N_("Block and Hide Visually"), title, titleColor);
    label(o.visualMessageLabel, N_("Select the webpage elements that you want to block or hide."),
          body, textColor);
    label(o.profileTitleLabel, N_("Change Active Profile"), title, titleColor);
    label(o.profileMessageLabel, N_("Select a profile other than the currently active profile."),
          body, textColor);
    label(o.websiteTitleLabel, nullptr, title, titleColor);
    label(o.websiteMessageLabel, nullptr, body, textColor);
    label(o.reloadTitleLabel, N_("Reloading ..."), title, titleColor);
    label(o.errorTitleLabel, N_("Blocker Not Enabled"), title, titleColor);
    // The error message is drawn in the title colour on purpose.
    label(o.errorMessageLabel, N_("The blocker extension is not enabled."), body, titleColor);

    const auto row = [&](const std::shared_ptr<ExtensionButton>& button, const char* text) {
        if (!button || !button->nameTextField()) return;
        if (text) button->nameTextField()->setStringValue(localized(text));
        button->nameTextField()->setFont(body);
    };
    row(o.statusButton, nullptr);
    row(o.counterButton, nullptr);
    row(o.visualBlockButton, N_("Block and Hide Visually"));
    row(o.blockButton, N_("Block Website"));
    row(o.secureButton, N_("Secure Website"));
    row(o.whitelistButton, N_("Allow Website"));
    row(o.profileButton, N_("Active Profile"));
    row(o.appButton, N_("Open Stonewall"));

    if (o.profileDoneButton) o.profileDoneButton->setTitle(localized("Activate"));
    if (o.errorDoneButton) o.errorDoneButton->setTitle(localized("OK"));

    const NSColor separator = Custom::extensionSeperatorLine();
    for (const auto& line : o.lineViews) {
        if (line) line->setLayerBackgroundColor(separator);
    }
}

void SafariExtensionViewController::setupViews() {
    Outlets& o = *outlets_;
    const platform::Host& host = platform::host();
    if (host.isOperatingSystemAtLeastVersion({11, 0, 0})) {
        for (const auto& constraint : o.mainStackConstraints) {
            if (constraint) constraint->setConstant(5);
        }
        return;
    }
    if (host.isOperatingSystemAtLeastVersion({10, 13, 0})) return;
    if (platform::toolkit().userInterfaceLayoutDirection() != LayoutDirection::RightToLeft) return;
    for (const auto& stack : o.messageStacks) {
        if (stack) stack->setSpacing(12);
    }
    for (const auto& constraint : o.centerY) {
        if (constraint) constraint->setConstant(constraint->constant() - 5);
    }
}

void SafariExtensionViewController::setupSeperators() {
    if (!platform::host().isOperatingSystemAtLeastVersion({11, 0, 0})) return;
    for (const auto& constraint : outlets_->separatorConstraints) {
        if (constraint) constraint->setConstant(15);
    }
}

void SafariExtensionViewController::setupButtons() {
    for (auto* button : outlets_->rows()) {
        if (*button) (*button)->clear();
    }
}

}  // namespace stonewall
