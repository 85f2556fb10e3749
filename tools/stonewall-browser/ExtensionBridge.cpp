#include "ExtensionBridge.h"

#include <gtk/gtk.h>

#include <algorithm>
#include <cstdio>
#include <strings.h>

#include "engine/DataElement.h"
#include "platform/Platform.h"
#include "utilities/PunycodeAdditions.h"

namespace stonewall::browser {

namespace {

// Browser services levels: 2 is the first with reload errors reported
// in-browser, 5 the first with blocked-resource reports.
constexpr int64_t kServicesLevelReloadErrors = 2;
constexpr int64_t kServicesLevelBlockedResources = 5;

std::vector<std::string> splitAtCommas(const NullableString& text) {
    std::vector<std::string> parts;
    if (!text) return parts;
    size_t start = 0;
    while (true) {
        const size_t comma = text->find(',', start);
        parts.push_back(text->substr(start, comma - start));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return parts;
}

std::string format(std::string text, const std::string& argument) {
    if (const size_t at = text.find("%@"); at != std::string::npos) text.replace(at, 2, argument);
    return text;
}

std::optional<std::string> badgeText(int64_t count) {
    if (count == 0) return std::nullopt;
    return std::to_string(count);
}

bool equalsIgnoringCase(const std::string& a, const char* b) { return strcasecmp(a.c_str(), b) == 0; }

}  // namespace

ExtensionBridge::ExtensionBridge(BrowserUi& ui, PopoverViews& views, std::string resources)
    : ui_(ui),
      views_(views),
      resources_(std::move(resources)),
      extensionState_(*ExtensionState::sharedInstance()) {
    companionController_.setSharedData(companionController_.sharedDatabase().getSharedData());
    wireActions();
}

std::string ExtensionBridge::localized(const std::string& key) const {
    return platform::bundle().localizedString(key);
}

std::string ExtensionBridge::icon(const std::string& name) const {
    return resources_ + "/" + name + ".svg";
}

void ExtensionBridge::refreshSharedData(bool repair) {
    companionController_.setSharedData(companionController_.sharedDatabase().getSharedData());
    if (repair && !companionController_.sharedData()) {
        companionController_.sharedDatabase().reconnectDatabase();
        companionController_.syncShared();
    }
}

// --- Handler entries ----------------------------------------------------------

void ExtensionBridge::messageReceived(const std::string& name,
                                      const std::shared_ptr<BrowserPage>& page,
                                      const nlohmann::json& userInfo) {
    const std::optional<std::string> pageURL = page ? page->url() : std::nullopt;
    platform::log(platform::LogLevel::Info, "The extension received a message (" + name +
                                      ") from a script injected into (" +
                                      pageURL.value_or("(null)") + ") with userInfo (" +
                                      userInfo.dump(-1, ' ', false,
                                                    nlohmann::json::error_handler_t::replace) +
                                      ")");
    ui_.event("message " + name);
    if (name == "VisualStatus") {
        // Narrowed to a signed byte on purpose: 257 reads as 1.
        const auto& status = userInfo["status"];
        const int64_t value = status.is_number_integer() ? status.get<int64_t>()
                                                         : static_cast<int64_t>(status.get<double>());
        const bool picking = static_cast<int8_t>(value) == 1;
        if (popoverVisible_) {
            showExtensionView(picking ? kPickingView : (reloading_ ? kReloadingView : kMainView),
                              /*animated=*/false);
        }
    } else if (name == "VisualData") {
        std::vector<DataElement> elements;
        const NullableString host =
            pageURL ? PunycodeAdditions::hostFromURL(*pageURL) : std::nullopt;
        if (auto parsed = DataElement::elementsFromMessageData(userInfo["data"])) {
            for (auto& element : *parsed) {
                element.location = host;
                elements.push_back(std::move(element));
            }
        }
        if (elements.empty()) return;
        // A fresh engine for this message, as the handler always made one.
        auto engine = std::make_shared<CompanionController>();
        changeToolbarImage(2);
        engine->createVisualCustomRules(elements, [this, engine](std::optional<Error>) {
            CompanionController::reloadBlockerRules(
                engine->sharedData() ? engine->sharedData()->activeProfileID : std::nullopt,
                engine->activeDatabase(), [this, engine](std::optional<Error> error) {
                    reloadOutcome(ReloadOrigin::Visual, error);
                });
        });
    }
}

void ExtensionBridge::validateToolbarItem() {
    refreshSharedData(/*repair=*/true);
    const auto& shared = companionController_.sharedData();
    if (shared && shared->reload == 1) {
        SharedData record = *shared;
        record.reload = 0;
        companionController_.sharedDatabase().updateSharedDataDetails(record);
        companionController_.setSharedData(record);
        if (record.status != 1) {
            if (!extensionState_.statusUpdated()) {
                extensionState_.setStatusUpdated(true);
                extensionState_.saveData();
                reloadPage();
            }
        } else {
            reloadPage();
        }
    }
    const bool on = companionController_.sharedData() && companionController_.sharedData()->status == 1;
    // The toolbar image only; validation never switches the popover's view.
    ui_.setToolbarImage(on ? "ToolbarItemIcon" : "ToolbarItemIconOff");
    if (!on) reloading_ = false;
    if (ExtensionState::isSafariVersionAvailable(kServicesLevelBlockedResources)) {
        blockingStatController_.cleanupPages(extensionState_.blockingCounter());
        if (extensionState_.blockingCounter()) {
            if (!ui_.activePage()) return;  // no answer without an active window
            ui_.setBadgeText(badgeText(blockedCountForActivePage()));
            return;
        }
    }
    ui_.setBadgeText(std::nullopt);
}

void ExtensionBridge::popoverWillShow() {
    popoverVisible_ = true;
    refreshSharedData(/*repair=*/true);
    if (const auto& shared = companionController_.sharedData()) {
        profiles_ = splitAtCommas(shared->profiles);
        profileIDs_ = splitAtCommas(shared->profileIDs);
    }
    showExtensionView(reloading_ ? kReloadingView : kMainView, /*animated=*/false);
    auto page = ui_.activePage();
    refreshWebsiteButtons(page ? page->url() : std::nullopt);
    // The script answers with its picking state.
    if (page) page->dispatchMessageToScript("VisualStatus");
}

void ExtensionBridge::popoverDidClose() { popoverVisible_ = false; }

void ExtensionBridge::blockedResources(const std::vector<std::string>& urls,
                                       const std::shared_ptr<BrowserPage>& page) {
    blockingStatController_.addURLsForPage(urls, page);
    updateBlockingCounter();
}

void ExtensionBridge::willNavigate(const std::shared_ptr<BrowserPage>& page,
                                   const std::optional<std::string>& url) {
    if (!page || !page->url() || !url) return;
    blockingStatController_.removeURLsForPage(page);
}

int64_t ExtensionBridge::blockedCountForActivePage() const {
    auto page = ui_.activePage();
    return page ? blockingStatController_.URLsCountForPage(page) : 0;
}

void ExtensionBridge::updateBlockingCounter() {
    if (!extensionState_.blockingCounter()) return;
    auto page = ui_.activePage();
    if (!page || !page->url() || !page->isActive()) return;
    ui_.setBadgeText(badgeText(blockingStatController_.URLsCountForPage(page)));
}

// --- Controller -------------------------------------------------------------

void ExtensionBridge::showExtensionView(int code, bool animated) {
    if (!popoverVisible_) return;
    if (code == kMainView) {
        updateMenu();
        for (ExtensionButton* button :
             {views_.statusButton, views_.counterButton, views_.visualBlockButton,
              views_.blockButton, views_.secureButton, views_.whitelistButton,
              views_.profileButton, views_.appButton}) {
            button->clear();
        }
        updateStatus();
        updateCounterStatus();
        setupProfileButton();
    }
    showPopoverView(views_, code, animated);
    ui_.event("view " + std::to_string(code));
}

void ExtensionBridge::changeToolbarImage(int code) {
    switch (code) {
        case 1: ui_.setToolbarImage("ToolbarItemIcon"); reloading_ = false; break;
        case 2: ui_.setToolbarImage("ToolbarItemIconReloading"); reloading_ = true; break;
        case 3: ui_.setToolbarImage("ToolbarItemIconOff"); reloading_ = false; break;
        default: return;
    }
    showExtensionView(code == 2 ? kReloadingView : kMainView, /*animated=*/true);
}

void ExtensionBridge::processCompletedAction() {
    changeToolbarImage(1);
    if (extensionState_.blockingCounter()) ui_.toolbarItemsNeedUpdate();
    ui_.dismissPopover();
}

void ExtensionBridge::reloadPage() {
    if (auto page = ui_.activePage()) {
        page->reload();
        ui_.event("page-reload");
    }
}

void ExtensionBridge::reloadOutcome(ReloadOrigin origin, const std::optional<Error>& error) {
    static constexpr const char* kURLs[] = {
        "stonewall://status",         "stonewall://activate",        "stonewall://blockwebsite",
        "stonewall://securewebsite",  "stonewall://whitelistwebsite", "stonewall://visual"};
    const char* url = kURLs[static_cast<int>(origin)];
    if (error) ui_.event("reload-error " + error->message);
    if (origin == ReloadOrigin::Status) {
        const bool on = companionController_.sharedData() && companionController_.sharedData()->status == 1;
        changeToolbarImage(on ? 1 : 3);
        blockingStatController_.removeAllURLs();
        if (extensionState_.blockingCounter()) ui_.toolbarItemsNeedUpdate();
        ui_.dismissPopover();
    } else {
        processCompletedAction();
    }
    // Only allow-website reports its error on every browser version.
    const bool reportError = origin == ReloadOrigin::WhitelistWebsite ||
                             !ExtensionState::isSafariVersionAvailable(kServicesLevelReloadErrors);
    if (error && reportError) {
        ui_.openURL(url);
        return;
    }
    reloadPage();
}

void ExtensionBridge::refreshWebsiteButtons(const std::optional<std::string>& url) {
    const NullableString asciiHost = url ? PunycodeAdditions::hostFromURL(*url) : std::nullopt;
    const NullableString scheme = url ? PunycodeAdditions::schemeFromURL(*url) : std::nullopt;
    website_ = asciiHost ? PunycodeAdditions::IDNADecodedString(*asciiHost) : std::string();
    pageURL_ = url.value_or("");
    if (url && scheme && (*scheme == "http" || *scheme == "https") && asciiHost) {
        views_.blockButton->setTitle(format(localized("Block %@"), website_));
        views_.secureButton->setTitle(format(localized("Secure %@"), website_));
        views_.whitelistButton->setTitle(format(localized("Allow %@"), website_));
        views_.visualBlockButton->setEnabled(true);
        const std::string ascii = PunycodeAdditions::IDNAEncodedString(website_);
        views_.blockButton->setEnabled(!companionController_.checkWebsiteExists(ascii, 5));
        views_.secureButton->setEnabled(!companionController_.checkWebsiteExists(ascii, 7));
        views_.whitelistButton->setEnabled(!companionController_.checkWebsiteExists(ascii, 3));
        return;
    }
    views_.blockButton->setTitle(localized("Block Website"));
    views_.secureButton->setTitle(localized("Secure Website"));
    views_.whitelistButton->setTitle(localized("Allow Website"));
    for (ExtensionButton* button : {views_.visualBlockButton, views_.blockButton,
                                    views_.secureButton, views_.whitelistButton}) {
        button->setEnabled(false);
    }
}

void ExtensionBridge::updateMenu() {
    refreshSharedData(/*repair=*/false);
    if (const auto& shared = companionController_.sharedData()) {
        profiles_ = splitAtCommas(shared->profiles);
        profileIDs_ = splitAtCommas(shared->profileIDs);
    }
    auto page = ui_.activePage();
    refreshWebsiteButtons(page ? page->url() : std::nullopt);
}

void ExtensionBridge::updateStatus() {
    const bool on = companionController_.sharedData() && companionController_.sharedData()->status == 1;
    views_.statusButton->setTitle(
        localized(on ? "Turn Off Content Blocking" : "Turn On Content Blocking"));
    views_.statusButton->setImages(icon(on ? "ext_status_on" : "ext_status_off"),
                                   icon(on ? "ext_status_on_selected" : "ext_status_off_selected"));
}

void ExtensionBridge::updateCounterStatus() {
    const bool on = extensionState_.blockingCounter();
    views_.counterButton->setTitle(
        localized(on ? "Turn Off Blocking Counter" : "Turn On Blocking Counter"));
    views_.counterButton->setImages(icon(on ? "ext_status_on" : "ext_status_off"),
                                    icon(on ? "ext_status_on_selected" : "ext_status_off_selected"));
}

void ExtensionBridge::setupProfileButton() {
    if (companionController_.sharedData()) activeProfileID_ = companionController_.sharedData()->activeProfileID;
    for (size_t i = 0; i < profileIDs_.size() && i < profiles_.size(); ++i) {
        if (activeProfileID_ && profileIDs_[i] == *activeProfileID_) {
            activeProfileName_ = profiles_[i];
            break;
        }
    }
    if (equalsIgnoringCase(activeProfileName_, "Default Profile")) {
        activeProfileName_ = localized("Default Profile");
    } else if (equalsIgnoringCase(activeProfileName_, "New Profile")) {
        activeProfileName_ = localized("New Profile");
    }
    views_.profileButton->setTitle(activeProfileName_.empty() ? localized("Active Profile")
                                                              : activeProfileName_);
}

// --- Actions ------------------------------------------------------------------

void ExtensionBridge::wireActions() {
    views_.statusButton->setAction([this] { changeStatusAction(); });
    views_.counterButton->setAction([this] { changeCounterAction(); });
    views_.visualBlockButton->setAction([this] { visualBlockAction(); });
    views_.blockButton->setAction([this] { websiteAction(2); });
    views_.secureButton->setAction([this] { websiteAction(3); });
    views_.whitelistButton->setAction([this] { websiteAction(4); });
    views_.profileButton->setAction([this] { changeActiveProfile(); });
    views_.appButton->setAction([this] { openAppAction(); });
    const auto connect = [this](GtkWidget* button, void (ExtensionBridge::*action)()) {
        struct Binding { ExtensionBridge* self; void (ExtensionBridge::*action)(); };
        g_signal_connect_data(
            button, "clicked",
            G_CALLBACK(+[](GtkButton*, Binding* binding) { (binding->self->*binding->action)(); }),
            new Binding{this, action}, +[](gpointer data, GClosure*) { delete static_cast<Binding*>(data); },
            GConnectFlags(0));
    };
    connect(views_.visualCancelButton, &ExtensionBridge::visualCancelAction);
    connect(views_.visualDoneButton, &ExtensionBridge::visualDoneAction);
    connect(views_.profileDoneButton, &ExtensionBridge::profileDoneAction);
    connect(views_.websiteDoneButton, &ExtensionBridge::websiteDoneAction);
    const auto backToMain = +[](GtkButton*, ExtensionBridge* self) {
        self->websiteAction_ = 1;
        self->showExtensionView(kMainView, /*animated=*/true);
    };
    for (GtkWidget* button : {views_.profileCancelButton, views_.websiteCancelButton,
                              views_.errorDoneButton}) {
        g_signal_connect(button, "clicked", G_CALLBACK(backToMain), this);
    }
}

void ExtensionBridge::changeStatusAction() {
    updateStatus();
    companionController_.changeStatus([this](std::optional<Error>) {
        const auto& shared = companionController_.sharedData();
        if (shared && shared->status == 0) {
            extensionState_.setStatusUpdated(false);
            extensionState_.saveData();
        }
        changeToolbarImage(2);
        updateStatus();
        CompanionController::reloadBlockerRules(
            std::nullopt, companionController_.activeDatabase(),
            [this](std::optional<Error> error) { reloadOutcome(ReloadOrigin::Status, error); });
    });
}

void ExtensionBridge::changeCounterAction() {
    if (!ExtensionState::isSafariVersionAvailable(kServicesLevelBlockedResources)) {
        gtk_label_set_text(GTK_LABEL(views_.errorTitleLabel), localized("Requires Safari 13").c_str());
        gtk_label_set_text(GTK_LABEL(views_.errorMessageLabel),
                           localized("This feature is only available in Safari 13 or above.").c_str());
        gtk_button_set_label(GTK_BUTTON(views_.errorDoneButton), localized("OK").c_str());
        showExtensionView(kErrorView, /*animated=*/false);
        return;
    }
    extensionState_.setBlockingCounter(!extensionState_.blockingCounter());
    extensionState_.saveData();
    updateCounterStatus();
    ui_.toolbarItemsNeedUpdate();
    ui_.dismissPopover();
}

void ExtensionBridge::visualBlockAction() {
    auto page = ui_.activePage();
    if (!page) return;
    page->dispatchMessageToScript("BlockVisually", nlohmann::json::object());
    showExtensionView(kPickingView, /*animated=*/true);
}

void ExtensionBridge::visualCancelAction() {
    if (auto page = ui_.activePage()) page->dispatchMessageToScript("VisualCancel");
    showExtensionView(kMainView, /*animated=*/true);
}

void ExtensionBridge::visualDoneAction() {
    // The view stays: the page's "VisualData" turns the icon to reloading.
    if (auto page = ui_.activePage()) page->dispatchMessageToScript("VisualDone");
}

void ExtensionBridge::changeActiveProfile() {
    showExtensionView(kProfileView, /*animated=*/true);
    GtkStringList* titles = gtk_string_list_new(nullptr);
    guint selected = 0;
    for (size_t i = 0; i < profileIDs_.size(); ++i) {
        std::string title = i < profiles_.size() ? profiles_[i] : std::string();
        if (equalsIgnoringCase(title, "Default Profile")) title = localized("Default Profile");
        else if (equalsIgnoringCase(title, "New Profile")) title = localized("New Profile");
        // Cut at 40 characters, counted in UTF-16 units, never inside a
        // character.
        glong units = 0;
        gunichar2* utf16 = g_utf8_to_utf16(title.c_str(), -1, nullptr, &units, nullptr);
        if (utf16 && units >= 41) {
            glong cut = 40;
            if (utf16[cut - 1] >= 0xD800 && utf16[cut - 1] <= 0xDBFF) --cut;
            gchar* head = g_utf16_to_utf8(utf16, cut, nullptr, nullptr, nullptr);
            title = std::string(head ? head : "") + "...";
            g_free(head);
        }
        g_free(utf16);
        gtk_string_list_append(titles, title.c_str());
        if (activeProfileID_ && profileIDs_[i] == *activeProfileID_) selected = static_cast<guint>(i);
    }
    gtk_drop_down_set_model(GTK_DROP_DOWN(views_.profilePopupButton), G_LIST_MODEL(titles));
    g_object_unref(titles);
    gtk_drop_down_set_selected(GTK_DROP_DOWN(views_.profilePopupButton), selected);
}

void ExtensionBridge::profileDoneAction() {
    const guint index = gtk_drop_down_get_selected(GTK_DROP_DOWN(views_.profilePopupButton));
    if (index >= profileIDs_.size()) return;
    const std::string profile = profileIDs_[index];
    if (activeProfileID_ && profile == *activeProfileID_) return;
    changeToolbarImage(2);
    // Activation touches only this engine, which lives on the main thread;
    // the rule file is compiled by reloadBlockerRules on the caller's queue.
    companionController_.activateProfile(profile, [this, profile](std::optional<Error>) {
        companionController_.connectProfileDatabase();
        CompanionController::reloadBlockerRules(
            profile, companionController_.activeDatabase(),
            [this](std::optional<Error> error) { reloadOutcome(ReloadOrigin::Activate, error); });
    });
}

void ExtensionBridge::websiteAction(int action) {
    static constexpr const char* kMessages[] = {"Are you sure you want to block %@",
                                                "Are you sure you want to secure %@",
                                                "Are you sure you want to whitelist %@"};
    static constexpr const char* kTitles[] = {"Block Website", "Secure Website", "Allow Website"};
    static constexpr const char* kDone[] = {"Block", "Secure", "Allow"};
    const int at = action - 2;
    websiteAction_ = action;
    gtk_label_set_text(GTK_LABEL(views_.websiteTitleLabel), localized(kTitles[at]).c_str());
    gtk_label_set_text(GTK_LABEL(views_.websiteMessageLabel),
                       (format(localized(kMessages[at]), website_) + localized("?")).c_str());
    gtk_button_set_label(GTK_BUTTON(views_.websiteDoneButton), localized(kDone[at]).c_str());
    showExtensionView(kWebsiteView, /*animated=*/true);
}

void ExtensionBridge::websiteDoneAction() {
    changeToolbarImage(2);
    const int64_t action = websiteAction_;
    websiteAction_ = 1;
    if (action < 2 || action > 4) return;  // the icon stays on reloading
    const ReloadOrigin origin = action == 2 ? ReloadOrigin::BlockWebsite
                                : action == 3 ? ReloadOrigin::SecureWebsite
                                              : ReloadOrigin::WhitelistWebsite;
    auto page = ui_.activePage();
    const NullableString url = page ? page->url() : std::nullopt;
    auto reload = [this, origin](std::optional<Error>) { reloadRulesFor(origin, companionController_); };
    if (action == 2) companionController_.createBlockWebsiteCustomRule(url, reload);
    else if (action == 3) companionController_.createSecureWebsiteCustomRule(url, reload);
    else companionController_.createWhitelistWebsiteCustomRule(url, reload);
}

void ExtensionBridge::reloadRulesFor(ReloadOrigin origin, CompanionController& engine) {
    CompanionController::reloadBlockerRules(
        engine.sharedData() ? engine.sharedData()->activeProfileID : std::nullopt,
        engine.activeDatabase(),
        [this, origin](std::optional<Error> error) { reloadOutcome(origin, error); });
}

void ExtensionBridge::openAppAction() { ui_.openURL("stonewall://open"); }

}  // namespace stonewall::browser
