#include "front/Controls.h"

#include "extension/platform/FrontServices.h"
#include "front/GtkViews.h"

namespace stonewall::browser {

// --- ExtensionButton rows --------------------------------------------------------

void attachExtensionButton(GtkWidget* row, const std::shared_ptr<ExtensionButton>& button,
                           std::function<void()> onPressed) {
    using Weak = std::weak_ptr<ExtensionButton>;
    const auto destroyWeak = +[](gpointer data, GClosure*) { delete static_cast<Weak*>(data); };
    gtk_widget_set_focusable(row, button->canBecomeKeyView());

    GtkEventController* motion = gtk_event_controller_motion_new();
    g_signal_connect_data(motion, "enter",
                          G_CALLBACK(+[](GtkEventController*, double, double, Weak* weak) {
                              if (auto self = weak->lock()) self->mouseEntered();
                          }),
                          new Weak(button), destroyWeak, GConnectFlags(0));
    g_signal_connect_data(motion, "leave", G_CALLBACK(+[](GtkEventController*, Weak* weak) {
                              if (auto self = weak->lock()) self->mouseExited();
                          }),
                          new Weak(button), destroyWeak, GConnectFlags(0));
    gtk_widget_add_controller(row, motion);

    // A click released on the row: the button flashes, then acts.
    struct Pressed {
        Weak button;
        std::function<void()> onPressed;
    };
    g_signal_connect_data(
        row, "clicked", G_CALLBACK(+[](GtkButton*, Pressed* pressed) {
            auto self = pressed->button.lock();
            if (!self) return;
            if (pressed->onPressed) pressed->onPressed();
            clickExtensionButton(*self);
        }),
        new Pressed{button, onPressed},
        +[](gpointer data, GClosure*) { delete static_cast<Pressed*>(data); }, GConnectFlags(0));

    // Space or Return on the focused row acts at once, as the space key
    // does for the front's button; an assistive technology's press (the row
    // need not have the focus) is a click.
    layerButtonSetOnActivate(row, [weak = Weak(button), onPressed] {
        auto self = weak.lock();
        if (!self || !self->isEnabled()) return;
        if (onPressed) onPressed();
        if (!self->performKeyEquivalent(kSpaceKeyCode)) clickExtensionButton(*self);
    });
}

void clickExtensionButton(ExtensionButton& button) {
    const Rect bounds = button.view() ? button.view()->bounds() : Rect{};
    button.mouseUp(Point{bounds.size.width / 2, bounds.size.height / 2});
}

}  // namespace stonewall::browser

// --- CustomSwitch --------------------------------------------------------------------

namespace {

// Draws what the switch decided; animates the knob between frames.
class SwitchView : public stonewall::CustomSwitchView {
  public:
    explicit SwitchView(GtkWidget* widget) : widget_(widget) {}

    void display(const stonewall::CustomSwitch& control,
                 const std::optional<stonewall::AnimationTiming>& animation) override {
        from_ = drawnKnob();
        to_ = control.knobLayer().frame;
        timing_ = animation.value_or(stonewall::AnimationTiming{});
        progress_ = animation ? 0 : 1;
        started_ = 0;
        if (animation && !tick_) {
            tick_ = gtk_widget_add_tick_callback(
                widget_,
                +[](GtkWidget*, GdkFrameClock* clock, gpointer data) -> gboolean {
                    return static_cast<SwitchView*>(data)->step(clock);
                },
                this, nullptr);
        }
        gtk_widget_queue_draw(widget_);
    }
    bool isFirstResponder() const override { return gtk_widget_has_focus(widget_); }
    std::string accessibilityLabel() const override {
        const char* tooltip = gtk_widget_get_tooltip_text(widget_);
        return tooltip ? tooltip : "";
    }

    stonewall::Rect drawnKnob() const {
        const double p = progress_;
        return stonewall::Rect{
            {from_.origin.x + (to_.origin.x - from_.origin.x) * p, to_.origin.y},
            {from_.size.width + (to_.size.width - from_.size.width) * p, to_.size.height}};
    }
    void stopTicking() {
        if (tick_) gtk_widget_remove_tick_callback(widget_, tick_);
        tick_ = 0;
    }

  private:
    gboolean step(GdkFrameClock* clock) {
        const gint64 now = gdk_frame_clock_get_frame_time(clock);
        if (!started_) started_ = now;
        const double t = timing_.duration > 0 ? (now - started_) / (timing_.duration * 1e6) : 1;
        progress_ = t >= 1 ? 1 : eased(t);
        gtk_widget_queue_draw(widget_);
        if (t < 1) return G_SOURCE_CONTINUE;
        tick_ = 0;
        return G_SOURCE_REMOVE;
    }

    // The timing's cubic Bézier: solve x(s) = t, answer y(s); y may pass 1.
    double eased(double t) const {
        const auto bezier = [](double a, double b, double s) {
            const double u = 1 - s;
            return 3 * u * u * s * a + 3 * u * s * s * b + s * s * s;
        };
        double low = 0, high = 1, s = t;
        for (int i = 0; i < 30; ++i) {
            s = (low + high) / 2;
            (bezier(timing_.controlPoint1.x, timing_.controlPoint2.x, s) < t ? low : high) = s;
        }
        return bezier(timing_.controlPoint1.y, timing_.controlPoint2.y, s);
    }

    GtkWidget* widget_;  // owns this view
    stonewall::Rect from_, to_;
    stonewall::AnimationTiming timing_;
    double progress_ = 1;
    gint64 started_ = 0;
    guint tick_ = 0;
};

}  // namespace

struct StonewallSwitch {
    GtkWidget parent;
    std::shared_ptr<SwitchView>* view;
    std::unique_ptr<stonewall::CustomSwitch>* control;
};
struct StonewallSwitchClass {
    GtkWidgetClass parent_class;
};
G_DEFINE_TYPE(StonewallSwitch, stonewall_switch, GTK_TYPE_WIDGET)

namespace {

StonewallSwitch* asSwitch(GtkWidget* widget) {
    return G_TYPE_CHECK_INSTANCE_CAST(widget, stonewall_switch_get_type(), StonewallSwitch);
}

GskRoundedRect rounded(const stonewall::Rect& rect, double radius) {
    const graphene_rect_t bounds = GRAPHENE_RECT_INIT(
        static_cast<float>(rect.origin.x), static_cast<float>(rect.origin.y),
        static_cast<float>(rect.size.width), static_cast<float>(rect.size.height));
    GskRoundedRect result;
    gsk_rounded_rect_init_from_rect(&result, &bounds, static_cast<float>(radius));
    return result;
}

// One layer: its shadow, its fill, its border.
void drawLayer(GtkSnapshot* snapshot, const stonewall::SwitchLayer& layer,
               const stonewall::Rect& frame, bool dark) {
    using stonewall::browser::resolveColor;
    const GskRoundedRect shape = rounded(frame, layer.cornerRadius);
    if (layer.shadowOpacity > 0) {
        GdkRGBA shadow = resolveColor(layer.shadowColor, dark);
        shadow.alpha *= static_cast<float>(layer.shadowOpacity);
        // The layer's shadow offset points up the screen for negative y.
        gtk_snapshot_append_outset_shadow(snapshot, &shape, &shadow,
                                          static_cast<float>(layer.shadowOffset.width),
                                          static_cast<float>(-layer.shadowOffset.height), 0,
                                          static_cast<float>(layer.shadowRadius));
    }
    const GdkRGBA fill = resolveColor(layer.backgroundColor, dark);
    gtk_snapshot_push_rounded_clip(snapshot, &shape);
    gtk_snapshot_append_color(snapshot, &fill, &shape.bounds);
    gtk_snapshot_pop(snapshot);
    if (layer.borderWidth > 0) {
        const GdkRGBA color = resolveColor(layer.borderColor, dark);
        const float width = static_cast<float>(layer.borderWidth);
        const float widths[4] = {width, width, width, width};
        const GdkRGBA colors[4] = {color, color, color, color};
        gtk_snapshot_append_border(snapshot, &shape, widths, colors);
    }
}

void snapshotSwitch(GtkWidget* widget, GtkSnapshot* snapshot) {
    StonewallSwitch* self = asSwitch(widget);
    const stonewall::CustomSwitch& control = **self->control;
    const bool dark = stonewall::platform::toolkit().isDarkAppearance();
    gtk_snapshot_push_opacity(snapshot, control.rootLayer().opacity);
    drawLayer(snapshot, control.backgroundLayer(), control.backgroundLayer().frame, dark);
    const stonewall::Rect knob = (*self->view)->drawnKnob();
    drawLayer(snapshot, control.knobLayer(), knob, dark);
    stonewall::SwitchLayer inside = control.knobInsideLayer();
    inside.cornerRadius = knob.size.height / 2;
    drawLayer(snapshot, inside, knob, dark);
    gtk_snapshot_pop(snapshot);
}

void allocateSwitch(GtkWidget* widget, int width, int height, int) {
    (*asSwitch(widget)->control)
        ->setFrame(stonewall::Rect{{0, 0}, {double(width), double(height)}});
}

}  // namespace

static void stonewall_switch_init(StonewallSwitch* self) {
    GtkWidget* widget = GTK_WIDGET(self);
    gtk_widget_set_focusable(widget, TRUE);
    gtk_widget_set_size_request(widget, 50, 30);
    self->view = new std::shared_ptr<SwitchView>(std::make_shared<SwitchView>(widget));
    self->control = new std::unique_ptr<stonewall::CustomSwitch>(
        stonewall::CustomSwitch::initWithFrame(*self->view, stonewall::Rect{{0, 0}, {50, 30}}));

    GtkGesture* click = gtk_gesture_click_new();
    g_signal_connect(
        click, "pressed",
        G_CALLBACK(+[](GtkGestureClick*, int, double x, double y, StonewallSwitch* self) {
            (*self->control)->mouseDown(stonewall::Point{x, y});
        }),
        self);
    g_signal_connect(
        click, "released",
        G_CALLBACK(+[](GtkGestureClick*, int, double x, double y, StonewallSwitch* self) {
            (*self->control)->mouseUp(stonewall::Point{x, y});
        }),
        self);
    gtk_widget_add_controller(widget, GTK_EVENT_CONTROLLER(click));

    GtkEventController* keys = gtk_event_controller_key_new();
    g_signal_connect(keys, "key-pressed",
                     G_CALLBACK(+[](GtkEventControllerKey*, guint keyval, guint, GdkModifierType,
                                    StonewallSwitch* self) -> gboolean {
                         return keyval == GDK_KEY_space &&
                                (*self->control)->performKeyEquivalent(stonewall::kSpaceKeyCode);
                     }),
                     self);
    gtk_widget_add_controller(widget, keys);
}

static void stonewall_switch_dispose(GObject* object) {
    (*asSwitch(GTK_WIDGET(object))->view)->stopTicking();
    G_OBJECT_CLASS(stonewall_switch_parent_class)->dispose(object);
}

static void stonewall_switch_finalize(GObject* object) {
    StonewallSwitch* self = asSwitch(GTK_WIDGET(object));
    delete self->control;
    delete self->view;
    G_OBJECT_CLASS(stonewall_switch_parent_class)->finalize(object);
}

static void stonewall_switch_class_init(StonewallSwitchClass* klass) {
    G_OBJECT_CLASS(klass)->dispose = stonewall_switch_dispose;
    G_OBJECT_CLASS(klass)->finalize = stonewall_switch_finalize;
    GTK_WIDGET_CLASS(klass)->snapshot = snapshotSwitch;
    GTK_WIDGET_CLASS(klass)->size_allocate = allocateSwitch;
    gtk_widget_class_set_accessible_role(GTK_WIDGET_CLASS(klass), GTK_ACCESSIBLE_ROLE_CHECKBOX);
}

namespace stonewall::browser {

GtkWidget* customSwitchNew() {
    return GTK_WIDGET(g_object_new(stonewall_switch_get_type(), nullptr));
}

CustomSwitch& customSwitchOf(GtkWidget* widget) { return **asSwitch(widget)->control; }

}  // namespace stonewall::browser
