#include "extension/SafariExtensionViewController.h"

// SafariExtensionViewController: which of the six views shows, and the rows
// of the main view refreshed as it shows (status and counter switches,
// website buttons, profile button).

#include "extension/SafariExtensionViewControllerInternal.h"
#include "model/RuleCodes.h"
#include "platform/Platform.h"
#include "utilities/PunycodeAdditions.h"

namespace stonewall {

using namespace front_detail;

// --- View switching -------------------------------------------------------------------

void SafariExtensionViewController::showExtensionView(ExtensionView view, Animated animated) {
    if (!popoverVisible_) return;
    Outlets& o = *outlets_;
    // The stacks are in view order, the main view's first.
    const auto showOnly = [&](ExtensionView shown) {
        for (size_t i = 0; i < o.stacks.size(); ++i) {
            if (o.stacks[i])
                o.stacks[i]->setHidden(static_cast<int64_t>(i) + 1 != static_cast<int64_t>(shown));
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

void SafariExtensionViewController::showSwitch(const std::shared_ptr<ExtensionButton>& button,
                                               const std::shared_ptr<NSImageView>& imageView,
                                               bool on, const std::string& title,
                                               const std::string& accessibleName) {
    auto& toolkit = platform::toolkit();
    setButtonTitle(button, title);
    auto image = toolkit.imageNamed(on ? "ext_status_on" : "ext_status_off");
    if (imageView) imageView->setImage(image);
    if (!button) return;
    // Told as a toggle named for what it switches, on or off; the visible
    // title says what a press does.
    if (const auto& view = button->view()) {
        view->setAccessibilityLabel(accessibleName);
        view->setAccessibilityValue(on);
    }
    button->setImage(image);
    button->setImageSelected(
        toolkit.imageNamed(on ? "ext_status_on_selected" : "ext_status_off_selected"));
}

void SafariExtensionViewController::updateStatus() {
    const auto& data = companionController_->sharedData();
    const bool on = data && data->status == 1;
    showSwitch(outlets_->statusButton, outlets_->statusImageView, on,
               localized(on ? N_("Turn Off Content Blocking") : N_("Turn On Content Blocking")),
               localized("Content Blocking"));
}

void SafariExtensionViewController::updateCounterStatus() {
    const bool on = counterOn();
    showSwitch(outlets_->counterButton, outlets_->counterImageView, on,
               localized(on ? N_("Turn Off Blocking Counter") : N_("Turn On Blocking Counter")),
               localized("Blocking Counter"));
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

}  // namespace stonewall
