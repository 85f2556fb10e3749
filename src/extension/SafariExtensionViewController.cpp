#include "extension/SafariExtensionViewController.h"

// SafariExtensionViewController: the shared instance and its creation, the
// toolbar image, the reload outcome and the active page. Layout, view
// switching and actions are in the files beside this one.

#include <atomic>
#include <mutex>

#include "extension/SafariExtensionViewControllerInternal.h"
#include "platform/Platform.h"
#include "platform/Process.h"

namespace stonewall {

using namespace front_detail;

namespace {

constexpr double kPopoverHeight = 396;

std::mutex& instanceMutex() {
    static std::mutex mutex;
    return mutex;
}

std::unique_ptr<SafariExtensionViewController>& instance() {
    static std::unique_ptr<SafariExtensionViewController> controller;
    return controller;
}

}  // namespace

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
        [this, imageCode, image,
         known = !imageName.empty()](const std::shared_ptr<SFSafariWindow>& window) {
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

}  // namespace stonewall
