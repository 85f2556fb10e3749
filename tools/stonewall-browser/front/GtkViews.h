#pragma once

// The front's view interfaces (extension/platform/Toolkit.h) over GTK 4
// widgets. Each object keeps the values the front gave it (text, colours,
// font, visibility) and writes them to its widget; colours that name a
// system colour are resolved for the current appearance and again whenever
// it changes (refreshAppearance).
//
// Threads: setters may be called from any thread (the front calls some from
// the thread that delivered an engine completion); the widget work is then
// posted to the main thread, in call order. Getters answer the stored
// values. Widgets are held strongly for the object's life.

#include <gtk/gtk.h>

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "extension/platform/Toolkit.h"

namespace stonewall::browser {

// Runs `work` now on the main thread, else posts it there.
void onMainThread(std::function<void()> work);

// A colour of the front as GTK draws it in the given appearance, and with
// the desktop's high contrast when that is on (setHighContrast).
GdkRGBA resolveColor(const NSColor& color, bool dark);
// Main thread: the toolkit follows the desktop's contrast setting.
void setHighContrast(bool on);

// The duration of the animation group being run (Toolkit::runAnimationGroup),
// 0 outside one. Main thread.
double animationDurationInEffect();
void setAnimationDurationInEffect(double seconds);

// An image resource with its pixels.
class GtkImageResource : public NSImage {
  public:
    GtkImageResource(std::string name, GdkTexture* texture);
    ~GtkImageResource() override;
    GdkPaintable* paintable() const { return GDK_PAINTABLE(texture_); }

  private:
    GdkTexture* texture_;
};

// Something whose drawing depends on the appearance.
class AppearanceDependent {
  public:
    virtual ~AppearanceDependent() = default;
    virtual void refreshAppearance() = 0;
};

// A box that paints its layer background (rounded by the corner radius)
// under its children: the separators of the popover.
GtkWidget* layerBoxNew(GtkOrientation orientation, int spacing);
// A button that paints its layer background under its child, in the given
// accessible role (a push button, a toggle): the rows of the popover.
GtkWidget* layerButtonNew(GtkAccessibleRole role);
// What activating a layer button from the keyboard or an assistive
// technology does (instead of GtkButton's delayed "clicked"); a pointer
// click still emits "clicked".
void layerButtonSetOnActivate(GtkWidget* button, std::function<void()> onActivate);

template <typename Base>
class GtkViewBase : public Base, public AppearanceDependent {
  public:
    explicit GtkViewBase(GtkWidget* widget) : widget_(GTK_WIDGET(g_object_ref_sink(widget))) {}
    ~GtkViewBase() override { g_object_unref(widget_); }
    GtkViewBase(const GtkViewBase&) = delete;
    GtkViewBase& operator=(const GtkViewBase&) = delete;

    GtkWidget* widget() const { return widget_; }

    void setHidden(bool hidden) override;
    bool isHidden() const override { return hidden_; }
    void setLayerBackgroundColor(const NSColor& color) override;
    void setLayerCornerRadius(double radius) override;
    Rect bounds() const override;
    bool isFirstResponder() const override;
    void setAccessibilityValue(std::optional<bool> checked) override;
    void setAccessibilityEnabled(bool enabled) override;
    void refreshAppearance() override;

  protected:
    GtkWidget* widget_;
    bool hidden_ = false;
    std::optional<NSColor> background_;
    double cornerRadius_ = 0;
};

class GtkView : public GtkViewBase<NSView> {
  public:
    using GtkViewBase::GtkViewBase;
};

// A row of the popover. Assistive technologies read its visible title as its
// name, unless the front names it: then the title (what a press does) is its
// description.
class GtkRowView : public GtkView {
  public:
    using GtkView::GtkView;
    void setAccessibilityLabel(const std::string& label) override;
    // Main thread.
    void setVisibleTitle(const std::string& title);

  private:
    void updateAccessibleText();
    std::optional<std::string> label_;
    std::string title_;
};

class GtkTextField : public GtkViewBase<NSTextField> {
  public:
    explicit GtkTextField(GtkWidget* label) : GtkViewBase(label) {}
    void setStringValue(const std::string& text) override;
    std::string stringValue() const override;
    void setTextColor(const NSColor& color) override;
    void setFont(const NSFont& font) override;
    void refreshAppearance() override;
    // Called on the main thread with each text shown. Set it before the
    // first text.
    void setOnTextShown(std::function<void(const std::string&)> onTextShown) {
        onTextShown_ = std::move(onTextShown);
    }

  private:
    void applyAttributes();
    std::function<void(const std::string&)> onTextShown_;
    mutable std::mutex mutex_;
    std::string text_;
    std::optional<NSColor> color_;
    std::optional<NSFont> font_;
};

class GtkImageView : public GtkViewBase<NSImageView> {
  public:
    explicit GtkImageView(GtkWidget* image) : GtkViewBase(image) {}
    void setImage(std::shared_ptr<NSImage> image) override;
};

class GtkPushButton : public GtkViewBase<NSButton> {
  public:
    explicit GtkPushButton(GtkWidget* button);
    void setTitle(const std::string& title) override;
    std::string title() const override;
    void setEnabled(bool enabled) override;
    bool isEnabled() const override { return enabled_; }
    void setActionHandler(std::function<void()> action) override;

  private:
    mutable std::mutex mutex_;
    std::string title_;
    bool enabled_ = true;
    std::function<void()> action_;
};

// The items as a group of radio rows, one a line, scrolled when there are
// many: each is a button with a check mark that assistive technologies read
// as a radio item, checked when selected. The items' tags are kept here.
class GtkPopUpButton : public GtkViewBase<NSPopUpButton> {
  public:
    GtkPopUpButton();
    void removeAllItems() override;
    void addItem(const NSMenuItem& item) override;
    int64_t numberOfItems() const override;
    void selectItemAtIndex(int64_t index) override;
    // Main thread: the user's choice lives in the widget.
    int64_t indexOfSelectedItem() const override;
    std::optional<NSMenuItem> selectedItem() const override;

  private:
    GtkWidget* list_;  // the box of rows, inside widget_
    mutable std::mutex mutex_;
    std::vector<NSMenuItem> items_;
};

class GtkProgressIndicator : public GtkViewBase<NSProgressIndicator> {
  public:
    GtkProgressIndicator();
    void startAnimation() override;
    void stopAnimation() override;
};

// A GtkBox. One that is a page of a GtkStack is shown by making it the
// stack's visible child, with the transition of the animation group it was
// shown in.
class GtkStackView : public GtkViewBase<NSStackView> {
  public:
    GtkStackView(GtkWidget* box, GtkWidget* stack = nullptr);
    void setHidden(bool hidden) override;
    void setSpacing(double spacing) override;
    double spacing() const override { return spacing_; }
    // Called on the main thread each time the page is shown.
    void setOnShown(std::function<void()> onShown) { onShown_ = std::move(onShown); }

  private:
    GtkWidget* stack_;
    double spacing_;
    std::function<void()> onShown_;
};

// A constant of the layout, applied as one margin of a widget.
class GtkMarginConstraint : public NSLayoutConstraint {
  public:
    enum class Edge { Start, End, Top };
    GtkMarginConstraint(GtkWidget* widget, Edge edge, double constant);
    ~GtkMarginConstraint() override;
    void setConstant(double constant) override;
    double constant() const override { return constant_; }

  private:
    GtkWidget* widget_;
    Edge edge_;
    double constant_;
};

}  // namespace stonewall::browser
