#include "front/GtkViews.h"

#include <algorithm>
#include <cmath>

#include "extension/platform/FrontServices.h"
#include "platform/Platform.h"

// Subclasses are the way to paint under a widget's children: a box for the
// separators, a button for the rows.
struct StonewallLayer {
    GdkRGBA background;
    float cornerRadius;
};

static void snapshotLayer(const StonewallLayer& layer, GtkWidget* widget, GtkSnapshot* snapshot) {
    if (layer.background.alpha <= 0) return;
    const graphene_rect_t bounds =
        GRAPHENE_RECT_INIT(0, 0, static_cast<float>(gtk_widget_get_width(widget)),
                           static_cast<float>(gtk_widget_get_height(widget)));
    GskRoundedRect rounded;
    gsk_rounded_rect_init_from_rect(&rounded, &bounds, layer.cornerRadius);
    gtk_snapshot_push_rounded_clip(snapshot, &rounded);
    gtk_snapshot_append_color(snapshot, &layer.background, &bounds);
    gtk_snapshot_pop(snapshot);
}

struct StonewallLayerBox {
    GtkBox parent;
    StonewallLayer layer;
};
struct StonewallLayerBoxClass {
    GtkBoxClass parent_class;
};
G_DEFINE_TYPE(StonewallLayerBox, stonewall_layer_box, GTK_TYPE_BOX)

static void stonewall_layer_box_snapshot(GtkWidget* widget, GtkSnapshot* snapshot) {
    snapshotLayer(reinterpret_cast<StonewallLayerBox*>(widget)->layer, widget, snapshot);
    GTK_WIDGET_CLASS(stonewall_layer_box_parent_class)->snapshot(widget, snapshot);
}

static void stonewall_layer_box_init(StonewallLayerBox* self) {
    self->layer = StonewallLayer{GdkRGBA{0, 0, 0, 0}, 0};
}

static void stonewall_layer_box_class_init(StonewallLayerBoxClass* klass) {
    GTK_WIDGET_CLASS(klass)->snapshot = stonewall_layer_box_snapshot;
}

struct StonewallLayerButton {
    GtkButton parent;
    StonewallLayer layer;
};
struct StonewallLayerButtonClass {
    GtkButtonClass parent_class;
};
G_DEFINE_TYPE(StonewallLayerButton, stonewall_layer_button, GTK_TYPE_BUTTON)

static void stonewall_layer_button_snapshot(GtkWidget* widget, GtkSnapshot* snapshot) {
    snapshotLayer(reinterpret_cast<StonewallLayerButton*>(widget)->layer, widget, snapshot);
    GTK_WIDGET_CLASS(stonewall_layer_button_parent_class)->snapshot(widget, snapshot);
}

static void stonewall_layer_button_init(StonewallLayerButton* self) {
    self->layer = StonewallLayer{GdkRGBA{0, 0, 0, 0}, 0};
}

static constexpr const char* kOnActivateKey = "stonewall-on-activate";

// Space, Return and an assistive technology's press act at once: GtkButton
// would show the button pressed for a quarter of a second first, and the row
// has its own feedback.
static void stonewall_layer_button_activate(GtkButton* button) {
    auto* onActivate =
        static_cast<std::function<void()>*>(g_object_get_data(G_OBJECT(button), kOnActivateKey));
    if (onActivate && *onActivate) {
        // The call may replace the callback; keep it alive.
        const std::function<void()> call = *onActivate;
        call();
        return;
    }
    GTK_BUTTON_CLASS(stonewall_layer_button_parent_class)->activate(button);
}

static void stonewall_layer_button_class_init(StonewallLayerButtonClass* klass) {
    GTK_WIDGET_CLASS(klass)->snapshot = stonewall_layer_button_snapshot;
    GTK_BUTTON_CLASS(klass)->activate = stonewall_layer_button_activate;
}

namespace stonewall::browser {

namespace {

// Per thread: a group applies to the changes its caller makes.
thread_local double gAnimationDuration = 0;
// Main thread.
bool gHighContrast = false;

StonewallLayer* asLayer(GtkWidget* widget) {
    if (G_TYPE_CHECK_INSTANCE_TYPE(widget, stonewall_layer_box_get_type()))
        return &reinterpret_cast<StonewallLayerBox*>(widget)->layer;
    if (G_TYPE_CHECK_INSTANCE_TYPE(widget, stonewall_layer_button_get_type()))
        return &reinterpret_cast<StonewallLayerButton*>(widget)->layer;
    return nullptr;
}

bool darkAppearance() {
    const auto& front = platform::installedFront();
    return front.toolkit && front.toolkit->isDarkAppearance();
}

PangoWeight pangoWeight(FontWeight weight) {
    switch (weight) {
        case FontWeight::UltraLight:
            return PANGO_WEIGHT_ULTRALIGHT;
        case FontWeight::Thin:
            return PANGO_WEIGHT_THIN;
        case FontWeight::Light:
            return PANGO_WEIGHT_LIGHT;
        case FontWeight::Regular:
            return PANGO_WEIGHT_NORMAL;
        case FontWeight::Medium:
            return PANGO_WEIGHT_MEDIUM;
        case FontWeight::Semibold:
            return PANGO_WEIGHT_SEMIBOLD;
        case FontWeight::Bold:
            return PANGO_WEIGHT_BOLD;
        case FontWeight::Heavy:
            return PANGO_WEIGHT_ULTRABOLD;
        case FontWeight::Black:
            return PANGO_WEIGHT_HEAVY;
    }
    return PANGO_WEIGHT_NORMAL;
}

guint16 channel(double value) {
    return static_cast<guint16>(std::lround(std::clamp(value, 0.0, 1.0) * 65535));
}

}  // namespace

void onMainThread(std::function<void()> work) {
    if (g_main_context_is_owner(g_main_context_default())) {
        work();
        return;
    }
    platform::dispatch().mainQueue().async(std::move(work));
}

void setHighContrast(bool on) { gHighContrast = on; }

double animationDurationInEffect() { return gAnimationDuration; }
void setAnimationDurationInEffect(double seconds) { gAnimationDuration = seconds; }

GdkRGBA resolveColor(const NSColor& color, bool dark) {
    if (!color.system) {
        return GdkRGBA{static_cast<float>(color.red), static_cast<float>(color.green),
                       static_cast<float>(color.blue), static_cast<float>(color.alpha)};
    }
    // The desktop's label, separator and selection colours as libadwaita
    // draws them, light and dark. Secondary text is as dim as a dim label
    // can be and still read at 4.5:1 on the popover (docs/accessibility.md
    // has the measured ratios); high contrast draws every text near full
    // strength, as libadwaita's high-contrast style does.
    const float ink = dark ? 1.0f : 0.0f;
    const bool high = gHighContrast;
    switch (*color.system) {
        case SystemColor::Label:
            return {ink, ink, ink, high ? 1.0f : 0.85f};
        case SystemColor::SecondaryLabel:
            return {ink, ink, ink, high ? 0.85f : 0.56f};
        case SystemColor::TertiaryLabel:
            return {ink, ink, ink, high ? 0.6f : dark ? 0.25f : 0.26f};
        case SystemColor::Separator:
            return {ink, ink, ink, high ? 0.5f : 0.1f};
        case SystemColor::DisabledControlText:
            return {ink, ink, ink, high ? 0.5f : 0.25f};
        case SystemColor::SelectedContentBackground:
        case SystemColor::SelectedMenuItem:
            // One blue in both schemes: white on the lighter dark-scheme blue
            // read at 3.7:1 only.
            return GdkRGBA{0.11f, 0.44f, 0.85f, 1};
        case SystemColor::SelectedMenuItemText:
            return {1, 1, 1, 1};
        case SystemColor::WindowBackground:
            return dark ? GdkRGBA{0.14f, 0.14f, 0.14f, 1} : GdkRGBA{0.98f, 0.98f, 0.98f, 1};
        case SystemColor::ControlAccent:
            return dark ? GdkRGBA{0.47f, 0.68f, 0.93f, 1} : GdkRGBA{0.11f, 0.44f, 0.85f, 1};
    }
    return {0, 0, 0, 1};
}

GtkWidget* layerBoxNew(GtkOrientation orientation, int spacing) {
    GtkWidget* box = GTK_WIDGET(g_object_new(stonewall_layer_box_get_type(), "orientation",
                                             orientation, "spacing", spacing, nullptr));
    return box;
}

GtkWidget* layerButtonNew(GtkAccessibleRole role) {
    return GTK_WIDGET(
        g_object_new(stonewall_layer_button_get_type(), "accessible-role", role, nullptr));
}

void layerButtonSetOnActivate(GtkWidget* button, std::function<void()> onActivate) {
    g_object_set_data_full(
        G_OBJECT(button), kOnActivateKey, new std::function<void()>(std::move(onActivate)),
        +[](gpointer data) { delete static_cast<std::function<void()>*>(data); });
}

// --- GtkImageResource ------------------------------------------------------------

GtkImageResource::GtkImageResource(std::string name, GdkTexture* texture)
    : NSImage(std::move(name)), texture_(texture) {}

GtkImageResource::~GtkImageResource() {
    if (texture_) g_object_unref(texture_);
}

// --- GtkViewBase -------------------------------------------------------------------

template <typename Base>
void GtkViewBase<Base>::setHidden(bool hidden) {
    hidden_ = hidden;
    onMainThread([widget = widget_, hidden] { gtk_widget_set_visible(widget, !hidden); });
}

template <typename Base>
void GtkViewBase<Base>::setLayerBackgroundColor(const NSColor& color) {
    background_ = color;
    refreshAppearance();
}

template <typename Base>
void GtkViewBase<Base>::setLayerCornerRadius(double radius) {
    cornerRadius_ = radius;
    refreshAppearance();
}

template <typename Base>
void GtkViewBase<Base>::refreshAppearance() {
    if (!background_) return;
    onMainThread([widget = widget_, color = *background_, radius = cornerRadius_] {
        StonewallLayer* layer = asLayer(widget);
        if (!layer) return;
        layer->background = resolveColor(color, darkAppearance());
        layer->cornerRadius = static_cast<float>(radius);
        gtk_widget_queue_draw(widget);
    });
}

template <typename Base>
void GtkViewBase<Base>::setAccessibilityValue(std::optional<bool> checked) {
    onMainThread([widget = widget_, checked] {
        if (!checked) {
            gtk_accessible_reset_state(GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_STATE_CHECKED);
            return;
        }
        gtk_accessible_update_state(
            GTK_ACCESSIBLE(widget), GTK_ACCESSIBLE_STATE_CHECKED,
            *checked ? GTK_ACCESSIBLE_TRISTATE_TRUE : GTK_ACCESSIBLE_TRISTATE_FALSE, -1);
    });
}

// Insensitive: out of the keyboard's way too, as a menu skips a disabled item.
template <typename Base>
void GtkViewBase<Base>::setAccessibilityEnabled(bool enabled) {
    onMainThread([widget = widget_, enabled] { gtk_widget_set_sensitive(widget, enabled); });
}

template <typename Base>
Rect GtkViewBase<Base>::bounds() const {
    return Rect{{0, 0},
                {static_cast<double>(gtk_widget_get_width(widget_)),
                 static_cast<double>(gtk_widget_get_height(widget_))}};
}

template <typename Base>
bool GtkViewBase<Base>::isFirstResponder() const {
    return gtk_widget_has_focus(widget_);
}

template class GtkViewBase<NSView>;
template class GtkViewBase<NSTextField>;
template class GtkViewBase<NSImageView>;
template class GtkViewBase<NSButton>;
template class GtkViewBase<NSPopUpButton>;
template class GtkViewBase<NSProgressIndicator>;
template class GtkViewBase<NSStackView>;

// --- GtkRowView ---------------------------------------------------------------------

void GtkRowView::setAccessibilityLabel(const std::string& label) {
    onMainThread([this, label] {
        label_ = label;
        updateAccessibleText();
    });
}

void GtkRowView::setVisibleTitle(const std::string& title) {
    title_ = title;
    updateAccessibleText();
}

void GtkRowView::updateAccessibleText() {
    if (label_) {
        gtk_accessible_update_property(GTK_ACCESSIBLE(widget_), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                       label_->c_str(), GTK_ACCESSIBLE_PROPERTY_DESCRIPTION,
                                       title_.c_str(), -1);
    } else {
        gtk_accessible_update_property(GTK_ACCESSIBLE(widget_), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                       title_.c_str(), -1);
    }
}

// --- GtkTextField -------------------------------------------------------------------

void GtkTextField::setStringValue(const std::string& text) {
    {
        std::lock_guard lock(mutex_);
        text_ = text;
    }
    onMainThread([widget = widget_, onTextShown = onTextShown_, text] {
        gtk_label_set_text(GTK_LABEL(widget), text.c_str());
        if (onTextShown) onTextShown(text);
    });
}

std::string GtkTextField::stringValue() const {
    std::lock_guard lock(mutex_);
    return text_;
}

void GtkTextField::setTextColor(const NSColor& color) {
    {
        std::lock_guard lock(mutex_);
        color_ = color;
    }
    applyAttributes();
}

void GtkTextField::setFont(const NSFont& font) {
    {
        std::lock_guard lock(mutex_);
        font_ = font;
    }
    applyAttributes();
}

void GtkTextField::refreshAppearance() {
    GtkViewBase::refreshAppearance();
    applyAttributes();
}

// Pango attributes rather than style classes: a colour change is a
// re-layout of one label, not a restyle of the tree.
void GtkTextField::applyAttributes() {
    std::optional<NSColor> color;
    std::optional<NSFont> font;
    {
        std::lock_guard lock(mutex_);
        color = color_;
        font = font_;
    }
    onMainThread([widget = widget_, color, font] {
        PangoAttrList* attributes = pango_attr_list_new();
        if (color) {
            const GdkRGBA rgba = resolveColor(*color, darkAppearance());
            pango_attr_list_insert(attributes,
                                   pango_attr_foreground_new(channel(rgba.red), channel(rgba.green),
                                                             channel(rgba.blue)));
            pango_attr_list_insert(attributes,
                                   pango_attr_foreground_alpha_new(channel(rgba.alpha)));
        }
        if (font) {
            // The front's sizes are pixels at 96 dpi; given in points they
            // follow the desktop's text scale, as the theme's texts do.
            pango_attr_list_insert(
                attributes, pango_attr_size_new(static_cast<int>(font->size * 0.75 * PANGO_SCALE)));
            pango_attr_list_insert(attributes, pango_attr_weight_new(pangoWeight(font->weight)));
        }
        gtk_label_set_attributes(GTK_LABEL(widget), attributes);
        pango_attr_list_unref(attributes);
    });
}

// --- GtkImageView -------------------------------------------------------------------

void GtkImageView::setImage(std::shared_ptr<NSImage> image) {
    onMainThread([widget = widget_, image = std::move(image)] {
        auto* resource = dynamic_cast<GtkImageResource*>(image.get());
        if (resource && resource->paintable()) {
            gtk_image_set_from_paintable(GTK_IMAGE(widget), resource->paintable());
        } else {
            gtk_image_clear(GTK_IMAGE(widget));
        }
    });
}

// --- GtkPushButton ----------------------------------------------------------------------

GtkPushButton::GtkPushButton(GtkWidget* button) : GtkViewBase(button) {
    const char* label = gtk_button_get_label(GTK_BUTTON(button));
    title_ = label ? label : "";
    g_signal_connect(button, "clicked", G_CALLBACK(+[](GtkButton*, GtkPushButton* self) {
                         std::function<void()> action;
                         {
                             std::lock_guard lock(self->mutex_);
                             action = self->action_;
                         }
                         if (action) action();
                     }),
                     this);
}

void GtkPushButton::setTitle(const std::string& title) {
    {
        std::lock_guard lock(mutex_);
        title_ = title;
    }
    onMainThread(
        [widget = widget_, title] { gtk_button_set_label(GTK_BUTTON(widget), title.c_str()); });
}

std::string GtkPushButton::title() const {
    std::lock_guard lock(mutex_);
    return title_;
}

void GtkPushButton::setEnabled(bool enabled) {
    enabled_ = enabled;
    onMainThread([widget = widget_, enabled] { gtk_widget_set_sensitive(widget, enabled); });
}

void GtkPushButton::setActionHandler(std::function<void()> action) {
    std::lock_guard lock(mutex_);
    action_ = std::move(action);
}

// --- GtkPopUpButton ------------------------------------------------------------------------

GtkPopUpButton::GtkPopUpButton() : GtkViewBase(gtk_scrolled_window_new()) {
    list_ = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_widget_add_css_class(list_, "profile-list");
    gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(widget_), GTK_POLICY_NEVER,
                                   GTK_POLICY_AUTOMATIC);
    gtk_scrolled_window_set_propagate_natural_height(GTK_SCROLLED_WINDOW(widget_), TRUE);
    gtk_scrolled_window_set_max_content_height(GTK_SCROLLED_WINDOW(widget_), 160);
    gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(widget_), list_);
    // The rows take the focus, not the frame around them.
    gtk_widget_set_focusable(widget_, FALSE);
}

void GtkPopUpButton::removeAllItems() {
    {
        std::lock_guard lock(mutex_);
        items_.clear();
    }
    onMainThread([list = list_] {
        while (GtkWidget* child = gtk_widget_get_first_child(list))
            gtk_box_remove(GTK_BOX(list), child);
    });
}

void GtkPopUpButton::addItem(const NSMenuItem& item) {
    {
        std::lock_guard lock(mutex_);
        items_.push_back(item);
    }
    onMainThread([list = list_, title = item.title] {
        // A toggle button is what GTK lets assistive technologies press; it
        // is told as a radio item, and checked with its mark.
        GtkWidget* row = GTK_WIDGET(g_object_new(GTK_TYPE_TOGGLE_BUTTON, "accessible-role",
                                                 GTK_ACCESSIBLE_ROLE_RADIO, nullptr));
        gtk_widget_add_css_class(row, "flat");
        gtk_widget_add_css_class(row, "profile-row");
        GtkWidget* box = gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6);
        GtkWidget* mark = gtk_image_new_from_icon_name("object-select-symbolic");
        gtk_widget_set_opacity(mark, 0);
        GtkWidget* text = gtk_label_new(title.c_str());
        gtk_label_set_xalign(GTK_LABEL(text), 0);
        gtk_label_set_ellipsize(GTK_LABEL(text), PANGO_ELLIPSIZE_END);
        gtk_widget_set_hexpand(text, TRUE);
        gtk_box_append(GTK_BOX(box), mark);
        gtk_box_append(GTK_BOX(box), text);
        gtk_button_set_child(GTK_BUTTON(row), box);
        gtk_accessible_update_property(GTK_ACCESSIBLE(row), GTK_ACCESSIBLE_PROPERTY_LABEL,
                                       title.c_str(), -1);
        gtk_accessible_update_state(GTK_ACCESSIBLE(row), GTK_ACCESSIBLE_STATE_CHECKED,
                                    GTK_ACCESSIBLE_TRISTATE_FALSE, -1);
        g_object_set_data(G_OBJECT(row), "stonewall-mark", mark);
        g_signal_connect(
            row, "toggled", G_CALLBACK(+[](GtkToggleButton* row, gpointer) {
                const bool active = gtk_toggle_button_get_active(row);
                auto* mark =
                    static_cast<GtkWidget*>(g_object_get_data(G_OBJECT(row), "stonewall-mark"));
                gtk_widget_set_opacity(mark, active ? 1 : 0);
                gtk_accessible_update_state(
                    GTK_ACCESSIBLE(row), GTK_ACCESSIBLE_STATE_CHECKED,
                    active ? GTK_ACCESSIBLE_TRISTATE_TRUE : GTK_ACCESSIBLE_TRISTATE_FALSE, -1);
            }),
            nullptr);
        if (GtkWidget* first = gtk_widget_get_first_child(list)) {
            gtk_toggle_button_set_group(GTK_TOGGLE_BUTTON(row), GTK_TOGGLE_BUTTON(first));
        }
        gtk_box_append(GTK_BOX(list), row);
    });
}

int64_t GtkPopUpButton::numberOfItems() const {
    std::lock_guard lock(mutex_);
    return static_cast<int64_t>(items_.size());
}

void GtkPopUpButton::selectItemAtIndex(int64_t index) {
    onMainThread([list = list_, index] {
        int64_t at = 0;
        for (GtkWidget* row = gtk_widget_get_first_child(list); row;
             row = gtk_widget_get_next_sibling(row), ++at) {
            if (at == index) {
                gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(row), TRUE);
                return;
            }
        }
        // Outside the list: nothing selected.
        for (GtkWidget* row = gtk_widget_get_first_child(list); row;
             row = gtk_widget_get_next_sibling(row)) {
            gtk_toggle_button_set_active(GTK_TOGGLE_BUTTON(row), FALSE);
        }
    });
}

int64_t GtkPopUpButton::indexOfSelectedItem() const {
    int64_t at = 0;
    for (GtkWidget* row = gtk_widget_get_first_child(list_); row;
         row = gtk_widget_get_next_sibling(row), ++at) {
        if (gtk_toggle_button_get_active(GTK_TOGGLE_BUTTON(row)))
            return at < numberOfItems() ? at : -1;
    }
    return -1;
}

std::optional<NSMenuItem> GtkPopUpButton::selectedItem() const {
    const int64_t index = indexOfSelectedItem();
    if (index < 0) return std::nullopt;
    std::lock_guard lock(mutex_);
    return items_[static_cast<size_t>(index)];
}

// --- GtkProgressIndicator ---------------------------------------------------------------------

GtkProgressIndicator::GtkProgressIndicator() : GtkViewBase(gtk_spinner_new()) {
    gtk_widget_set_size_request(widget_, 24, 24);
}

void GtkProgressIndicator::startAnimation() {
    onMainThread([widget = widget_] { gtk_spinner_start(GTK_SPINNER(widget)); });
}

void GtkProgressIndicator::stopAnimation() {
    onMainThread([widget = widget_] { gtk_spinner_stop(GTK_SPINNER(widget)); });
}

// --- GtkStackView -------------------------------------------------------------------------------

GtkStackView::GtkStackView(GtkWidget* box, GtkWidget* stack)
    : GtkViewBase(box), stack_(stack), spacing_(gtk_box_get_spacing(GTK_BOX(box))) {}

void GtkStackView::setHidden(bool hidden) {
    if (!stack_) {
        GtkViewBase::setHidden(hidden);
        return;
    }
    // A page is hidden by showing another; only the shown one acts.
    hidden_ = hidden;
    if (hidden) return;
    const auto milliseconds = static_cast<guint>(std::lround(animationDurationInEffect() * 1000));
    onMainThread([this, milliseconds] {
        gtk_stack_set_transition_duration(GTK_STACK(stack_), milliseconds);
        gtk_stack_set_visible_child(GTK_STACK(stack_), widget_);
        if (onShown_) onShown_();
    });
}

void GtkStackView::setSpacing(double spacing) {
    spacing_ = spacing;
    onMainThread([widget = widget_, spacing] {
        gtk_box_set_spacing(GTK_BOX(widget), static_cast<int>(std::lround(spacing)));
    });
}

// --- GtkMarginConstraint -------------------------------------------------------------------------

GtkMarginConstraint::GtkMarginConstraint(GtkWidget* widget, Edge edge, double constant)
    : widget_(GTK_WIDGET(g_object_ref(widget))), edge_(edge), constant_(0) {
    setConstant(constant);
}

GtkMarginConstraint::~GtkMarginConstraint() { g_object_unref(widget_); }

void GtkMarginConstraint::setConstant(double constant) {
    constant_ = constant;
    onMainThread([widget = widget_, edge = edge_, constant] {
        // Margins cannot be negative; a negative offset moves nothing.
        const int margin = std::max(0, static_cast<int>(std::lround(constant)));
        switch (edge) {
            case Edge::Start:
                gtk_widget_set_margin_start(widget, margin);
                break;
            case Edge::End:
                gtk_widget_set_margin_end(widget, margin);
                break;
            case Edge::Top:
                gtk_widget_set_margin_top(widget, margin);
                break;
        }
    });
}

}  // namespace stonewall::browser
