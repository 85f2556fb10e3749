#include "GtkViews.h"

#include <algorithm>
#include <cmath>

#include "extension/platform/FrontServices.h"
#include "platform/Platform.h"

// A GtkBox subclass is the way to paint under a box's children.
struct StonewallLayerBox {
    GtkBox parent;
    GdkRGBA background;
    float cornerRadius;
};
struct StonewallLayerBoxClass {
    GtkBoxClass parent_class;
};
G_DEFINE_TYPE(StonewallLayerBox, stonewall_layer_box, GTK_TYPE_BOX)

static void stonewall_layer_box_snapshot(GtkWidget* widget, GtkSnapshot* snapshot) {
    auto* self = reinterpret_cast<StonewallLayerBox*>(widget);
    if (self->background.alpha > 0) {
        const graphene_rect_t bounds =
            GRAPHENE_RECT_INIT(0, 0, static_cast<float>(gtk_widget_get_width(widget)),
                               static_cast<float>(gtk_widget_get_height(widget)));
        GskRoundedRect rounded;
        gsk_rounded_rect_init_from_rect(&rounded, &bounds, self->cornerRadius);
        gtk_snapshot_push_rounded_clip(snapshot, &rounded);
        gtk_snapshot_append_color(snapshot, &self->background, &bounds);
        gtk_snapshot_pop(snapshot);
    }
    GTK_WIDGET_CLASS(stonewall_layer_box_parent_class)->snapshot(widget, snapshot);
}

static void stonewall_layer_box_init(StonewallLayerBox* self) {
    self->background = GdkRGBA{0, 0, 0, 0};
    self->cornerRadius = 0;
}

static void stonewall_layer_box_class_init(StonewallLayerBoxClass* klass) {
    GTK_WIDGET_CLASS(klass)->snapshot = stonewall_layer_box_snapshot;
}

namespace stonewall::browser {

namespace {

// Per thread: a group applies to the changes its caller makes.
thread_local double gAnimationDuration = 0;

StonewallLayerBox* asLayerBox(GtkWidget* widget) {
    if (!G_TYPE_CHECK_INSTANCE_TYPE(widget, stonewall_layer_box_get_type())) return nullptr;
    return reinterpret_cast<StonewallLayerBox*>(widget);
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

double animationDurationInEffect() { return gAnimationDuration; }
void setAnimationDurationInEffect(double seconds) { gAnimationDuration = seconds; }

GdkRGBA resolveColor(const NSColor& color, bool dark) {
    if (!color.system) {
        return GdkRGBA{static_cast<float>(color.red), static_cast<float>(color.green),
                       static_cast<float>(color.blue), static_cast<float>(color.alpha)};
    }
    // The desktop's label, separator and selection colours as libadwaita
    // draws them, light and dark.
    const float ink = dark ? 1.0f : 0.0f;
    switch (*color.system) {
        case SystemColor::Label:
            return {ink, ink, ink, 0.85f};
        case SystemColor::SecondaryLabel:
            return {ink, ink, ink, dark ? 0.55f : 0.5f};
        case SystemColor::TertiaryLabel:
            return {ink, ink, ink, dark ? 0.25f : 0.26f};
        case SystemColor::Separator:
            return {ink, ink, ink, 0.1f};
        case SystemColor::DisabledControlText:
            return {ink, ink, ink, 0.25f};
        case SystemColor::SelectedContentBackground:
        case SystemColor::SelectedMenuItem:
            return dark ? GdkRGBA{0.21f, 0.52f, 0.89f, 1} : GdkRGBA{0.11f, 0.44f, 0.85f, 1};
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
        StonewallLayerBox* box = asLayerBox(widget);
        if (!box) return;
        box->background = resolveColor(color, darkAppearance());
        box->cornerRadius = static_cast<float>(radius);
        gtk_widget_queue_draw(widget);
    });
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

// --- GtkTextField -------------------------------------------------------------------

void GtkTextField::setStringValue(const std::string& text) {
    {
        std::lock_guard lock(mutex_);
        text_ = text;
    }
    onMainThread([widget = widget_, text] { gtk_label_set_text(GTK_LABEL(widget), text.c_str()); });
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
            pango_attr_list_insert(attributes, pango_attr_size_new_absolute(
                                                   static_cast<int>(font->size * PANGO_SCALE)));
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

GtkPopUpButton::GtkPopUpButton()
    : GtkViewBase(gtk_drop_down_new(G_LIST_MODEL(gtk_string_list_new(nullptr)), nullptr)) {
    model_ = GTK_STRING_LIST(gtk_drop_down_get_model(GTK_DROP_DOWN(widget_)));
}

void GtkPopUpButton::removeAllItems() {
    {
        std::lock_guard lock(mutex_);
        items_.clear();
    }
    onMainThread([model = model_] {
        gtk_string_list_splice(model, 0, g_list_model_get_n_items(G_LIST_MODEL(model)), nullptr);
    });
}

void GtkPopUpButton::addItem(const NSMenuItem& item) {
    {
        std::lock_guard lock(mutex_);
        items_.push_back(item);
    }
    onMainThread(
        [model = model_, title = item.title] { gtk_string_list_append(model, title.c_str()); });
}

int64_t GtkPopUpButton::numberOfItems() const {
    std::lock_guard lock(mutex_);
    return static_cast<int64_t>(items_.size());
}

void GtkPopUpButton::selectItemAtIndex(int64_t index) {
    const bool inside = index >= 0 && index < numberOfItems();
    onMainThread([widget = widget_, index, inside] {
        gtk_drop_down_set_selected(GTK_DROP_DOWN(widget),
                                   inside ? static_cast<guint>(index) : GTK_INVALID_LIST_POSITION);
    });
}

int64_t GtkPopUpButton::indexOfSelectedItem() const {
    const guint selected = gtk_drop_down_get_selected(GTK_DROP_DOWN(widget_));
    if (selected == GTK_INVALID_LIST_POSITION ||
        static_cast<int64_t>(selected) >= numberOfItems()) {
        return -1;
    }
    return static_cast<int64_t>(selected);
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
