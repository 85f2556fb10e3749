#include "Controls.h"

#include <cmath>
#include <memory>

namespace stonewall::browser {

namespace {

constexpr unsigned kFlashHighlightDelayMs = 90;
constexpr unsigned kFlashActDelayMs = 150;

}  // namespace

// --- ExtensionButton --------------------------------------------------------

ExtensionButton* ExtensionButton::create(const std::string& title) {
    auto* button = new ExtensionButton();
    button->box_ = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 8);
    gtk_widget_add_css_class(button->box_, "extension-button");
    gtk_widget_set_focusable(button->box_, TRUE);
    gtk_accessible_update_property(GTK_ACCESSIBLE(button->box_), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                   title.c_str(), -1);
    button->image_ = gtk_image_new();
    gtk_image_set_pixel_size(GTK_IMAGE(button->image_), 16);
    button->label_ = gtk_label_new(title.c_str());
    gtk_label_set_xalign(GTK_LABEL(button->label_), 0);
    gtk_label_set_ellipsize(GTK_LABEL(button->label_), PANGO_ELLIPSIZE_END);
    gtk_widget_set_hexpand(button->label_, TRUE);
    gtk_box_append(GTK_BOX(button->box_), button->image_);
    gtk_box_append(GTK_BOX(button->box_), button->label_);
    gtk_widget_set_visible(button->image_, FALSE);
    g_object_set_data_full(G_OBJECT(button->box_), "stonewall-extension-button", button,
                           [](gpointer data) {
                               auto* self = static_cast<ExtensionButton*>(data);
                               if (self->flashSource_) g_source_remove(self->flashSource_);
                               delete self;
                           });

    GtkEventController* motion = gtk_event_controller_motion_new();
    g_signal_connect(motion, "enter", G_CALLBACK(+[](GtkEventController*, double, double,
                                                     ExtensionButton* self) {
                         self->hovered_ = true;
                         if (self->enabled_) self->highlight();
                     }),
                     button);
    g_signal_connect(motion, "leave", G_CALLBACK(+[](GtkEventController*, ExtensionButton* self) {
                         self->hovered_ = false;
                         self->clear();
                     }),
                     button);
    gtk_widget_add_controller(button->box_, motion);

    // The press does nothing; everything happens on release.
    GtkGesture* click = gtk_gesture_click_new();
    gtk_gesture_single_set_button(GTK_GESTURE_SINGLE(click), GDK_BUTTON_PRIMARY);
    g_signal_connect(click, "released",
                     G_CALLBACK(+[](GtkGestureClick*, int, double x, double y,
                                    ExtensionButton* self) {
                         const double width = gtk_widget_get_width(self->box_);
                         const double height = gtk_widget_get_height(self->box_);
                         if (x < 0 || y < 0 || x > width || y > height) {
                             if (self->enabled_) self->clear();
                             return;
                         }
                         self->releaseInside();
                     }),
                     button);
    gtk_widget_add_controller(button->box_, GTK_EVENT_CONTROLLER(click));

    GtkEventController* keys = gtk_event_controller_key_new();
    g_signal_connect(keys, "key-pressed",
                     G_CALLBACK(+[](GtkEventControllerKey*, guint keyval, guint, GdkModifierType,
                                    ExtensionButton* self) -> gboolean {
                         if (keyval != GDK_KEY_space) return FALSE;
                         self->activateFromKeyboard();
                         return TRUE;
                     }),
                     button);
    gtk_widget_add_controller(button->box_, keys);
    return button;
}

void ExtensionButton::setTitle(const std::string& title) {
    gtk_label_set_text(GTK_LABEL(label_), title.c_str());
    gtk_accessible_update_property(GTK_ACCESSIBLE(box_), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                   title.c_str(), -1);
}

std::string ExtensionButton::title() const { return gtk_label_get_text(GTK_LABEL(label_)); }

void ExtensionButton::setImages(const std::string& image, const std::string& imageSelected) {
    imagePath_ = image;
    imageSelectedPath_ = imageSelected;
    gtk_widget_set_visible(image_, !image.empty());
    gtk_image_set_from_file(GTK_IMAGE(image_),
                            (hovered_ && enabled_ ? imageSelected : image).c_str());
}

void ExtensionButton::setEnabled(bool enabled) {
    enabled_ = enabled;
    if (enabled) {
        gtk_widget_remove_css_class(box_, "disabled");
    } else {
        gtk_widget_add_css_class(box_, "disabled");
        clear();
    }
    gtk_accessible_update_state(GTK_ACCESSIBLE(box_), GTK_ACCESSIBLE_STATE_DISABLED, !enabled,
                                -1);
}

void ExtensionButton::highlight() {
    gtk_widget_add_css_class(box_, "highlighted");
    if (!imageSelectedPath_.empty()) {
        gtk_image_set_from_file(GTK_IMAGE(image_), imageSelectedPath_.c_str());
    }
}

void ExtensionButton::clear() {
    gtk_widget_remove_css_class(box_, "highlighted");
    if (!imagePath_.empty()) gtk_image_set_from_file(GTK_IMAGE(image_), imagePath_.c_str());
}

void ExtensionButton::releaseInside() {
    if (!enabled_) return;
    clear();
    if (!mouseUp_ || !action_ || flashSource_) return;
    flashSource_ = g_timeout_add_once(
        kFlashHighlightDelayMs,
        +[](gpointer data) {
            auto* self = static_cast<ExtensionButton*>(data);
            self->highlight();
            self->flashSource_ = g_timeout_add_once(
                kFlashActDelayMs,
                +[](gpointer data) {
                    auto* self = static_cast<ExtensionButton*>(data);
                    self->flashSource_ = 0;
                    // The action may rebuild the popover; keep a copy.
                    Action action = self->action_;
                    self->clear();
                    if (action) action();
                },
                self);
        },
        this);
}

void ExtensionButton::activateFromKeyboard() {
    if (!enabled_ || !action_) return;
    Action action = action_;
    action();
}

}  // namespace stonewall::browser

// A GObject subclass is the only way to draw with GtkSnapshot.
struct StonewallSwitch {
    GtkWidget parent;
    bool checked;
    bool active;
    double progress;  // 0 at the old knob rect, 1 at the new one
    stonewall::browser::KnobRect from;
    gint64 animationStart;
    guint tick;
    std::function<void(bool)>* action;
};
struct StonewallSwitchClass {
    GtkWidgetClass parent_class;
};
G_DEFINE_TYPE(StonewallSwitch, stonewall_switch, GTK_TYPE_WIDGET)

namespace stonewall::browser {
namespace {

constexpr double kAnimationSeconds = 0.4;

StonewallSwitch* asSwitch(GtkWidget* widget) {
    return G_TYPE_CHECK_INSTANCE_CAST(widget, stonewall_switch_get_type(), StonewallSwitch);
}

LayoutDirection directionOf(GtkWidget* widget) {
    return gtk_widget_get_direction(widget) == GTK_TEXT_DIR_RTL ? LayoutDirection::RightToLeft
                                                                : LayoutDirection::LeftToRight;
}

KnobRect currentKnob(StonewallSwitch* self) {
    GtkWidget* widget = GTK_WIDGET(self);
    return rectForKnob(gtk_widget_get_width(widget), gtk_widget_get_height(widget), self->checked,
                       self->active, directionOf(widget));
}

// The cubic Bezier (0.25, 1.5), (0.5, 1.0) in time, solved for x by bisection.
double easeWithOvershoot(double t) {
    const auto bezier = [](double a, double b, double s) {
        const double u = 1 - s;
        return 3 * u * u * s * a + 3 * u * s * s * b + s * s * s;
    };
    double low = 0, high = 1, s = t;
    for (int i = 0; i < 30; ++i) {
        s = (low + high) / 2;
        (bezier(0.25, 0.5, s) < t ? low : high) = s;
    }
    return bezier(1.5, 1.0, s);
}

void reloadLayer(StonewallSwitch* self, KnobRect from) {
    GtkWidget* widget = GTK_WIDGET(self);
    self->from = from;
    self->progress = 0;
    self->animationStart = 0;
    if (!self->tick) {
        self->tick = gtk_widget_add_tick_callback(
            widget,
            +[](GtkWidget* widget, GdkFrameClock* clock, gpointer) -> gboolean {
                auto* self = asSwitch(widget);
                const gint64 now = gdk_frame_clock_get_frame_time(clock);
                if (!self->animationStart) self->animationStart = now;
                const double t = (now - self->animationStart) / (kAnimationSeconds * 1e6);
                self->progress = t >= 1 ? 1 : easeWithOvershoot(t);
                gtk_widget_queue_draw(widget);
                if (t < 1) return G_SOURCE_CONTINUE;
                self->tick = 0;
                return G_SOURCE_REMOVE;
            },
            nullptr, nullptr);
    }
    gtk_widget_queue_draw(widget);
}

void flip(StonewallSwitch* self) {
    const KnobRect from = currentKnob(self);
    self->checked = !self->checked;
    if (self->checked) {
        gtk_widget_add_css_class(GTK_WIDGET(self), "checked");
    } else {
        gtk_widget_remove_css_class(GTK_WIDGET(self), "checked");
    }
    gtk_accessible_update_state(GTK_ACCESSIBLE(self), GTK_ACCESSIBLE_STATE_CHECKED,
                                self->checked ? GTK_ACCESSIBLE_TRISTATE_TRUE
                                              : GTK_ACCESSIBLE_TRISTATE_FALSE,
                                -1);
    if (self->action && *self->action) (*self->action)(self->checked);
    reloadLayer(self, from);
}

void snapshotSwitch(GtkWidget* widget, GtkSnapshot* snapshot) {
    auto* self = asSwitch(widget);
    const float width = gtk_widget_get_width(widget);
    const float height = gtk_widget_get_height(widget);
    if (width < 8 || height < 8) return;
    GdkRGBA on, off, knobColor{1, 1, 1, 1}, shadow{0, 0, 0, 0.3f};
    // The palette's switch colours come from the style sheet.
    GtkStyleContext* style = gtk_widget_get_style_context(widget);
    G_GNUC_BEGIN_IGNORE_DEPRECATIONS
    if (!gtk_style_context_lookup_color(style, "stonewall_on_switch", &on)) gdk_rgba_parse(&on, "#3dc752");
    if (!gtk_style_context_lookup_color(style, "stonewall_off_switch_border", &off)) gdk_rgba_parse(&off, "#dcdcdc");
    G_GNUC_END_IGNORE_DEPRECATIONS
    const float opacity = gtk_widget_is_sensitive(widget) ? 1.0f : 0.5f;
    gtk_snapshot_push_opacity(snapshot, opacity);

    GskRoundedRect background;
    const graphene_rect_t bounds = GRAPHENE_RECT_INIT(0, 0, width, height);
    gsk_rounded_rect_init_from_rect(&background, &bounds, height / 2);
    const GdkRGBA& fill = self->checked ? on : off;
    gtk_snapshot_push_rounded_clip(snapshot, &background);
    gtk_snapshot_append_color(snapshot, &fill, &bounds);
    gtk_snapshot_pop(snapshot);
    const float borders[4] = {2, 2, 2, 2};
    const GdkRGBA borderColors[4] = {fill, fill, fill, fill};
    gtk_snapshot_append_border(snapshot, &background, borders, borderColors);

    const KnobRect to = currentKnob(self);
    const double p = self->progress;
    const KnobRect& from = self->from.height > 0 ? self->from : to;
    const auto x = static_cast<float>(from.x + (to.x - from.x) * p);
    const auto w = static_cast<float>(from.width + (to.width - from.width) * p);
    GskRoundedRect knob;
    const graphene_rect_t knobBounds =
        GRAPHENE_RECT_INIT(x, static_cast<float>(to.y), w, static_cast<float>(to.height));
    gsk_rounded_rect_init_from_rect(&knob, &knobBounds, static_cast<float>(to.height / 2));
    gtk_snapshot_append_outset_shadow(snapshot, &knob, &shadow, 0, 2, 0, 1);
    gtk_snapshot_push_rounded_clip(snapshot, &knob);
    gtk_snapshot_append_color(snapshot, &knobColor, &knob.bounds);
    gtk_snapshot_pop(snapshot);
    gtk_snapshot_pop(snapshot);
}

}  // namespace
}  // namespace stonewall::browser

static void stonewall_switch_init(StonewallSwitch* self) {
    self->checked = false;
    self->active = false;
    self->progress = 1;
    self->from = {};
    self->animationStart = 0;
    self->tick = 0;
    self->action = new std::function<void(bool)>();
    GtkWidget* widget = GTK_WIDGET(self);
    gtk_widget_set_focusable(widget, TRUE);
    gtk_widget_set_size_request(widget, 50, 30);
    gtk_widget_add_css_class(widget, "custom-switch");

    GtkGesture* click = gtk_gesture_click_new();
    g_signal_connect(click, "pressed", G_CALLBACK(+[](GtkGestureClick*, int, double, double,
                                                      StonewallSwitch* self) {
                         if (!*self->action || !gtk_widget_is_sensitive(GTK_WIDGET(self))) return;
                         const auto from = stonewall::browser::currentKnob(self);
                         self->active = true;
                         stonewall::browser::reloadLayer(self, from);
                     }),
                     self);
    g_signal_connect(click, "released", G_CALLBACK(+[](GtkGestureClick*, int, double x, double y,
                                                       StonewallSwitch* self) {
                         GtkWidget* widget = GTK_WIDGET(self);
                         if (!*self->action || !gtk_widget_is_sensitive(widget)) return;
                         self->active = false;
                         if (x < 0 || y < 0 || x > gtk_widget_get_width(widget) ||
                             y > gtk_widget_get_height(widget)) {
                             stonewall::browser::reloadLayer(self, stonewall::browser::currentKnob(self));
                             return;
                         }
                         stonewall::browser::flip(self);
                     }),
                     self);
    gtk_widget_add_controller(widget, GTK_EVENT_CONTROLLER(click));

    GtkEventController* keys = gtk_event_controller_key_new();
    g_signal_connect(keys, "key-pressed",
                     G_CALLBACK(+[](GtkEventControllerKey*, guint keyval, guint, GdkModifierType,
                                    StonewallSwitch* self) -> gboolean {
                         if (keyval != GDK_KEY_space) return FALSE;
                         stonewall::browser::flip(self);
                         return TRUE;
                     }),
                     self);
    gtk_widget_add_controller(widget, keys);
}

static void stonewall_switch_finalize(GObject* object) {
    delete stonewall::browser::asSwitch(GTK_WIDGET(object))->action;
    G_OBJECT_CLASS(stonewall_switch_parent_class)->finalize(object);
}

static void stonewall_switch_class_init(StonewallSwitchClass* klass) {
    G_OBJECT_CLASS(klass)->finalize = stonewall_switch_finalize;
    GTK_WIDGET_CLASS(klass)->snapshot = stonewall::browser::snapshotSwitch;
    gtk_widget_class_set_accessible_role(GTK_WIDGET_CLASS(klass), GTK_ACCESSIBLE_ROLE_SWITCH);
}

namespace stonewall::browser {

GtkWidget* customSwitchNew() {
    return GTK_WIDGET(g_object_new(stonewall_switch_get_type(), nullptr));
}

void customSwitchSetChecked(GtkWidget* widget, bool checked) {
    auto* self = asSwitch(widget);
    const KnobRect from = currentKnob(self);
    if (self->checked != checked) {
        self->checked = checked;
        if (checked) gtk_widget_add_css_class(widget, "checked");
        else gtk_widget_remove_css_class(widget, "checked");
    }
    reloadLayer(self, from);
}

bool customSwitchIsChecked(GtkWidget* widget) { return asSwitch(widget)->checked; }

void customSwitchSetAction(GtkWidget* widget, std::function<void(bool)> action) {
    *asSwitch(widget)->action = std::move(action);
}

}  // namespace stonewall::browser
