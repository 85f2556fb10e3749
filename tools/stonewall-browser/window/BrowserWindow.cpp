#include "window/BrowserWindow.h"

#include <cstdio>
#include <fstream>
#include <sstream>
#include <utility>

#include "extension/SafariExtensionHandler.h"
#include "front/GtkMainDispatch.h"
#include "platform/Platform.h"
#include "window/ControlChannel.h"

namespace stonewall::browser {

namespace {

// The browser's own labels, from the bundle's catalogue like the popover's.
std::string tr(const char* text) { return platform::bundle().localizedString(text); }

std::string readText(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    return std::move(text).str();
}

// What a typed location means: a URL with a scheme as it stands, anything
// else as an http(s) address.
std::string normalizedLocation(const std::string& text) {
    if (text.find("://") != std::string::npos || g_str_has_prefix(text.c_str(), "about:") ||
        g_str_has_prefix(text.c_str(), "file:")) {
        return text;
    }
    return "https://" + text;
}

// Icon buttons have no text of their own for a screen reader to read: each
// is named, and its tooltip gives its shortcut.
void name(GtkWidget* widget, const std::string& label, const char* keys) {
    gtk_widget_set_tooltip_text(widget, (label + " (" + keys + ")").c_str());
    gtk_accessible_update_property(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                   label.c_str(), -1);
}

}  // namespace

BrowserWindow::BrowserWindow(GtkApplication* application, BrowserOptions options,
                             std::shared_ptr<ContentFilters> filters,
                             std::shared_ptr<BrowserApplication> browserApplication)
    : options_(std::move(options)),
      application_(std::move(browserApplication)),
      handle_(std::make_shared<BrowserWindowHandle>(this)),
      filters_(std::move(filters)) {
    pickerSource_ = readText(options_.resources + "/picker.js");
    loadWebContext();
    loadStyle();

    window_ = gtk_application_window_new(application);
    gtk_window_set_title(GTK_WINDOW(window_), tr("Stonewall Browser").c_str());
    gtk_window_set_default_size(GTK_WINDOW(window_), 1024, 720);
    toolbarButton_ = std::make_unique<ExtensionToolbarButton>(options_.resources, options_.events);
    toolbarButton_->setOnShow([this](gint64 clicked) { popoverShown(clicked); });
    toolbarButton_->setOnClosed(
        [this](ExtensionToolbarButton::Picking picking) { popoverClosed(picking); });
    toolbarButton_->setOnBadgeChanged([this] {
        if (!blockedReportArrived_) return;
        afterNextPaint(window_, "badge-shown", blockedReportArrived_);
        blockedReportArrived_ = 0;
    });
    gtk_window_set_titlebar(GTK_WINDOW(window_), newHeaderBar());
    application_->setActiveWindow(handle_);

    notebook_ = gtk_notebook_new();
    gtk_notebook_set_scrollable(GTK_NOTEBOOK(notebook_), TRUE);
    gtk_window_set_child(GTK_WINDOW(window_), notebook_);
    g_signal_connect_after(notebook_, "switch-page",
                           G_CALLBACK(+[](GtkNotebook*, GtkWidget*, guint, BrowserWindow* self) {
                               self->updateNavigationControls();
                               self->toolbarItemsNeedUpdate();
                           }),
                           this);

    addShortcuts();
    if (options_.control) control_ = std::make_unique<ControlChannel>(*this);
}

BrowserWindow::~BrowserWindow() {
    control_.reset();
    if (validationSource_) g_source_remove(validationSource_);
    releaseMainQueue();
    application_->setActiveWindow(nullptr);
    handle_->detach();
    tabs_.clear();
    toolbarButton_.reset();
    g_object_unref(css_);
    g_object_unref(context_);
}

// The web context every tab's view runs in.
void BrowserWindow::loadWebContext() {
    context_ = webkit_web_context_new();
    // The web processes run sandboxed and see the extension's folder only
    // once it is added, which must happen before the first one starts.
    // WebKit (2.50) dereferences a null pointer here when the home folder
    // does not exist; the blocked-load counter then stays at zero.
    if (g_file_test(g_get_home_dir(), G_FILE_TEST_IS_DIR)) {
        webkit_web_context_add_path_to_sandbox(context_, options_.extensionsFolder.c_str(), TRUE);
    } else {
        platform::log(platform::LogLevel::Error,
                      "The home folder is missing: blocked loads will not be counted.");
    }
    g_signal_connect(context_, "initialize-web-process-extensions",
                     G_CALLBACK(+[](WebKitWebContext* context, BrowserWindow* self) {
                         webkit_web_context_set_web_process_extensions_directory(
                             context, self->options_.extensionsFolder.c_str());
                     }),
                     this);
}

void BrowserWindow::loadStyle() {
    css_ = gtk_css_provider_new();
    gtk_css_provider_load_from_path(css_, (options_.resources + "/style.css").c_str());
    gtk_style_context_add_provider_for_display(gdk_display_get_default(), GTK_STYLE_PROVIDER(css_),
                                               GTK_STYLE_PROVIDER_PRIORITY_APPLICATION);
}

// Back, forward, reload and new tab; the location entry; the toolbar button.
GtkWidget* BrowserWindow::newHeaderBar() {
    GtkWidget* header = gtk_header_bar_new();
    backButton_ = gtk_button_new_from_icon_name("go-previous-symbolic");
    forwardButton_ = gtk_button_new_from_icon_name("go-next-symbolic");
    GtkWidget* reload = gtk_button_new_from_icon_name("view-refresh-symbolic");
    GtkWidget* newTab = gtk_button_new_from_icon_name("tab-new-symbolic");
    name(backButton_, tr("Back"), "Alt+Left");
    name(forwardButton_, tr("Forward"), "Alt+Right");
    name(reload, tr("Reload"), "F5, Ctrl+R");
    name(newTab, tr("New Tab"), "Ctrl+T");
    gtk_header_bar_pack_start(GTK_HEADER_BAR(header), backButton_);
    gtk_header_bar_pack_start(GTK_HEADER_BAR(header), forwardButton_);
    gtk_header_bar_pack_start(GTK_HEADER_BAR(header), reload);
    gtk_header_bar_pack_start(GTK_HEADER_BAR(header), newTab);
    location_ = gtk_entry_new();
    gtk_widget_set_hexpand(location_, TRUE);
    gtk_widget_set_size_request(location_, 480, -1);
    name(location_, tr("Address"), "Ctrl+L");
    gtk_header_bar_set_title_widget(GTK_HEADER_BAR(header), location_);
    gtk_header_bar_pack_end(GTK_HEADER_BAR(header), toolbarButton_->widget());

    g_signal_connect(backButton_, "clicked", G_CALLBACK(+[](GtkButton*, BrowserWindow* self) {
                         if (BrowserTab* tab = self->currentTab()) tab->goBack();
                     }),
                     this);
    g_signal_connect(forwardButton_, "clicked", G_CALLBACK(+[](GtkButton*, BrowserWindow* self) {
                         if (BrowserTab* tab = self->currentTab()) tab->goForward();
                     }),
                     this);
    g_signal_connect(reload, "clicked", G_CALLBACK(+[](GtkButton*, BrowserWindow* self) {
                         if (BrowserTab* tab = self->currentTab()) tab->reload();
                     }),
                     this);
    g_signal_connect(newTab, "clicked", G_CALLBACK(+[](GtkButton*, BrowserWindow* self) {
                         self->openTab("about:blank");
                         gtk_widget_grab_focus(self->location_);
                     }),
                     this);
    g_signal_connect(location_, "activate", G_CALLBACK(+[](GtkEntry* entry, BrowserWindow* self) {
                         const char* text = gtk_editable_get_text(GTK_EDITABLE(entry));
                         if (text && *text) self->load(normalizedLocation(text));
                     }),
                     this);
    return header;
}

// The usual browser keys, and one for the extension's popover (it closes
// the popover too). Taken before the focused widget sees them: the page and
// the location entry would keep some.
void BrowserWindow::addShortcuts() {
    GtkEventController* controller = gtk_shortcut_controller_new();
    gtk_event_controller_set_propagation_phase(controller, GTK_PHASE_CAPTURE);
    using Handler = void (*)(BrowserWindow*);
    const auto add = [&](const char* triggers, Handler handler) {
        GtkShortcut* shortcut = gtk_shortcut_new(
            gtk_shortcut_trigger_parse_string(triggers),
            gtk_callback_action_new(
                +[](GtkWidget*, GVariant*, gpointer data) -> gboolean {
                    auto* entry = static_cast<std::pair<BrowserWindow*, Handler>*>(data);
                    entry->second(entry->first);
                    return TRUE;
                },
                new std::pair<BrowserWindow*, Handler>(this, handler),
                +[](gpointer data) {
                    delete static_cast<std::pair<BrowserWindow*, Handler>*>(data);
                }));
        gtk_shortcut_controller_add_shortcut(GTK_SHORTCUT_CONTROLLER(controller), shortcut);
    };
    add("<Alt><Shift>s", [](BrowserWindow* self) { self->toolbarButton_->toggle(); });
    add("<Control>l", [](BrowserWindow* self) {
        gtk_widget_grab_focus(self->location_);
        gtk_editable_select_region(GTK_EDITABLE(self->location_), 0, -1);
    });
    add("<Control>t", [](BrowserWindow* self) {
        self->openTab("about:blank");
        gtk_widget_grab_focus(self->location_);
    });
    add("<Control>w", [](BrowserWindow* self) {
        if (BrowserTab* tab = self->currentTab()) self->closeTab(*tab);
    });
    add("<Alt>Left", [](BrowserWindow* self) {
        if (BrowserTab* tab = self->currentTab()) tab->goBack();
    });
    add("<Alt>Right", [](BrowserWindow* self) {
        if (BrowserTab* tab = self->currentTab()) tab->goForward();
    });
    add("F5|<Control>r", [](BrowserWindow* self) {
        if (BrowserTab* tab = self->currentTab()) tab->reload();
    });
    gtk_widget_add_controller(window_, controller);
}

// --- Tabs ---------------------------------------------------------------------

void BrowserWindow::openTab(const std::string& url) {
    auto tab = std::make_unique<BrowserTab>(*this, context_, pickerSource_, filters_);
    BrowserTab& opened = *tab;
    tabs_.push_back(std::move(tab));
    const int index =
        gtk_notebook_append_page(GTK_NOTEBOOK(notebook_), opened.frame(), opened.label());
    gtk_notebook_set_tab_reorderable(GTK_NOTEBOOK(notebook_), opened.frame(), TRUE);
    gtk_notebook_set_current_page(GTK_NOTEBOOK(notebook_), index);
    opened.load(url);
}

void BrowserWindow::closeTab(BrowserTab& tab) {
    const int index = gtk_notebook_page_num(GTK_NOTEBOOK(notebook_), tab.frame());
    if (index >= 0) gtk_notebook_remove_page(GTK_NOTEBOOK(notebook_), index);
    std::erase_if(tabs_, [&tab](const auto& held) { return held.get() == &tab; });
    if (tabs_.empty()) gtk_window_close(GTK_WINDOW(window_));
}

void BrowserWindow::load(const std::string& url) {
    if (BrowserTab* tab = currentTab()) {
        tab->load(url);
    } else {
        openTab(url);
    }
}

BrowserTab* BrowserWindow::currentTab() const {
    const int index = gtk_notebook_get_current_page(GTK_NOTEBOOK(notebook_));
    if (index < 0) return nullptr;
    GtkWidget* frame = gtk_notebook_get_nth_page(GTK_NOTEBOOK(notebook_), index);
    for (const auto& tab : tabs_) {
        if (tab->frame() == frame) return tab.get();
    }
    return nullptr;
}

bool BrowserWindow::selectTab(int index) {
    if (index < 0 || index >= gtk_notebook_get_n_pages(GTK_NOTEBOOK(notebook_))) return false;
    gtk_notebook_set_current_page(GTK_NOTEBOOK(notebook_), index);
    return true;
}

void BrowserWindow::tabNavigated(const BrowserTab& tab) {
    if (&tab == currentTab()) updateNavigationControls();
}

void BrowserWindow::blockedLoadReported() {
    if (!blockedReportArrived_) blockedReportArrived_ = g_get_monotonic_time();
}

void BrowserWindow::updateNavigationControls() {
    BrowserTab* tab = currentTab();
    gtk_widget_set_sensitive(backButton_, tab && webkit_web_view_can_go_back(tab->view()));
    gtk_widget_set_sensitive(forwardButton_, tab && webkit_web_view_can_go_forward(tab->view()));
    const char* uri = tab ? webkit_web_view_get_uri(tab->view()) : nullptr;
    if (!gtk_widget_has_focus(location_) || !uri) {
        gtk_editable_set_text(GTK_EDITABLE(location_), uri ? uri : "");
    }
}

// --- The popover ----------------------------------------------------------------

void BrowserWindow::popoverShown(gint64 clicked) {
    holdMainQueueUntilPainted();
    SafariExtensionHandler().popoverWillShowInWindow(handle_);
    afterNextPaint(toolbarButton_->popover(), "popover-shown", clicked);
}

void BrowserWindow::popoverClosed(ExtensionToolbarButton::Picking picking) {
    SafariExtensionHandler().popoverDidCloseInWindow(handle_);
    // Closed while picking: the keys go on to the page, where the picker
    // takes them.
    if (BrowserTab* tab = currentTab(); tab && picking == ExtensionToolbarButton::Picking::Yes) {
        gtk_widget_grab_focus(GTK_WIDGET(tab->view()));
    }
    event("popover-closed");
}

// The popover's views ask the engine for the page's website lists as they
// open, which takes a while with a large profile; held back, that follows
// the popover's first frame instead of delaying it. A popover that never
// paints releases the queue after a few frames.
void BrowserWindow::holdMainQueueUntilPainted() {
    auto* dispatch = dynamic_cast<GtkMainDispatch*>(&platform::dispatch());
    if (!dispatch || releaseSource_) return;
    dispatch->holdMainQueue();
    releaseSource_ = g_timeout_add_once(
        kMainQueueHoldLimitMs,
        +[](gpointer data) { static_cast<BrowserWindow*>(data)->releaseMainQueue(); }, this);
}

void BrowserWindow::releaseMainQueue() {
    if (!releaseSource_) return;
    g_source_remove(releaseSource_);
    releaseSource_ = 0;
    if (auto* dispatch = dynamic_cast<GtkMainDispatch*>(&platform::dispatch()))
        dispatch->releaseMainQueue();
}

// --- What the extension asks -----------------------------------------------------

std::shared_ptr<BrowserPage> BrowserWindow::activePage() const {
    BrowserTab* tab = currentTab();
    return tab ? tab->page() : nullptr;
}

void BrowserWindow::toolbarItemsNeedUpdate() {
    if (validationSource_) return;
    validationSource_ = g_idle_add_once(
        +[](gpointer data) {
            auto* self = static_cast<BrowserWindow*>(data);
            self->validationSource_ = 0;
            self->validateToolbarItem();
        },
        this);
}

void BrowserWindow::validateToolbarItem() {
    SafariExtensionHandler().validateToolbarItemInWindow(
        handle_, [item = toolbarItem()](bool, std::optional<std::string> badgeText) {
            item->setBadgeText(badgeText);
        });
}

void BrowserWindow::event(const std::string& line) const {
    if (options_.events) options_.events(line);
}

void BrowserWindow::afterNextPaint(GtkWidget* widget, std::string timingName, gint64 since) {
    GdkFrameClock* clock = gtk_widget_get_frame_clock(widget);
    if (!clock) clock = gtk_widget_get_frame_clock(window_);
    if (!clock) return;
    struct Pending {
        BrowserWindow* self;
        std::string name;
        gint64 since;
        GdkFrameClock* clock;
        gulong handler;
    };
    auto* pending = new Pending{this, std::move(timingName), since, clock, 0};
    pending->handler = g_signal_connect(
        clock, "after-paint", G_CALLBACK(+[](GdkFrameClock* clock, Pending* pending) {
            const double ms = (g_get_monotonic_time() - pending->since) / 1000.0;
            char text[64];
            std::snprintf(text, sizeof text, "%.2f", ms);
            pending->self->event("timing " + pending->name + " " + text);
            if (pending->name == "popover-shown") pending->self->releaseMainQueue();
            g_signal_handler_disconnect(clock, pending->handler);
            g_idle_add_once(
                +[](gpointer data) { delete static_cast<Pending*>(data); }, pending);
        }),
        pending);
    gdk_frame_clock_request_phase(clock, GDK_FRAME_CLOCK_PHASE_PAINT);
}

}  // namespace stonewall::browser
