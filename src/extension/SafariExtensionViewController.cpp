#include "extension/SafariExtensionViewController.h"

#include <array>
#include <atomic>
#include <mutex>
#include <nlohmann/json.hpp>

#include "engine/PageProtocol.h"
#include "extension/Palette.h"
#include "extension/PopoverOutlets.h"
#include "extension/platform/FrontServices.h"
#include "model/RuleCodes.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "utilities/PunycodeAdditions.h"
#include "utilities/Unicode.h"

namespace stonewall {

namespace {

// Marks a text for the translation template (xgettext's keyword) where it is
// translated later, through localized().
constexpr const char* N_(const char* text) { return text; }

constexpr double kPopoverHeight = 396;
constexpr double kSwitchAnimationDuration = 0.05;
// Profile names longer than this many UTF-16 units are cut in the pop-up.
constexpr size_t kProfileTitleLimit = 40;

std::mutex& instanceMutex() {
    static std::mutex mutex;
    return mutex;
}

std::unique_ptr<SafariExtensionViewController>& instance() {
    static std::unique_ptr<SafariExtensionViewController> controller;
    return controller;
}

// Replaces the first "%@" of a localised format with one object
// argument; a null argument reads
// "(null)".
std::string format(const std::string& pattern, const NullableString& argument) {
    std::string text = pattern;
    const size_t at = text.find("%@");
    if (at != std::string::npos) text.replace(at, 2, textOrNull(argument));
    return text;
}

// "a,b" -> {a, b}; "" -> {""}; null -> {}.
std::vector<std::string> split(const NullableString& list) {
    std::vector<std::string> parts;
    if (!list) return parts;
    size_t start = 0;
    while (true) {
        const size_t comma = list->find(',', start);
        parts.push_back(list->substr(start, comma - start));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return parts;
}

bool equalsIgnoringCase(const std::string& a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        const auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c; };
        if (lower(a[i]) != lower(b[i])) return false;
    }
    return true;
}

// The first `limit` UTF-16 units of `text`, never splitting a character
// (a pair cut in half would leave text no JSON writer or widget accepts).
// Nullopt when the text is no longer than the limit.
std::optional<std::string> utf16Prefix(const std::string& text, size_t limit) {
    const auto codePoints = unicode::decodeUTF8(text);
    if (!codePoints) return std::nullopt;
    size_t units = 0;
    for (char32_t c : *codePoints) units += unicode::utf16Length(c);
    if (units <= limit) return std::nullopt;
    std::u32string prefix;
    units = 0;
    for (char32_t c : *codePoints) {
        if (units + unicode::utf16Length(c) > limit) break;
        units += unicode::utf16Length(c);
        prefix.push_back(c);
    }
    return unicode::encodeUTF8(prefix);
}

void openURL(const char* url) { (void)platform::sharedWorkspace().openURL(url); }

}  // namespace

// Weak outlets: any of them may be null when the layout lacks it.
struct SafariExtensionViewController::Outlets {
    std::array<std::shared_ptr<NSStackView>, 6> stacks;

    std::shared_ptr<NSTextField> statusHeaderLabel, visualHeaderLabel, customRulesHeaderLabel,
        activeProfileHeaderLabel, appHeaderLabel, visualTitleLabel, visualMessageLabel,
        profileTitleLabel, profileMessageLabel, websiteTitleLabel, websiteMessageLabel,
        reloadTitleLabel, errorTitleLabel, errorMessageLabel;
    std::shared_ptr<NSImageView> statusImageView, counterImageView;
    std::shared_ptr<ExtensionButton> statusButton, counterButton, visualBlockButton, blockButton,
        secureButton, whitelistButton, profileButton, appButton;
    std::array<std::shared_ptr<NSView>, 4> lineViews;
    std::shared_ptr<NSButton> visualCancelButton, visualDoneButton, profileCancelButton,
        profileDoneButton, websiteCancelButton, websiteDoneButton, errorDoneButton;
    std::shared_ptr<NSPopUpButton> profilePopupButton;
    std::shared_ptr<NSProgressIndicator> reloadProgressIndicator;
    std::array<std::shared_ptr<NSStackView>, 3> messageStacks;
    std::array<std::shared_ptr<NSLayoutConstraint>, 3> centerY;
    std::array<std::shared_ptr<NSLayoutConstraint>, 8> separatorConstraints;
    std::array<std::shared_ptr<NSLayoutConstraint>, 2> mainStackConstraints;

    std::array<std::shared_ptr<ExtensionButton>*, 8> rows() {
        return {&statusButton, &counterButton,   &visualBlockButton, &blockButton,
                &secureButton, &whitelistButton, &profileButton,     &appButton};
    }
};

SafariExtensionViewController& SafariExtensionViewController::sharedInstance() {
    std::lock_guard lock(instanceMutex());
    auto& controller = instance();
    if (!controller) controller = std::make_unique<SafariExtensionViewController>();
    return *controller;
}

void SafariExtensionViewController::resetSharedInstanceForTesting() {
    std::unique_ptr<SafariExtensionViewController> old;
    {
        std::lock_guard lock(instanceMutex());
        old = std::move(instance());
    }
}

SafariExtensionViewController::SafariExtensionViewController()
    : outlets_(std::make_unique<Outlets>()) {
    popoverView_ = platform::toolkit().loadPopoverView();
    loadOutlets();

    const platform::Host& host = platform::host();
    double width = 300;
    if (host.isOperatingSystemAtLeastVersion({11, 0, 0})) {
        width = 290;
    } else if (!host.isOperatingSystemAtLeastVersion({10, 13, 0}) &&
               platform::toolkit().userInterfaceLayoutDirection() == LayoutDirection::RightToLeft) {
        width = 280;
    }
    if (popoverView_) popoverView_->setPreferredContentSize({width, kPopoverHeight});

    extensionState_ = ExtensionState::sharedInstance();
    extensionStatus_ = 1;
    websiteAction_ = 1;
    visualAction_ = 1;

    companionController_ = std::make_unique<CompanionController>();
    companionController_->setSharedData(companionController_->sharedDatabase().getSharedData());

    reloading_ = false;
    popoverVisible_ = false;
    blockingStatController_ = std::make_unique<BlockingStatController>();

    setupViews();
    setupLabels();
    setupSeperators();
    connectActions();
}

SafariExtensionViewController::~SafariExtensionViewController() = default;

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

// --- View switching -------------------------------------------------------------------

void SafariExtensionViewController::showExtensionView(ExtensionView view, Animated animated) {
    if (!popoverVisible_) return;
    Outlets& o = *outlets_;
    // The stacks are in view order, the main view's first.
    const auto showOnly = [&](ExtensionView shown) {
        for (size_t i = 0; i < o.stacks.size(); ++i) {
            if (o.stacks[i])
                o.stacks[i]->setHidden(static_cast<int64_t>(i) + 1 !=
                                       static_cast<int64_t>(shown));
        }
        currentView_ = shown;
    };
    platform::toolkit().runAnimationGroup(
        animated == Animated::Yes ? kSwitchAnimationDuration : 0.0,
        [&] {
            switch (view) {
                case ExtensionView::Main:
                    if (o.reloadProgressIndicator) o.reloadProgressIndicator->stopAnimation();
                    updateMenu();
                    setupButtons();
                    updateStatus();
                    updateCounterStatus();
                    setupProfileButton();
                    showOnly(view);
                    break;
                case ExtensionView::Picking:
                    updateVisual();
                    showOnly(view);
                    break;
                case ExtensionView::Profile:
                case ExtensionView::Website:
                case ExtensionView::Error:
                    showOnly(view);
                    break;
                case ExtensionView::Reloading:
                    if (o.reloadProgressIndicator) o.reloadProgressIndicator->startAnimation();
                    showOnly(view);
                    break;
                default:
                    break;
            }
        },
        nullptr);
}

void SafariExtensionViewController::refreshSharedData(Repair repair) {
    CompanionController& engine = *companionController_;
    engine.setSharedData(engine.sharedDatabase().getSharedData());
    if (!engine.sharedData() && repair == Repair::Yes) {
        engine.sharedDatabase().reconnectDatabase();
        engine.syncShared();
    }
    const auto& data = engine.sharedData();
    profiles_ = split(data ? data->profiles : std::nullopt);
    profileIDs_ = split(data ? data->profileIDs : std::nullopt);
}

void SafariExtensionViewController::popoverWillShowInWindow(int64_t visualStatus) {
    popoverVisible_ = true;
    refreshSharedData(Repair::Yes);
    if (visualStatus == 1) {
        showExtensionView(ExtensionView::Picking, Animated::No);
    } else {
        showExtensionView(reloading_ ? ExtensionView::Reloading : ExtensionView::Main,
                          Animated::No);
    }
    getActivePageURL([this](const std::shared_ptr<SFSafariPage>&, NullableString url) {
        platform::dispatch().mainQueue().async([this, url] { updateWebsiteButtons(url); });
    });
}

void SafariExtensionViewController::popoverWillCloseInWindow() { popoverVisible_ = false; }

void SafariExtensionViewController::updateMenu() {
    refreshSharedData(Repair::No);
    getActivePageURL([this](const std::shared_ptr<SFSafariPage>&, NullableString url) {
        platform::dispatch().mainQueue().async([this, url] { updateWebsiteButtons(url); });
    });
}

void SafariExtensionViewController::setButtonTitle(const std::shared_ptr<ExtensionButton>& button,
                                                   const std::string& title) {
    if (button && button->nameTextField()) button->nameTextField()->setStringValue(title);
}

void SafariExtensionViewController::setButtonEnabled(const std::shared_ptr<ExtensionButton>& button,
                                                     bool enabled) {
    if (button) button->setEnabled(enabled);
}

void SafariExtensionViewController::updateWebsiteButtons(const NullableString& url) {
    Outlets& o = *outlets_;
    NullableString host;
    NullableString scheme;
    if (url) {
        host = PunycodeAdditions::hostFromURL(*url);
        if (host) host = PunycodeAdditions::IDNADecodedString(*host);
        scheme = PunycodeAdditions::schemeFromURL(*url);
    }
    website_ = host;
    if (url && (scheme == "http" || scheme == "https")) {
        setButtonTitle(o.blockButton, format(localized("Block %@"), host));
        setButtonTitle(o.secureButton, format(localized("Secure %@"), host));
        setButtonTitle(o.whitelistButton, format(localized("Allow %@"), host));
        setButtonEnabled(o.visualBlockButton, true);
        const NullableString ascii =
            host ? NullableString(PunycodeAdditions::IDNAEncodedString(*host)) : std::nullopt;
        // One read of the profile answers all three lists.
        static constexpr std::array<int64_t, 3> kLists = {
            ActionCode::kBlockWebsite, ActionCode::kSecureWebsite, ActionCode::kAllowWebsite};
        const std::vector<bool> listed = companionController_->checkWebsiteExists(ascii, kLists);
        setButtonEnabled(o.blockButton, !listed[0]);
        setButtonEnabled(o.secureButton, !listed[1]);
        setButtonEnabled(o.whitelistButton, !listed[2]);
        return;
    }
    setButtonTitle(o.blockButton, localized("Block Website"));
    setButtonTitle(o.secureButton, localized("Secure Website"));
    setButtonTitle(o.whitelistButton, localized("Allow Website"));
    setButtonEnabled(o.visualBlockButton, false);
    setButtonEnabled(o.blockButton, false);
    setButtonEnabled(o.secureButton, false);
    setButtonEnabled(o.whitelistButton, false);
}

bool SafariExtensionViewController::counterOn() const {
    return extensionState_ && extensionState_->blockingCounter();
}

void SafariExtensionViewController::updateStatus() {
    Outlets& o = *outlets_;
    const auto& data = companionController_->sharedData();
    const bool on = data && data->status == 1;
    auto& toolkit = platform::toolkit();
    setButtonTitle(o.statusButton, localized(on ? N_("Turn Off Content Blocking")
                                                : N_("Turn On Content Blocking")));
    auto image = toolkit.imageNamed(on ? "ext_status_on" : "ext_status_off");
    if (o.statusImageView) o.statusImageView->setImage(image);
    if (o.statusButton) {
        // Told as a toggle named for what it switches, on or off; the
        // visible title says what a press does.
        if (const auto& view = o.statusButton->view()) {
            view->setAccessibilityLabel(localized("Content Blocking"));
            view->setAccessibilityValue(on);
        }
        o.statusButton->setImage(image);
        o.statusButton->setImageSelected(
            toolkit.imageNamed(on ? "ext_status_on_selected" : "ext_status_off_selected"));
    }
}

void SafariExtensionViewController::updateCounterStatus() {
    Outlets& o = *outlets_;
    const bool on = counterOn();
    auto& toolkit = platform::toolkit();
    setButtonTitle(o.counterButton, localized(on ? N_("Turn Off Blocking Counter")
                                                 : N_("Turn On Blocking Counter")));
    auto image = toolkit.imageNamed(on ? "ext_status_on" : "ext_status_off");
    if (o.counterImageView) o.counterImageView->setImage(image);
    if (o.counterButton) {
        // Told as a toggle named for what it switches, on or off; the
        // visible title says what a press does.
        if (const auto& view = o.counterButton->view()) {
            view->setAccessibilityLabel(localized("Blocking Counter"));
            view->setAccessibilityValue(on);
        }
        o.counterButton->setImage(image);
        o.counterButton->setImageSelected(
            toolkit.imageNamed(on ? "ext_status_on_selected" : "ext_status_off_selected"));
    }
}

std::string SafariExtensionViewController::displayProfileName(const std::string& name) const {
    if (equalsIgnoringCase(name, "Default Profile")) return localized("Default Profile");
    if (equalsIgnoringCase(name, "New Profile")) return localized("New Profile");
    return name;
}

void SafariExtensionViewController::setupProfileButton() {
    const auto& data = companionController_->sharedData();
    activeProfileID_ = data ? data->activeProfileID : std::nullopt;
    for (size_t i = 0; i < profileIDs_.size(); ++i) {
        if (profileIDs_[i] == activeProfileID_) {
            // A names list shorter than the identifiers keeps the old name.
            if (i < profiles_.size()) activeProfileName_ = profiles_[i];
            break;
        }
    }
    if (activeProfileName_) activeProfileName_ = displayProfileName(*activeProfileName_);
    setButtonTitle(outlets_->profileButton, textOrNull(activeProfileName_));
}

// --- Toolbar image and completion ------------------------------------------------------

void SafariExtensionViewController::changeToolbarImage(ToolbarImage imageCode) {
    std::string imageName;
    switch (imageCode) {
        case ToolbarImage::Off:
            imageName = "ToolbarItemIconOff";
            reloading_ = false;
            break;
        case ToolbarImage::Reloading:
            imageName = "ToolbarItemIconReloading";
            reloading_ = true;
            break;
        case ToolbarImage::Normal:
            imageName = "ToolbarItemIcon";
            reloading_ = false;
            break;
        default:
            break;
    }
    auto image = imageName.empty() ? nullptr : platform::toolkit().imageNamed(imageName);
    platform::safariApplication().getActiveWindowWithCompletionHandler(
        [this, imageCode, image, known = !imageName.empty()](
            const std::shared_ptr<SFSafariWindow>& window) {
            if (!window) return;
            window->getToolbarItemWithCompletionHandler(
                [this, imageCode, image, known](const std::shared_ptr<SFSafariToolbarItem>& item) {
                    if (!item) return;
                    if (!item->respondsToSetImage()) {
                        showExtensionView(ExtensionView::Main, Animated::Yes);
                        return;
                    }
                    item->setImage(image);
                    if (known) {
                        showExtensionView(imageCode == ToolbarImage::Reloading
                                              ? ExtensionView::Reloading
                                              : ExtensionView::Main,
                                          Animated::Yes);
                    }
                });
        });
}

void SafariExtensionViewController::processCompletedAction() {
    changeToolbarImage(ToolbarImage::Normal);
    if (counterOn()) platform::safariApplication().setToolbarItemsNeedUpdate();
    dismissMainPopover();
}

void SafariExtensionViewController::dismissMainPopover() {
    if (popoverView_ && popoverView_->respondsToDismissPopover()) popoverView_->dismissPopover();
}

void SafariExtensionViewController::completeReload(const std::optional<Error>& error,
                                                   const char* url) {
    processCompletedAction();
    if (!ExtensionState::isSafariVersionAvailable(kServicesLevel11) && error) {
        openURL(url);
        return;
    }
    reloadPage();
}

void SafariExtensionViewController::reloadPage() {
    getActivePage([](const std::shared_ptr<SFSafariPage>& page) { page->reload(); });
}

void SafariExtensionViewController::getActivePage(
    std::function<void(std::shared_ptr<SFSafariPage>)> completion) {
    platform::safariApplication().getActiveWindowWithCompletionHandler(
        [completion = std::move(completion)](const std::shared_ptr<SFSafariWindow>& window) {
            if (!window) return;
            window->getActiveTabWithCompletionHandler(
                [completion](const std::shared_ptr<SFSafariTab>& tab) {
                    if (!tab) return;
                    tab->getActivePageWithCompletionHandler(
                        [completion](const std::shared_ptr<SFSafariPage>& page) {
                            if (page && completion) completion(page);
                        });
                });
        });
}

void SafariExtensionViewController::getActivePageURL(
    std::function<void(std::shared_ptr<SFSafariPage>, NullableString)> completion) {
    getActivePage([completion = std::move(completion)](const std::shared_ptr<SFSafariPage>& page) {
        page->getPagePropertiesWithCompletionHandler(
            [page, completion](std::optional<SFSafariPageProperties> properties) {
                if (completion) completion(page, properties ? properties->url : std::nullopt);
            });
    });
}

// --- Actions -------------------------------------------------------------------------------

void SafariExtensionViewController::changeStatusAction() {
    updateStatus();
    companionController_->changeStatus([this](std::optional<Error>) {
        const auto& data = companionController_->sharedData();
        const int64_t status = data ? data->status : 0;
        if (data && status == 0 && extensionState_) {
            extensionState_->setStatusUpdated(false);
            extensionState_->saveData();
        }
        changeToolbarImage(ToolbarImage::Reloading);
        updateStatus();
        CompanionController::reloadBlockerRules(
            std::nullopt, companionController_->activeDatabase(),
            [this](std::optional<Error> error) {
                const auto& record = companionController_->sharedData();
                changeToolbarImage(record && record->status == 1 ? ToolbarImage::Normal : ToolbarImage::Off);
                blockingStatController_->removeAllURLs();
                if (counterOn()) platform::safariApplication().setToolbarItemsNeedUpdate();
                dismissMainPopover();
                if (!ExtensionState::isSafariVersionAvailable(kServicesLevel11) && error) {
                    openURL(InternalURL::kStatus);
                } else {
                    reloadPage();
                }
            });
    });
}

void SafariExtensionViewController::changeCounterAction() {
    Outlets& o = *outlets_;
    if (!ExtensionState::isSafariVersionAvailable(kServicesLevel13)) {
        if (o.errorTitleLabel) o.errorTitleLabel->setStringValue(localized("Requires Safari 13"));
        if (o.errorMessageLabel) {
            o.errorMessageLabel->setStringValue(
                localized("This feature is only available in Safari 13 or above."));
        }
        if (o.errorDoneButton) o.errorDoneButton->setTitle(localized("OK"));
        showExtensionView(ExtensionView::Error, Animated::No);
        return;
    }
    if (extensionState_) {
        extensionState_->setBlockingCounter(!extensionState_->blockingCounter());
        extensionState_->saveData();
    }
    updateCounterStatus();
    platform::safariApplication().setToolbarItemsNeedUpdate();
    dismissMainPopover();
}

void SafariExtensionViewController::visualBlockAction() {
    visualAction_ = 2;
    getActivePage([this](const std::shared_ptr<SFSafariPage>& page) {
        page->dispatchMessageToScriptWithName(page_protocol::kBlockVisually, nlohmann::json::object());
        extensionStatus_ = 2;
        page->getPagePropertiesWithCompletionHandler([this](std::optional<SFSafariPageProperties>) {
            platform::dispatch().mainQueue().async([this] { showExtensionView(ExtensionView::Picking, Animated::Yes); });
        });
    });
}

void SafariExtensionViewController::visualHideAction() {
    // The page script picks the same way for both; the rule made depends on
    // the element, not on the button.
    visualBlockAction();
    visualAction_ = 3;
}

void SafariExtensionViewController::visualCancelAction() {
    visualAction_ = 1;
    getActivePage([](const std::shared_ptr<SFSafariPage>& page) {
        page->dispatchMessageToScriptWithName(page_protocol::kVisualCancel, nullptr);
    });
    showExtensionView(ExtensionView::Main, Animated::Yes);
}

void SafariExtensionViewController::visualDoneAction() {
    visualAction_ = 1;
    // The page answers with "VisualData", whose reload shows view 5.
    getActivePage([](const std::shared_ptr<SFSafariPage>& page) {
        page->dispatchMessageToScriptWithName(page_protocol::kVisualDone, nullptr);
    });
}

void SafariExtensionViewController::askForWebsiteConfirmation(int64_t action,
                                                              const char* messageFormat,
                                                              const char* title,
                                                              const char* doneTitle) {
    Outlets& o = *outlets_;
    const std::string message = format(localized(messageFormat), website_) + localized("?");
    websiteAction_ = action;
    if (o.websiteTitleLabel) o.websiteTitleLabel->setStringValue(localized(title));
    if (o.websiteMessageLabel) o.websiteMessageLabel->setStringValue(message);
    if (o.websiteDoneButton) o.websiteDoneButton->setTitle(localized(doneTitle));
    showExtensionView(ExtensionView::Website, Animated::Yes);
}

void SafariExtensionViewController::blockWebsiteAction() {
    askForWebsiteConfirmation(2, N_("Are you sure you want to block %@"), N_("Block Website"),
                              N_("Block"));
}

void SafariExtensionViewController::secureWebsiteAction() {
    askForWebsiteConfirmation(3, N_("Are you sure you want to secure %@"), N_("Secure Website"),
                              N_("Secure"));
}

void SafariExtensionViewController::whitelistWebsiteAction() {
    askForWebsiteConfirmation(4, N_("Are you sure you want to whitelist %@"), N_("Allow Website"),
                              N_("Allow"));
}

void SafariExtensionViewController::websiteCancelAction() {
    websiteAction_ = 1;
    showExtensionView(ExtensionView::Main, Animated::Yes);
}

void SafariExtensionViewController::websiteDoneAction() {
    changeToolbarImage(ToolbarImage::Reloading);
    const int64_t action = websiteAction_;
    if (action < 2 || action > 4) {
        // Nothing was confirmed; the icon stays on reloading until the next
        // validation or completion puts it right.
        websiteAction_ = 1;
        return;
    }
    getActivePageURL([this, action](const std::shared_ptr<SFSafariPage>&, NullableString url) {
        // Storing waits for any other program that holds the databases
        // (the application, the command, another browser), for as long as
        // it holds them: on a worker, with an engine of its own, so that
        // the popover shows the wait and the window stays live meanwhile.
        platform::dispatch().globalQueue(platform::QueuePriority::High).async([this, action, url] {
            storeWebsiteChoice(action, url);
        });
    });
    websiteAction_ = 1;
}

namespace {
constexpr std::chrono::milliseconds kStorageWaitLimit{60000};
std::atomic<int64_t> gStorageWaitLimitMs{kStorageWaitLimit.count()};
}  // namespace

std::chrono::milliseconds SafariExtensionViewController::storageWaitLimit() {
    return std::chrono::milliseconds(gStorageWaitLimitMs.load());
}

void SafariExtensionViewController::setStorageWaitLimitForTesting(std::chrono::milliseconds limit) {
    gStorageWaitLimitMs = limit.count() < 0 ? kStorageWaitLimit.count() : limit.count();
}

std::shared_ptr<void> SafariExtensionViewController::takeContainerTurn() {
    const auto container =
        platform::host().containerPathForApplicationGroup(std::string(kApplicationGroup));
    if (!container) return nullptr;
    std::string why;
    std::shared_ptr<platform::FileLock> lock = platform::lockFile(
        *container + "/" + std::string(ContainerLayout::kContainerLockFile), why);
    if (!lock) platform::log(platform::LogLevel::Error, "The container cannot be locked: " + why);
    return lock;
}

void SafariExtensionViewController::storeWebsiteChoice(int64_t action, const NullableString& url) {
    // Until the rule file is written: the last program to write it then
    // wrote every change.
    const auto turn = takeContainerTurn();
    auto engine = std::make_shared<CompanionController>();
    const auto& database = engine->activeDatabase();
    const int64_t list = action == 2   ? ActionCode::kBlockWebsite
                         : action == 3 ? ActionCode::kSecureWebsite
                                       : ActionCode::kAllowWebsite;
    // Waiting first, rather than retrying a write that failed part-way,
    // means the choice is written once: the shared record and the profile
    // are written together, after the lock is gone.
    if (!database || !database->waitForWriteAccess(storageWaitLimit())) {
        websiteChoiceNotStored();
        return;
    }
    const CompletionHandler stored = [](std::optional<Error>) {};
    switch (action) {
        case 2:
            engine->createBlockWebsiteCustomRule(url, stored);
            break;
        case 3:
            engine->createSecureWebsiteCustomRule(url, stored);
            break;
        default:
            engine->createWhitelistWebsiteCustomRule(url, stored);
            break;
    }
    // The engine cannot tell a dropped write from a stored one; with the
    // shared record only (status 0) the profile has nothing to show.
    const NullableString host = CompanionController::hostFromURL(url);
    if (engine->getWebsitesStatusShared(list) != WebsiteListStatus::kSharedOnly &&
        !engine->checkWebsiteExists(host, list)) {
        websiteChoiceNotStored();
        return;
    }
    const char* internalURL = action == 2   ? InternalURL::kBlockWebsite
                              : action == 3 ? InternalURL::kSecureWebsite
                                            : nullptr;
    const auto& data = engine->sharedData();
    CompanionController::reloadBlockerRules(
        data ? data->activeProfileID : std::nullopt, database,
        [this, internalURL, engine](std::optional<Error> error) {
            if (internalURL) {
                completeReload(error, internalURL);
                return;
            }
            // Allowing a website reports a failure on every browser: the
            // user expects the page to load now and it may not.
            processCompletedAction();
            if (error) {
                openURL(InternalURL::kAllowWebsite);
            } else {
                reloadPage();
            }
        });
}

void SafariExtensionViewController::websiteChoiceNotStored() {
    platform::dispatch().mainQueue().async([this] {
        Outlets& o = *outlets_;
        if (o.errorTitleLabel) o.errorTitleLabel->setStringValue(localized("Nothing Changed"));
        if (o.errorMessageLabel) {
            o.errorMessageLabel->setStringValue(
                localized("Another program kept the blocker's rules busy. Try again later."));
        }
        if (o.errorDoneButton) o.errorDoneButton->setTitle(localized("OK"));
        changeToolbarImage(ToolbarImage::Normal);
        // After the view that the image change shows.
        getActivePage([this](const std::shared_ptr<SFSafariPage>&) {
            platform::dispatch().mainQueue().async([this] { showExtensionView(ExtensionView::Error, Animated::No); });
        });
    });
}

void SafariExtensionViewController::changeActiveProfile() {
    Outlets& o = *outlets_;
    showExtensionView(ExtensionView::Profile, Animated::Yes);
    for (size_t i = 0; i < profileIDs_.size(); ++i) {
        if (profileIDs_[i] == activeProfileID_) {
            if (i < profiles_.size()) setButtonTitle(o.profileButton, profiles_[i]);
            break;
        }
    }
    if (!o.profilePopupButton) return;
    NSPopUpButton& popup = *o.profilePopupButton;
    popup.removeAllItems();
    int64_t selected = -1;
    for (size_t i = 0; i < profileIDs_.size(); ++i) {
        std::string title = displayProfileName(i < profiles_.size() ? profiles_[i] : std::string());
        if (auto prefix = utf16Prefix(title, kProfileTitleLimit)) title = *prefix + "...";
        popup.addItem(NSMenuItem{title, "", static_cast<int64_t>(i)});
        if (profileIDs_[i] == activeProfileID_) selected = static_cast<int64_t>(i);
    }
    popup.selectItemAtIndex(selected < 0 ? 0 : selected);
}

void SafariExtensionViewController::profileCancelAction() { showExtensionView(ExtensionView::Main, Animated::Yes); }

void SafariExtensionViewController::profileDoneAction() {
    const auto& popup = outlets_->profilePopupButton;
    if (!popup) return;
    const auto item = popup->selectedItem();
    if (!item || item->tag < 0 || static_cast<size_t>(item->tag) >= profileIDs_.size()) return;
    const std::string identifier = profileIDs_[static_cast<size_t>(item->tag)];
    if (identifier == activeProfileID_) return;
    changeToolbarImage(ToolbarImage::Reloading);
    platform::dispatch().globalQueue(platform::QueuePriority::High).async([this, identifier] {
        CompanionController& engine = *companionController_;
        engine.activateProfile(identifier, [this, identifier](std::optional<Error>) {
            CompanionController& activated = *companionController_;
            activated.connectProfileDatabase();
            CompanionController::reloadBlockerRules(
                identifier, activated.activeDatabase(), [this](std::optional<Error> error) {
                    completeReload(error, InternalURL::kActivate);
                });
        });
    });
}

void SafariExtensionViewController::errorDoneAction() { showExtensionView(ExtensionView::Main, Animated::Yes); }

void SafariExtensionViewController::openAppAction() {
    platform::dispatch().globalQueue(platform::QueuePriority::Default).async([] {
        openURL(InternalURL::kOpen);
    });
}

}  // namespace stonewall
