#include "extension/testing/SimulatedBrowser.h"

#include "engine/PageProtocol.h"
#include "platform/ContainerLayout.h"
#include "platform/Platform.h"

namespace stonewall::testing {

namespace {

// The browser answers later, on a thread of its own choosing.
void later(platform::Work work) {
    platform::dispatch().globalQueue(platform::QueuePriority::Default).async(std::move(work));
}

}  // namespace

SimulatedPage::SimulatedPage(std::weak_ptr<SimulatedBrowser> browser, int id,
                             std::optional<std::string> url)
    : browser_(std::move(browser)), id_(id), url_(std::move(url)) {}

bool SimulatedPage::isEqual(const SFSafariPage& other) const {
    auto* page = dynamic_cast<const SimulatedPage*>(&other);
    return page && page->id_ == id_;
}

void SimulatedPage::getPagePropertiesWithCompletionHandler(PropertiesHandler completionHandler) {
    std::optional<SFSafariPageProperties> properties;
    if (answersProperties_) properties = SFSafariPageProperties{url_, active_};
    later([completionHandler = std::move(completionHandler), properties] {
        if (completionHandler) completionHandler(properties);
    });
}

void SimulatedPage::getContainingTabWithCompletionHandler(TabHandler completionHandler) {
    later([completionHandler = std::move(completionHandler), tab = tab_.lock()] {
        if (completionHandler) completionHandler(tab);
    });
}

void SimulatedPage::dispatchMessageToScriptWithName(const std::string& messageName,
                                                    const nlohmann::json& userInfo) {
    messages_.push_back({messageName, userInfo});
    if (!hasScript_) return;
    std::weak_ptr<SimulatedPage> weakSelf = weak_from_this();
    later([weakSelf, messageName] {
        auto self = weakSelf.lock();
        if (!self) return;
        auto browser = self->browser_.lock();
        if (messageName == page_protocol::kVisualStatus) {
            if (browser)
                browser->deliverMessage(page_protocol::kVisualStatus, self,
                                        {{page_protocol::kStatusKey, self->picking_ ? 1 : 0}});
        } else if (messageName == page_protocol::kBlockVisually) {
            self->picking_ = true;
        } else if (messageName == page_protocol::kVisualCancel) {
            self->picking_ = false;
        } else if (messageName == page_protocol::kVisualDone) {
            self->picking_ = false;
            if (browser && !self->pickedElements_.empty()) {
                browser->deliverMessage(page_protocol::kVisualData, self,
                                        {{page_protocol::kDataKey, self->pickedElements_}});
            }
        }
    });
}

void SimulatedTab::getActivePageWithCompletionHandler(PageHandler completionHandler) {
    later([completionHandler = std::move(completionHandler), page = activePage] {
        if (completionHandler) completionHandler(page);
    });
}

void SimulatedWindow::getActiveTabWithCompletionHandler(TabHandler completionHandler) {
    later([completionHandler = std::move(completionHandler), tab = activeTab] {
        if (completionHandler) completionHandler(tab);
    });
}

void SimulatedWindow::getToolbarItemWithCompletionHandler(ToolbarItemHandler completionHandler) {
    later([completionHandler = std::move(completionHandler), item = toolbarItem] {
        if (completionHandler) completionHandler(item);
    });
}

void SimulatedApplication::getActiveWindowWithCompletionHandler(WindowHandler completionHandler) {
    later([completionHandler = std::move(completionHandler), window = activeWindow] {
        if (completionHandler) completionHandler(window);
    });
}

bool RecordingWorkspace::openURL(const std::string& url) {
    std::lock_guard lock(mutex_);
    opened_.push_back(url);
    return true;
}

std::vector<std::string> RecordingWorkspace::openedURLs() const {
    std::lock_guard lock(mutex_);
    return opened_;
}

std::shared_ptr<SimulatedBrowser> SimulatedBrowser::create() {
    return std::shared_ptr<SimulatedBrowser>(new SimulatedBrowser());
}

std::shared_ptr<SimulatedPage> SimulatedBrowser::openWindow(std::optional<std::string> url) {
    auto window = std::make_shared<SimulatedWindow>();
    window->activeTab = std::make_shared<SimulatedTab>();
    auto page = std::make_shared<SimulatedPage>(weak_from_this(), nextPageID_++, std::move(url));
    page->setTab(window->activeTab);
    window->activeTab->activePage = page;
    windows_.push_back(window);
    application_->activeWindow = window;
    return page;
}

std::shared_ptr<SimulatedToolbarItem> SimulatedBrowser::toolbarItem() const {
    return application_->activeWindow ? application_->activeWindow->toolbarItem : nullptr;
}

std::shared_ptr<SimulatedPage> SimulatedBrowser::activePage() const {
    const auto& window = application_->activeWindow;
    if (!window || !window->activeTab) return nullptr;
    return window->activeTab->activePage;
}

void SimulatedBrowser::validateToolbar() {
    std::weak_ptr<SimulatedBrowser> weakSelf = weak_from_this();
    SafariExtensionHandler().validateToolbarItemInWindow(
        application_->activeWindow, [weakSelf](bool enabled, std::optional<std::string> badge) {
            if (auto self = weakSelf.lock())
                self->validations_.push_back({enabled, std::move(badge)});
        });
}

void SimulatedBrowser::openPopover() {
    popoverOpen_ = true;
    SafariExtensionHandler().popoverWillShowInWindow(application_->activeWindow);
}

void SimulatedBrowser::closePopover() {
    popoverOpen_ = false;
    SafariExtensionHandler().popoverDidCloseInWindow(application_->activeWindow);
}

void SimulatedBrowser::reportBlocked(const std::shared_ptr<SimulatedPage>& page,
                                     std::vector<std::string> urls) {
    SafariExtensionHandler().contentBlockerWithIdentifier(
        ContainerLayout::kContentBlockerIdentifier, urls, page);
}

void SimulatedBrowser::navigate(const std::shared_ptr<SimulatedPage>& page,
                                std::optional<std::string> url) {
    SafariExtensionHandler().page(page, url);
    // The page's properties answer later, with the old URL still in place.
    later([page, url] { page->setURL(url); });
}

void SimulatedBrowser::deliverMessage(const std::string& name,
                                      const std::shared_ptr<SimulatedPage>& page,
                                      const nlohmann::json& userInfo) {
    SafariExtensionHandler().messageReceivedWithName(name, page, userInfo);
}

}  // namespace stonewall::testing
