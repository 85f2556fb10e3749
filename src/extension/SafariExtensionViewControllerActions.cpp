#include "extension/SafariExtensionViewController.h"

// SafariExtensionViewController: what the popover's buttons do, and the
// worker that stores a confirmed website choice.

#include <nlohmann/json.hpp>

#include "engine/PageProtocol.h"
#include "extension/SafariExtensionViewControllerInternal.h"
#include "model/RuleCodes.h"
#include "platform/Platform.h"
#include "platform/Process.h"
#include "utilities/PunycodeAdditions.h"

namespace stonewall {

using namespace front_detail;

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
                changeToolbarImage(record && record->status == 1 ? ToolbarImage::Normal
                                                                 : ToolbarImage::Off);
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
        page->dispatchMessageToScriptWithName(page_protocol::kBlockVisually,
                                              nlohmann::json::object());
        extensionStatus_ = 2;
        page->getPagePropertiesWithCompletionHandler([this](std::optional<SFSafariPageProperties>) {
            platform::dispatch().mainQueue().async(
                [this] { showExtensionView(ExtensionView::Picking, Animated::Yes); });
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
            platform::dispatch().mainQueue().async(
                [this] { showExtensionView(ExtensionView::Error, Animated::No); });
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

void SafariExtensionViewController::profileCancelAction() {
    showExtensionView(ExtensionView::Main, Animated::Yes);
}

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

void SafariExtensionViewController::errorDoneAction() {
    showExtensionView(ExtensionView::Main, Animated::Yes);
}

void SafariExtensionViewController::openAppAction() {
    platform::dispatch().globalQueue(platform::QueuePriority::Default).async([] {
        openURL(InternalURL::kOpen);
    });
}

}  // namespace stonewall
