#include "front/BrowserServices.h"

#include "front/GtkViews.h"
#include "platform/Platform.h"
#include "window/BrowserWindow.h"

namespace stonewall::browser {

namespace {}  // namespace

void answerSoon(std::function<void()> answer) {
    g_idle_add_full(
        G_PRIORITY_DEFAULT,
        +[](gpointer data) -> gboolean {
            (*static_cast<std::function<void()>*>(data))();
            return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(answer)),
        +[](gpointer data) { delete static_cast<std::function<void()>*>(data); });
}

void BrowserTabHandle::getActivePageWithCompletionHandler(PageHandler completionHandler) {
    if (!completionHandler) return;
    answerSoon([page = page_, handler = std::move(completionHandler)] {
        handler(page->view() ? page : nullptr);
    });
}

// --- BrowserToolbarItem -------------------------------------------------------------

BrowserToolbarItem::BrowserToolbarItem(GtkWidget* image, GtkWidget* badge, EventSink events)
    : image_(image), badge_(badge), events_(std::move(events)) {
    if (!events_) events_ = [](const std::string&) {};
}

void BrowserToolbarItem::setBadgeText(const std::optional<std::string>& badgeText) {
    onMainThread([self = shared_from_this(), this, badgeText] {
        if (!badge_ || badgeText == badgeText_) return;
        badgeText_ = badgeText;
        gtk_label_set_text(GTK_LABEL(badge_), badgeText.value_or("").c_str());
        gtk_widget_set_visible(badge_, badgeText.has_value());
        events_("badge " + badgeText.value_or("none"));
        if (onBadgeChanged_) onBadgeChanged_();
    });
}

void BrowserToolbarItem::setImage(std::shared_ptr<NSImage> image) {
    onMainThread([self = shared_from_this(), this, image = std::move(image)] {
        const std::string name = image ? image->name() : std::string();
        if (!image_ || name == imageName_) return;
        imageName_ = name;
        auto* resource = dynamic_cast<GtkImageResource*>(image.get());
        if (resource && resource->paintable()) {
            gtk_image_set_from_paintable(GTK_IMAGE(image_), resource->paintable());
        } else {
            gtk_image_clear(GTK_IMAGE(image_));
        }
        // The reloading image turns until the reload's outcome replaces it
        // (style.css).
        if (name == "ToolbarItemIconReloading") {
            gtk_widget_add_css_class(image_, "stonewall-reloading");
        } else {
            gtk_widget_remove_css_class(image_, "stonewall-reloading");
        }
        events_("image " + name);
    });
}

// --- BrowserWindowHandle ------------------------------------------------------------------

void BrowserWindowHandle::getActiveTabWithCompletionHandler(TabHandler completionHandler) {
    if (!completionHandler) return;
    answerSoon([self = shared_from_this(), this, handler = std::move(completionHandler)] {
        auto page = window_ ? window_->activePage() : nullptr;
        handler(page ? std::make_shared<BrowserTabHandle>(page) : nullptr);
    });
}

void BrowserWindowHandle::getToolbarItemWithCompletionHandler(
    ToolbarItemHandler completionHandler) {
    if (!completionHandler) return;
    answerSoon([self = shared_from_this(), this, handler = std::move(completionHandler)] {
        handler(window_ ? window_->toolbarItem() : nullptr);
    });
}

// --- BrowserApplication ------------------------------------------------------------------------

void BrowserApplication::setActiveWindow(std::shared_ptr<BrowserWindowHandle> window) {
    std::lock_guard lock(mutex_);
    window_ = std::move(window);
}

std::shared_ptr<BrowserWindowHandle> BrowserApplication::activeWindow() const {
    std::lock_guard lock(mutex_);
    return window_;
}

void BrowserApplication::getActiveWindowWithCompletionHandler(WindowHandler completionHandler) {
    if (!completionHandler) return;
    answerSoon([this, handler = std::move(completionHandler)] {
        auto window = activeWindow();
        handler(window && window->window() ? window : nullptr);
    });
}

void BrowserApplication::setToolbarItemsNeedUpdate() {
    platform::dispatch().mainQueue().async([this] {
        auto window = activeWindow();
        if (window && window->window()) window->window()->toolbarItemsNeedUpdate();
    });
}

// --- GioWorkspace
// ---------------------------------------------------------------------------------

bool GioWorkspace::openURL(const std::string& url) {
    char* scheme = g_uri_parse_scheme(url.c_str());
    GAppInfo* handler = scheme ? g_app_info_get_default_for_uri_scheme(scheme) : nullptr;
    g_free(scheme);
    const bool taken = handler != nullptr;
    if (handler) g_object_unref(handler);
    platform::dispatch().mainQueue().async([this, url] {
        events_("open-url " + url);
        g_app_info_launch_default_for_uri_async(
            url.c_str(), nullptr, nullptr,
            +[](GObject*, GAsyncResult* result, gpointer) {
                GError* error = nullptr;
                if (!g_app_info_launch_default_for_uri_finish(result, &error)) {
                    platform::log(platform::LogLevel::Debug,
                                  std::string("No handler opened the link: ") + error->message);
                    g_error_free(error);
                }
            },
            nullptr);
    });
    return taken;
}

}  // namespace stonewall::browser
