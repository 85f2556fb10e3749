#include "window/BrowserTab.h"

#include <adwaita.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>

#include "extension/platform/FrontServices.h"
#include "filters/ContentFilters.h"
#include "page/BrowserProtocol.h"
#include "page/PageMessage.h"
#include "platform/ContainerLayout.h"
#include "platform/Platform.h"
#include "window/BrowserWindow.h"

namespace stonewall::browser {

namespace {

// The browser's own labels, from the bundle's catalogue like the popover's.
std::string tr(const char* text) { return platform::bundle().localizedString(text); }

}  // namespace

BrowserTab::BrowserTab(BrowserWindow& window, WebKitWebContext* context,
                       const std::string& pickerScript, std::shared_ptr<ContentFilters> filters)
    : window_(window), filters_(std::move(filters)) {
    contentManager_ = webkit_user_content_manager_new();
    // The handler lives in our world only: the page's own scripts find no
    // window.webkit.messageHandlers.stonewall.
    g_signal_connect(contentManager_,
                     (std::string("script-message-received::") + kScriptMessageHandlerName).c_str(),
                     G_CALLBACK(onScriptMessage), this);
    webkit_user_content_manager_register_script_message_handler(
        contentManager_, kScriptMessageHandlerName, kScriptWorldName);
    WebKitUserScript* picker = webkit_user_script_new_for_world(
        pickerScript.c_str(), WEBKIT_USER_CONTENT_INJECT_TOP_FRAME,
        WEBKIT_USER_SCRIPT_INJECT_AT_DOCUMENT_END, kScriptWorldName, nullptr, nullptr);
    webkit_user_content_manager_add_script(contentManager_, picker);
    webkit_user_script_unref(picker);
    filters_->addContentManager(contentManager_);

    view_ = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", context,
                                         "user-content-manager", contentManager_, nullptr));
    filters_->setView(contentManager_, view_);
    gtk_widget_set_hexpand(GTK_WIDGET(view_), TRUE);
    gtk_widget_set_vexpand(GTK_WIDGET(view_), TRUE);
    page_ = std::make_shared<BrowserPage>(
        view_, [this](const BrowserPage&) { return window_.currentTab() == this; });
    page_->setOnReload([this] { window_.event("page-reload"); });
    g_signal_connect(view_, "load-changed", G_CALLBACK(onLoadChanged), this);
    g_signal_connect(view_, "notify::uri", G_CALLBACK(onURIChanged), this);
    g_signal_connect(view_, "user-message-received", G_CALLBACK(onUserMessage), this);
    g_signal_connect(view_, "decide-policy", G_CALLBACK(onDecidePolicy), this);
    g_signal_connect(view_, "web-process-terminated", G_CALLBACK(onWebProcessTerminated), this);
    g_signal_connect(
        view_, "close",
        G_CALLBACK(+[](WebKitWebView*, BrowserTab* self) { self->window_.closeTab(*self); }), this);

    label_ = g_object_ref_sink(newLabel());
    crashNotice_ = newCrashNotice();
    frame_ = g_object_ref_sink(gtk_overlay_new());
    gtk_overlay_set_child(GTK_OVERLAY(frame_), GTK_WIDGET(view_));
    gtk_overlay_add_overlay(GTK_OVERLAY(frame_), crashNotice_);
}

BrowserTab::~BrowserTab() {
    filters_->removeContentManager(contentManager_);
    if (blockedFlush_) g_source_remove(blockedFlush_);
    page_->detach();
    g_signal_handlers_disconnect_by_data(contentManager_, this);
    g_signal_handlers_disconnect_by_data(view_, this);
    g_signal_handlers_disconnect_by_data(closeButton_, this);
    g_signal_handlers_disconnect_by_data(reloadButton_, this);
    g_object_unref(label_);
    g_object_unref(frame_);
}

// The tab strip's label: the page's title and the tab's close button.
GtkWidget* BrowserTab::newLabel() {
    GtkWidget* label = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 4);
    GtkWidget* title = gtk_label_new(tr("New Tab").c_str());
    gtk_label_set_width_chars(GTK_LABEL(title), 12);
    gtk_label_set_max_width_chars(GTK_LABEL(title), 20);
    gtk_label_set_ellipsize(GTK_LABEL(title), PANGO_ELLIPSIZE_END);
    closeButton_ = gtk_button_new_from_icon_name("window-close-symbolic");
    gtk_button_set_has_frame(GTK_BUTTON(closeButton_), FALSE);
    gtk_widget_set_tooltip_text(closeButton_, (tr("Close Tab") + " (Ctrl+W)").c_str());
    gtk_accessible_update_property(GTK_ACCESSIBLE(closeButton_), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                   tr("Close Tab").c_str(), -1);
    gtk_box_append(GTK_BOX(label), title);
    gtk_box_append(GTK_BOX(label), closeButton_);
    g_object_bind_property(view_, "title", title, "label", G_BINDING_DEFAULT);
    // The notebook names every tab "Tab"; its page's title says which.
    g_signal_connect(title, "notify::label", G_CALLBACK(+[](GtkLabel* title, GParamSpec*) {
                         GtkWidget* tab =
                             gtk_widget_get_parent(gtk_widget_get_parent(GTK_WIDGET(title)));
                         const char* text = gtk_label_get_label(title);
                         if (tab && text && *text) {
                             gtk_accessible_update_property(
                                 GTK_ACCESSIBLE(tab), GTK_ACCESSIBLE_PROPERTY_LABEL, text, -1);
                         }
                     }),
                     nullptr);
    g_signal_connect(
        closeButton_, "clicked",
        G_CALLBACK(+[](GtkButton*, BrowserTab* self) { self->window_.closeTab(*self); }), this);
    return label;
}

// What a tab whose web process died shows over its (blank) view: the other
// tabs, the toolbar button and the extension go on as before.
GtkWidget* BrowserTab::newCrashNotice() {
    GtkWidget* notice = adw_status_page_new();
    adw_status_page_set_icon_name(ADW_STATUS_PAGE(notice), "dialog-warning-symbolic");
    adw_status_page_set_title(ADW_STATUS_PAGE(notice), "This Page Stopped Working");
    adw_status_page_set_description(
        ADW_STATUS_PAGE(notice),
        "The process that showed it ended unexpectedly. Reload the page to show it again.");
    reloadButton_ = gtk_button_new_with_label("Reload");
    gtk_widget_set_halign(reloadButton_, GTK_ALIGN_CENTER);
    gtk_widget_add_css_class(reloadButton_, "suggested-action");
    gtk_widget_add_css_class(reloadButton_, "pill");
    adw_status_page_set_child(ADW_STATUS_PAGE(notice), reloadButton_);
    gtk_widget_add_css_class(notice, "stonewall-crash-notice");
    gtk_widget_set_visible(notice, FALSE);
    // A reload starts a new web process; the notice goes when its load starts.
    g_signal_connect(reloadButton_, "clicked",
                     G_CALLBACK(+[](GtkButton*, BrowserTab* self) { self->reload(); }), this);
    return notice;
}

void BrowserTab::load(const std::string& url) { webkit_web_view_load_uri(view_, url.c_str()); }

void BrowserTab::goBack() { webkit_web_view_go_back(view_); }

void BrowserTab::goForward() { webkit_web_view_go_forward(view_); }

void BrowserTab::reload() { webkit_web_view_reload(view_); }

PageEvent BrowserTab::pageEvent() const {
    return PageEvent{page_, SFSafariPageProperties{page_->url(), page_->isActive()},
                     window_.toolbarItem()};
}

// --- WebKit signals -----------------------------------------------------------

void BrowserTab::onLoadChanged(WebKitWebView* view, WebKitLoadEvent loadEvent, BrowserTab* self) {
    if (loadEvent == WEBKIT_LOAD_STARTED) {
        self->loadStarted_ = g_get_monotonic_time();
        if (self->crashed_) {
            self->crashed_ = false;
            gtk_widget_set_visible(self->crashNotice_, FALSE);
        }
        // The last document's reports count for it, before it is dropped.
        self->flushBlockedLoads();
        // Told at the start, not at the commit: the web process reports the
        // new document's blocked loads on its own channel, which can
        // overtake the commit.
        const char* uri = webkit_web_view_get_uri(view);
        SafariExtensionHandler().page(self->pageEvent(), uri ? NullableString(uri) : std::nullopt);
    }
    if (loadEvent == WEBKIT_LOAD_FINISHED) {
        const char* uri = webkit_web_view_get_uri(view);
        self->window_.event(std::string("loaded ") + (uri ? uri : ""));
        if (self->loadStarted_) {
            char text[64];
            std::snprintf(text, sizeof text, "timing page-load %.2f",
                          (g_get_monotonic_time() - self->loadStarted_) / 1000.0);
            self->window_.event(text);
            self->loadStarted_ = 0;
        }
        // A finished page's badge counts every report that has come.
        self->flushBlockedLoads();
        self->window_.toolbarItemsNeedUpdate();
    }
    self->window_.tabNavigated(*self);
}

void BrowserTab::onWebProcessTerminated(WebKitWebView*, WebKitWebProcessTerminationReason reason,
                                        BrowserTab* self) {
    self->crashed_ = true;
    self->loadStarted_ = 0;
    gtk_widget_set_visible(self->crashNotice_, TRUE);
    const char* why = reason == WEBKIT_WEB_PROCESS_EXCEEDED_MEMORY_LIMIT ? "memory"
                      : reason == WEBKIT_WEB_PROCESS_TERMINATED_BY_API   ? "ended"
                                                                         : "crashed";
    platform::log(platform::LogLevel::Error,
                  std::string("The web process of a tab ended (") + why + ").");
    self->window_.event(std::string("web-process-terminated ") + why);
    // The page's document is gone, and with it what was blocked on it: its
    // count leaves the badge. Everything else the extension holds stays.
    SafariExtensionHandler().popoverViewController().blockingStatController().removeURLsForPage(
        self->page_);
    self->window_.toolbarItemsNeedUpdate();
}

void BrowserTab::onURIChanged(WebKitWebView* view, GParamSpec*, BrowserTab* self) {
    // Same-document navigations change the URL without a new load.
    if (!webkit_web_view_is_loading(view)) {
        const char* uri = webkit_web_view_get_uri(view);
        SafariExtensionHandler().page(self->pageEvent(), uri ? NullableString(uri) : std::nullopt);
    }
    self->window_.tabNavigated(*self);
}

gboolean BrowserTab::onUserMessage(WebKitWebView*, WebKitUserMessage* message, BrowserTab* self) {
    if (g_strcmp0(webkit_user_message_get_name(message), kBlockedLoadMessage) != 0) return FALSE;
    GVariant* parameters = webkit_user_message_get_parameters(message);
    if (!parameters || !g_variant_is_of_type(parameters, G_VARIANT_TYPE_STRING)) return TRUE;
    const std::string url = g_variant_get_string(parameters, nullptr);
    self->window_.blockedLoadReported();
    self->window_.event("blocked " + url);
    // A page that blocks thousands of loads at once reports them in a burst:
    // the extension gets them together, the first at once and the rest a
    // frame after the last hand-over, so the badge changes once a burst
    // rather than once a load.
    self->blockedPending_.push_back(url);
    if (!self->blockedFlush_) {
        const gint64 wait = std::max<gint64>(
            0, self->blockedFlushed_ + kBlockedFlushInterval - g_get_monotonic_time());
        self->blockedFlush_ = g_timeout_add_full(
            G_PRIORITY_DEFAULT, static_cast<guint>((wait + 999) / 1000),
            +[](gpointer data) -> gboolean {
                auto* self = static_cast<BrowserTab*>(data);
                self->blockedFlush_ = 0;
                self->flushBlockedLoads();
                return G_SOURCE_REMOVE;
            },
            self, nullptr);
    }
    return TRUE;
}

void BrowserTab::flushBlockedLoads() {
    if (blockedFlush_) {
        g_source_remove(blockedFlush_);
        blockedFlush_ = 0;
    }
    if (blockedPending_.empty()) return;
    blockedFlushed_ = g_get_monotonic_time();
    SafariExtensionHandler().contentBlockerWithIdentifier(
        ContainerLayout::kContentBlockerIdentifier, std::exchange(blockedPending_, {}),
        pageEvent());
}

void BrowserTab::onScriptMessage(WebKitUserContentManager*, JSCValue* value, BrowserTab* self) {
    const gint64 second = g_get_monotonic_time() / G_USEC_PER_SEC;
    if (second != self->messageSecond_) {
        if (self->messagesThisSecond_ > kMessagesPerSecond) {
            platform::log(platform::LogLevel::Error,
                          "A page sent " + std::to_string(self->messagesThisSecond_) +
                              " script messages in a second; those past " +
                              std::to_string(kMessagesPerSecond) + " were dropped.");
        }
        self->messageSecond_ = second;
        self->messagesThisSecond_ = 0;
    }
    if (++self->messagesThisSecond_ > kMessagesPerSecond) {
        ++self->messagesDropped_;
        return;
    }
    char* json = jsc_value_to_json(value, 0);
    auto message = json ? checkPageMessage(json) : std::nullopt;
    g_free(json);
    if (!message) {
        platform::log(platform::LogLevel::Debug,
                      "A page-script message of an unexpected shape was dropped.");
        self->window_.event("message-rejected");
        return;
    }
    self->window_.event("message " + message->name);
    SafariExtensionHandler().messageReceivedWithName(message->name, self->pageEvent(),
                                                     message->userInfo);
}

gboolean BrowserTab::onDecidePolicy(WebKitWebView*, WebKitPolicyDecision* decision,
                                    WebKitPolicyDecisionType type, BrowserTab*) {
    if (type != WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION) return FALSE;
    WebKitNavigationAction* action = webkit_navigation_policy_decision_get_navigation_action(
        WEBKIT_NAVIGATION_POLICY_DECISION(decision));
    const char* uri = webkit_uri_request_get_uri(webkit_navigation_action_get_request(action));
    // The application's own links open the application, not a page.
    if (uri && g_str_has_prefix(uri, "stonewall:")) {
        (void)platform::sharedWorkspace().openURL(uri);
        webkit_policy_decision_ignore(decision);
        return TRUE;
    }
    return FALSE;
}

}  // namespace stonewall::browser
