#include "window/ExtensionToolbarButton.h"

#include <utility>

#include "extension/SafariExtensionHandler.h"
#include "platform/Platform.h"

namespace stonewall::browser {

namespace {

// The browser's own labels, from the bundle's catalogue like the popover's.
std::string tr(const char* text) { return platform::bundle().localizedString(text); }

constexpr const char* kToggleKeys = "Alt+Shift+S";

// Alt+Shift+S on `widget` toggles `button`'s popover.
GtkEventController* addToggleShortcut(GtkWidget* widget, ExtensionToolbarButton* button) {
    GtkEventController* controller = gtk_shortcut_controller_new();
    gtk_event_controller_set_propagation_phase(controller, GTK_PHASE_CAPTURE);
    gtk_shortcut_controller_add_shortcut(
        GTK_SHORTCUT_CONTROLLER(controller),
        gtk_shortcut_new(gtk_shortcut_trigger_parse_string("<Alt><Shift>s"),
                         gtk_callback_action_new(
                             +[](GtkWidget*, GVariant*, gpointer data) -> gboolean {
                                 static_cast<ExtensionToolbarButton*>(data)->toggle();
                                 return TRUE;
                             },
                             button, nullptr)));
    gtk_widget_add_controller(widget, controller);
    return controller;
}

}  // namespace

ExtensionToolbarButton::ExtensionToolbarButton(const std::string& resources, EventSink events)
    : events_(std::move(events)) {
    if (!events_) events_ = [](const std::string&) {};
    // The toolbar item: its image with the badge over a corner.
    image_ = gtk_image_new_from_file((resources + "/ToolbarItemIcon.svg").c_str());
    gtk_image_set_pixel_size(GTK_IMAGE(image_), 16);
    badge_ = gtk_label_new("");
    gtk_widget_add_css_class(badge_, "stonewall-badge");
    gtk_widget_set_halign(badge_, GTK_ALIGN_END);
    gtk_widget_set_valign(badge_, GTK_ALIGN_START);
    gtk_widget_set_visible(badge_, FALSE);
    gtk_widget_set_can_target(badge_, FALSE);
    // The button's description tells the count; a bare number is no control.
    gtk_accessible_update_state(GTK_ACCESSIBLE(badge_), GTK_ACCESSIBLE_STATE_HIDDEN, TRUE, -1);
    gtk_accessible_update_state(GTK_ACCESSIBLE(image_), GTK_ACCESSIBLE_STATE_HIDDEN, TRUE, -1);
    GtkWidget* overlay = gtk_overlay_new();
    gtk_widget_set_size_request(overlay, 30, 22);
    gtk_overlay_set_child(GTK_OVERLAY(overlay), image_);
    gtk_overlay_add_overlay(GTK_OVERLAY(overlay), badge_);
    // The badge grows with the desktop's text size; the button grows with it.
    gtk_overlay_set_measure_overlay(GTK_OVERLAY(overlay), badge_, TRUE);
    // A group: the button inside is what is pressed.
    button_ = GTK_WIDGET(g_object_ref_sink(
        g_object_new(GTK_TYPE_MENU_BUTTON, "accessible-role", GTK_ACCESSIBLE_ROLE_GROUP, nullptr)));
    gtk_menu_button_set_child(GTK_MENU_BUTTON(button_), overlay);
    gtk_widget_set_tooltip_text(button_, (std::string("Stonewall (") + kToggleKeys + ")").c_str());
    gtk_accessible_update_property(GTK_ACCESSIBLE(button_), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                   "Stonewall", -1);
    // GtkMenuButton presses an inner toggle button, labelled by the menu
    // button; that is what assistive technologies find and press.
    if (GtkWidget* inner = gtk_widget_get_first_child(button_)) {
        gtk_accessible_update_property(GTK_ACCESSIBLE(inner), GTK_ACCESSIBLE_PROPERTY_KEY_SHORTCUTS,
                                       kToggleKeys, -1);
    }

    item_ = std::make_shared<BrowserToolbarItem>(image_, badge_, events_);
    item_->setOnBadgeChanged([this] {
        describe();
        if (onBadgeChanged_) onBadgeChanged_();
    });

    // The popover shows the controller's view tree, built once with the
    // controller and kept for the life of the process.
    popoverView_ = std::dynamic_pointer_cast<GtkPopoverView>(
        SafariExtensionHandler().popoverViewController().popoverView());
    popover_ = gtk_popover_new();
    gtk_accessible_update_property(GTK_ACCESSIBLE(popover_), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                   "Stonewall", -1);
    if (popoverView_) {
        gtk_popover_set_child(GTK_POPOVER(popover_), popoverView_->root());
        popoverView_->setPopover(popover_);
        popoverView_->setOnViewShown(
            [events = events_](int64_t code) { events("view " + std::to_string(code)); });
    }
    gtk_menu_button_set_popover(GTK_MENU_BUTTON(button_), popover_);
    g_signal_connect(popover_, "show", G_CALLBACK(+[](GtkWidget*, ExtensionToolbarButton* self) {
                         const gint64 clicked =
                             self->clicked_ ? self->clicked_ : g_get_monotonic_time();
                         self->clicked_ = 0;
                         if (self->onShow_) self->onShow_(clicked);
                     }),
                     this);
    g_signal_connect(popover_, "closed", G_CALLBACK(+[](GtkPopover*, ExtensionToolbarButton* self) {
                         const bool picking =
                             self->popoverView_ && self->popoverView_->shownView() == 2;
                         if (self->onClosed_) self->onClosed_(picking ? Picking::Yes : Picking::No);
                     }),
                     this);
    // The popover is a surface of its own: the window's keys never reach it.
    popoverKeys_ = addToggleShortcut(popover_, this);
}

ExtensionToolbarButton::~ExtensionToolbarButton() {
    item_->detach();
    item_->setOnBadgeChanged({});
    if (popoverView_) {
        popoverView_->setPopover(nullptr);
        popoverView_->setOnViewShown({});
    }
    g_signal_handlers_disconnect_by_data(popover_, this);
    gtk_widget_remove_controller(popover_, popoverKeys_);
    g_object_unref(button_);
}

void ExtensionToolbarButton::popup() {
    clicked_ = g_get_monotonic_time();
    gtk_menu_button_popup(GTK_MENU_BUTTON(button_));
}

void ExtensionToolbarButton::popdown() { gtk_popover_popdown(GTK_POPOVER(popover_)); }

void ExtensionToolbarButton::toggle() {
    if (isOpen()) {
        popdown();
    } else {
        popup();
    }
}

bool ExtensionToolbarButton::isOpen() const { return gtk_widget_get_visible(popover_); }

// The button's description says how many loads were blocked on the page, as
// its badge shows; with no badge (none blocked, or the counter off) it says
// nothing.
void ExtensionToolbarButton::describe() {
    const auto& badge = item_->badgeText();
    // The inner button is described by this one.
    if (!badge) {
        gtk_accessible_reset_property(GTK_ACCESSIBLE(button_), GTK_ACCESSIBLE_PROPERTY_DESCRIPTION);
        return;
    }
    std::string text = *badge == "1" ? tr("1 blocked load") : tr("%s blocked loads");
    if (const size_t at = text.find("%s"); at != std::string::npos) text.replace(at, 2, *badge);
    gtk_accessible_update_property(GTK_ACCESSIBLE(button_), GTK_ACCESSIBLE_PROPERTY_DESCRIPTION,
                                   text.c_str(), -1);
}

}  // namespace stonewall::browser
