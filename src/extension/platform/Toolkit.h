#pragma once

// The desktop toolkit as the extension front sees it: plain values for
// geometry, colours and fonts, small view interfaces that a real toolkit
// (GTK) or the recording toolkit of the tests implements, and the toolkit
// itself (the popover's view tree, images, animation groups, appearance).
//
// The logic of the controls (geometry, colours, timing, state) is not here:
// it lives in ExtensionButton, CustomSwitch and the palette so that every
// toolkit shares it. These interfaces only carry its results to the screen.
//
// Threads: the front touches views from whichever thread delivered a browser
// or engine answer. A toolkit whose widgets
// belong to one thread marshals each call to that thread; calls must then be
// applied in the order they were made.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace stonewall {

// --- Values -------------------------------------------------------------------

struct Point {
    double x = 0;
    double y = 0;
    bool operator==(const Point&) const = default;
};

struct Size {
    double width = 0;
    double height = 0;
    bool operator==(const Size&) const = default;
};

// Flipped coordinates (origin top left) for views; a switch's layers use the
// same numbers, as only sizes and x positions differ between the two.
struct Rect {
    Point origin;
    Size size;
    bool operator==(const Rect&) const = default;

    // Edges included on the origin side only, as the toolkit's mouse-in-rect.
    bool contains(Point point) const {
        return point.x >= origin.x && point.y >= origin.y && point.x < origin.x + size.width &&
               point.y < origin.y + size.height;
    }
};

// Colours the system defines and the toolkit resolves for the current theme
// (a GTK toolkit maps them to its theme's colours).
enum class SystemColor {
    Label,
    SecondaryLabel,
    TertiaryLabel,
    Separator,
    DisabledControlText,
    SelectedContentBackground,
    SelectedMenuItem,
    SelectedMenuItemText,
    WindowBackground,
    ControlAccent,
};

// Either a fixed sRGB colour (components 0 to 1) or a system colour.
struct NSColor {
    std::optional<SystemColor> system;
    double red = 0;
    double green = 0;
    double blue = 0;
    double alpha = 1;

    bool operator==(const NSColor&) const = default;

    static NSColor rgb(double red, double green, double blue, double alpha = 1.0) {
        return NSColor{std::nullopt, red, green, blue, alpha};
    }
    // Components as 0-255 values.
    static NSColor rgb255(double red, double green, double blue) {
        return rgb(red / 255.0, green / 255.0, blue / 255.0);
    }
    static NSColor white(double white, double alpha = 1.0) {
        return rgb(white, white, white, alpha);
    }
    static NSColor of(SystemColor system) { return NSColor{system, 0, 0, 0, 1}; }
    static NSColor clear() { return rgb(0, 0, 0, 0); }
    static NSColor black() { return rgb(0, 0, 0); }
    static NSColor systemRed() { return rgb(1, 0, 0); }
};

enum class FontWeight { UltraLight, Thin, Light, Regular, Medium, Semibold, Bold, Heavy, Black };

// Always the system font; only size and weight vary.
struct NSFont {
    double size = 13;
    FontWeight weight = FontWeight::Regular;
    bool operator==(const NSFont&) const = default;
};

enum class LayoutDirection { LeftToRight, RightToLeft };

// A named image resource ("ToolbarItemIcon", "ext_status_on", ...). A toolkit
// subclasses it to carry its pixels; the front only passes images along.
class NSImage {
  public:
    explicit NSImage(std::string name) : name_(std::move(name)) {}
    virtual ~NSImage() = default;
    const std::string& name() const { return name_; }

  private:
    std::string name_;
};

// An animation's pacing: a cubic Bézier from (0, 0) to (1, 1) through the two
// control points; y above 1 overshoots.
struct AnimationTiming {
    double duration = 0;  // seconds
    Point controlPoint1{0.25, 0.1};
    Point controlPoint2{0.25, 1.0};
    bool operator==(const AnimationTiming&) const = default;
};

// --- Views --------------------------------------------------------------------

// A plain view. Hiding and background changes made inside an animation group
// (Toolkit::runAnimationGroup) go through the view's animator: the toolkit
// animates them over the group's duration.
class NSView {
  public:
    virtual ~NSView() = default;

    virtual void setHidden(bool hidden) = 0;
    virtual bool isHidden() const = 0;
    // The backing layer's background; clear shows the parent through.
    virtual void setLayerBackgroundColor(const NSColor& color) = 0;
    virtual void setLayerCornerRadius(double radius) = 0;
    virtual Rect bounds() const = 0;
    // True while the view has the keyboard focus of its window.
    virtual bool isFirstResponder() const = 0;

    // What assistive technologies (screen readers) are told of the view,
    // where it differs from what it shows: a name that stays while the
    // visible title says what a press does, a state of a toggle (absent:
    // the view is no toggle), and whether it can be used. A toolkit without
    // assistive technologies ignores them.
    virtual void setAccessibilityLabel(const std::string& /*label*/) {}
    virtual void setAccessibilityValue(std::optional<bool> /*checked*/) {}
    virtual void setAccessibilityEnabled(bool /*enabled*/) {}
};

class NSTextField : public NSView {
  public:
    virtual void setStringValue(const std::string& text) = 0;
    virtual std::string stringValue() const = 0;
    virtual void setTextColor(const NSColor& color) = 0;
    virtual void setFont(const NSFont& font) = 0;
};

class NSImageView : public NSView {
  public:
    // Null shows no image.
    virtual void setImage(std::shared_ptr<NSImage> image) = 0;
};

// A push button. The front wires its action once, when the view tree is made;
// the toolkit calls it on the main thread when the user presses the button.
class NSButton : public NSView {
  public:
    virtual void setTitle(const std::string& title) = 0;
    virtual std::string title() const = 0;
    virtual void setEnabled(bool enabled) = 0;
    virtual bool isEnabled() const = 0;
    virtual void setActionHandler(std::function<void()> action) = 0;
};

struct NSMenuItem {
    std::string title;
    std::string keyEquivalent;
    int64_t tag = 0;
    bool operator==(const NSMenuItem&) const = default;
};

// A pop-up button holding a menu of items, one of them selected.
class NSPopUpButton : public NSView {
  public:
    virtual void removeAllItems() = 0;
    virtual void addItem(const NSMenuItem& item) = 0;
    virtual int64_t numberOfItems() const = 0;
    // An index outside the menu selects nothing.
    virtual void selectItemAtIndex(int64_t index) = 0;
    // -1 when nothing is selected.
    virtual int64_t indexOfSelectedItem() const = 0;
    // The selected item, absent when nothing is selected.
    virtual std::optional<NSMenuItem> selectedItem() const = 0;
};

class NSProgressIndicator : public NSView {
  public:
    virtual void startAnimation() = 0;
    virtual void stopAnimation() = 0;
};

class NSStackView : public NSView {
  public:
    virtual void setSpacing(double spacing) = 0;
    virtual double spacing() const = 0;
};

// A number of the layout that the front adjusts (insets, centring offsets).
class NSLayoutConstraint {
  public:
    virtual ~NSLayoutConstraint() = default;
    virtual void setConstant(double constant) = 0;
    virtual double constant() const = 0;
};

class ExtensionButton;

// The popover's view tree, made from the toolkit's layout of the six views.
// Outlets are looked up by the names in extension/PopoverOutlets.h; a lookup
// of a name the layout lacks answers null, and the front then skips that
// view (as messages to a missing outlet do nothing).
class PopoverView {
  public:
    virtual ~PopoverView() = default;

    virtual std::shared_ptr<NSView> view(std::string_view outlet) = 0;
    virtual std::shared_ptr<NSTextField> textField(std::string_view outlet) = 0;
    virtual std::shared_ptr<NSImageView> imageView(std::string_view outlet) = 0;
    virtual std::shared_ptr<NSButton> button(std::string_view outlet) = 0;
    // The main view's rows: the toolkit makes each with
    // ExtensionButton::initWithView over its own widgets and forwards the
    // widget's pointer, key and tracking events to it.
    virtual std::shared_ptr<ExtensionButton> extensionButton(std::string_view outlet) = 0;
    virtual std::shared_ptr<NSPopUpButton> popUpButton(std::string_view outlet) = 0;
    virtual std::shared_ptr<NSProgressIndicator> progressIndicator(std::string_view outlet) = 0;
    virtual std::shared_ptr<NSStackView> stackView(std::string_view outlet) = 0;
    virtual std::shared_ptr<NSLayoutConstraint> constraint(std::string_view outlet) = 0;

    // The size the popover asks its window for.
    virtual void setPreferredContentSize(Size size) = 0;

    // Whether this popover can close itself; when it cannot, the front
    // leaves closing to the user.
    virtual bool respondsToDismissPopover() const = 0;
    // Closes the popover; the browser then reports it closed as usual.
    virtual void dismissPopover() = 0;
};

// The toolkit as a whole.
class Toolkit {
  public:
    virtual ~Toolkit() = default;

    // Builds the popover's views (all six stacks) and answers their tree.
    // Called once per process, by the popover controller's creation.
    virtual std::shared_ptr<PopoverView> loadPopoverView() = 0;

    // The image resource of that name; null when there is none.
    virtual std::shared_ptr<NSImage> imageNamed(const std::string& name) = 0;

    // Runs `changes` at once; view changes made inside it animate over
    // `duration` seconds (0: no animation). `completion`, when given, runs
    // once the animation is over, on the main queue.
    virtual void runAnimationGroup(double duration, const std::function<void()>& changes,
                                   std::function<void()> completion) = 0;

    // Appearance. The system version comes from the host (platform/Host.h).
    virtual bool isDarkAppearance() const = 0;
    virtual LayoutDirection userInterfaceLayoutDirection() const = 0;
    // The first of the program's preferred localisations ("en", "ar", ...).
    virtual std::string preferredLocalization() const = 0;
    // The system setting that lets Tab reach every control.
    virtual bool fullKeyboardAccessEnabled() const = 0;
};

}  // namespace stonewall
