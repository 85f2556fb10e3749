#include "front/GtkToolkit.h"

#include <adwaita.h>

#include "platform/Platform.h"

namespace stonewall::browser {

GtkToolkit::GtkToolkit(std::string resources) : resources_(std::move(resources)) {
    AdwStyleManager* style = adw_style_manager_get_default();
    dark_ = adw_style_manager_get_dark(style);
    darkHandler_ = g_signal_connect(style, "notify::dark", G_CALLBACK(onDarkChanged), this);
    setHighContrast(adw_style_manager_get_high_contrast(style));
    contrastHandler_ =
        g_signal_connect(style, "notify::high-contrast", G_CALLBACK(onDarkChanged), this);
}

GtkToolkit::~GtkToolkit() {
    g_signal_handler_disconnect(adw_style_manager_get_default(), darkHandler_);
    g_signal_handler_disconnect(adw_style_manager_get_default(), contrastHandler_);
}

// The appearance or the contrast changed: every view is drawn again.
void GtkToolkit::onDarkChanged(GObject* styleManager, GParamSpec*, GtkToolkit* self) {
    self->dark_ = adw_style_manager_get_dark(ADW_STYLE_MANAGER(styleManager));
    setHighContrast(adw_style_manager_get_high_contrast(ADW_STYLE_MANAGER(styleManager)));
    if (self->popover_) self->popover_->refreshAppearance();
}

std::shared_ptr<PopoverView> GtkToolkit::loadPopoverView() {
    popover_ = std::make_shared<GtkPopoverView>(
        [](const std::string& key) { return platform::bundle().localizedString(key); });
    return popover_;
}

// Each image is read and decoded once: the popover sets its row images
// every time it opens, and the toolbar switches images on every reload.
std::shared_ptr<NSImage> GtkToolkit::imageNamed(const std::string& name) {
    std::lock_guard lock(imagesMutex_);
    if (auto found = images_.find(name); found != images_.end()) return found->second;
    const std::string path = resources_ + "/" + name + ".svg";
    std::shared_ptr<NSImage> image;
    if (g_file_test(path.c_str(), G_FILE_TEST_IS_REGULAR)) {
        GError* error = nullptr;
        GdkTexture* texture = gdk_texture_new_from_filename(path.c_str(), &error);
        if (texture) {
            image = std::make_shared<GtkImageResource>(name, texture);
        } else {
            platform::log(platform::LogLevel::Error,
                          "The image " + path + " could not be read: " + error->message);
            g_error_free(error);
        }
    }
    images_.emplace(name, image);
    return image;
}

void GtkToolkit::runAnimationGroup(double duration, const std::function<void()>& changes,
                                   std::function<void()> completion) {
    const double outer = animationDurationInEffect();
    setAnimationDurationInEffect(duration);
    if (changes) changes();
    setAnimationDurationInEffect(outer);
    if (!completion) return;
    const auto delay =
        std::chrono::duration_cast<platform::Nanoseconds>(std::chrono::duration<double>(duration));
    platform::dispatch().mainQueue().asyncAfter(delay, std::move(completion));
}

LayoutDirection GtkToolkit::userInterfaceLayoutDirection() const {
    return gtk_widget_get_default_direction() == GTK_TEXT_DIR_RTL ? LayoutDirection::RightToLeft
                                                                  : LayoutDirection::LeftToRight;
}

std::string GtkToolkit::preferredLocalization() const {
    const char* const* languages = g_get_language_names();
    const std::string first = languages && languages[0] ? languages[0] : "C";
    if (first == "C" || first == "POSIX") return "en";
    // "ar_EG.UTF-8" -> "ar"
    return first.substr(0, first.find_first_of("_.@"));
}

}  // namespace stonewall::browser
