// The popover's controls and palette: row button feedback and timing on the
// manual clock, the switch's geometry and events, colours and fonts.

#include <gmock/gmock.h>

#include "FrontTestSupport.h"
#include "extension/CustomSwitch.h"
#include "extension/ExtensionButton.h"
#include "extension/Palette.h"

namespace stonewall::testing {
namespace {

using namespace std::chrono_literals;

struct Row {
    std::shared_ptr<RecordingView> view = std::make_shared<RecordingView>();
    std::shared_ptr<RecordingTextField> name = std::make_shared<RecordingTextField>();
    std::shared_ptr<RecordingImageView> icon = std::make_shared<RecordingImageView>();
    std::shared_ptr<ExtensionButton> button = ExtensionButton::initWithView(view, name, icon);
    int fired = 0;

    Row() {
        button->setMouseUp(true);
        button->setAction([this] { ++fired; });
        button->setImage(std::make_shared<NSImage>("ext_status_on"));
        button->setImageSelected(std::make_shared<NSImage>("ext_status_on_selected"));
    }
};

class ControlsTest : public FrontTest {};

TEST_F(ControlsTest, RowButtonFlashesThenActs) {
    Row row;
    row.button->mouseEntered();
    row.button->mouseUp({10, 10});
    platform.dispatch->advanceBy(89ms);
    EXPECT_EQ(row.view->layerBackgroundColor(), NSColor::clear());
    platform.dispatch->advanceBy(1ms);
    EXPECT_EQ(row.view->layerBackgroundColor(),
              NSColor::of(SystemColor::SelectedContentBackground));
    EXPECT_EQ(row.name->textColor(), NSColor::of(SystemColor::SelectedMenuItemText));
    platform.dispatch->advanceBy(149ms);
    EXPECT_EQ(row.fired, 0);
    platform.dispatch->advanceBy(1ms);
    EXPECT_EQ(row.fired, 1);
    EXPECT_EQ(row.view->layerBackgroundColor(), NSColor::clear());
}

TEST_F(ControlsTest, RowButtonFiresOnlyWhenItShould) {
    struct Case {
        const char* name;
        bool enabled, mouseUp, actionSet, focused;
        Point release;
        int64_t key;  // 0: a click, else a key press
        int firedAtOnce, firedLater;
    };
    const Case cases[] = {
        {"click inside", true, true, true, false, {10, 10}, 0, 0, 1},
        {"release outside", true, true, true, false, {300, 10}, 0, 0, 0},
        {"mouseUp flag off", true, false, true, false, {10, 10}, 0, 0, 0},
        {"no action", true, true, false, false, {10, 10}, 0, 0, 0},
        {"disabled", false, true, true, false, {10, 10}, 0, 0, 0},
        {"space while focused", true, true, true, true, {}, kSpaceKeyCode, 1, 1},
        {"space unfocused", true, true, true, false, {}, kSpaceKeyCode, 0, 0},
        {"return while focused", true, true, true, true, {}, 36, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Row row;
        row.button->setEnabled(c.enabled);
        row.button->setMouseUp(c.mouseUp);
        if (!c.actionSet) row.button->setAction(nullptr);
        row.view->setFirstResponder(c.focused);
        if (c.key != 0) {
            EXPECT_EQ(row.button->performKeyEquivalent(c.key), c.firedAtOnce == 1);
        } else {
            row.button->mouseUp(c.release);
        }
        EXPECT_EQ(row.fired, c.firedAtOnce);
        platform.dispatch->advanceBy(1s);
        EXPECT_EQ(row.fired, c.firedLater);
    }
}

TEST_F(ControlsTest, RowButtonHoverBySystemVersion) {
    struct Case {
        platform::OperatingSystemVersion os;
        bool enabled;
        std::optional<NSColor> background;
        double cornerRadius;
        NSColor title;
        const char* image;
    };
    const NSColor selectedBackground = NSColor::of(SystemColor::SelectedContentBackground);
    const NSColor selectedText = NSColor::of(SystemColor::SelectedMenuItemText);
    const NSColor disabledText = NSColor::of(SystemColor::DisabledControlText);
    const char* selected = "ext_status_on_selected";
    const Case cases[] = {
        {{10, 14, 0}, true, selectedBackground, 4, selectedText, selected},
        {{10, 13, 0}, true, NSColor::of(SystemColor::SelectedMenuItem), 0, selectedText, selected},
        {{10, 14, 0}, false, NSColor::clear(), 0, disabledText, ""},
        {{11, 0, 0}, false, NSColor::systemRed(), 0, disabledText, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.os.majorVersion << "." << c.os.minorVersion
                                          << (c.enabled ? " enabled" : " disabled"));
        platform.host->setOperatingSystemVersion(c.os);
        Row row;
        row.button->setEnabled(c.enabled);
        row.button->mouseEntered();
        EXPECT_EQ(row.view->layerBackgroundColor(), c.background);
        EXPECT_EQ(row.view->layerCornerRadius(), c.cornerRadius);
        EXPECT_EQ(row.name->textColor(), c.title);
        EXPECT_EQ(row.icon->imageName(), c.image);
        row.button->mouseExited();
        EXPECT_EQ(row.icon->imageName(), "ext_status_on");
        EXPECT_EQ(row.view->layerBackgroundColor(), NSColor::clear());
    }
}

class SwitchView : public CustomSwitchView {
  public:
    void display(const CustomSwitch&, const std::optional<AnimationTiming>& animation) override {
        displays.push_back(animation);
    }
    bool isFirstResponder() const override { return focused; }
    std::vector<std::optional<AnimationTiming>> displays;
    bool focused = false;
};

TEST_F(ControlsTest, SwitchKnobGeometry) {
    struct Case {
        Size size;
        bool checked, pressed;
        LayoutDirection direction;
        Rect knob;
    };
    const double golden = 1.6180340051651;
    const double idle = 46 / golden;
    const double pressed = 46 / 1.38;
    const auto ltr = LayoutDirection::LeftToRight;
    const auto rtl = LayoutDirection::RightToLeft;
    const Case cases[] = {
        {{50, 30}, false, false, ltr, {{2, 2}, {idle, 26}}},
        {{50, 30}, false, true, ltr, {{2, 2}, {pressed, 26}}},
        {{50, 30}, true, false, ltr, {{50 - idle - 2, 2}, {idle, 26}}},
        {{50, 30}, true, false, rtl, {{2, 2}, {idle, 26}}},
        {{50, 30}, false, false, rtl, {{50 - idle - 2, 2}, {idle, 26}}},
        {{50, 30}, true, true, rtl, {{2, 2}, {10 / 1.38, 26}}},
        {{80, 20}, true, false, ltr, {{80 - 76 / golden - 2, 2}, {76 / golden, 16}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << c.size.width << "x" << c.size.height << " checked " << c.checked
                     << " pressed " << c.pressed << " rtl " << (c.direction == rtl));
        toolkit->setLayoutDirection(c.direction);
        auto view = std::make_shared<SwitchView>();
        auto control = CustomSwitch::initWithFrame(view, {{0, 0}, c.size});
        control->setAction([] {});
        control->setChecked(c.checked);
        if (c.pressed) control->mouseDown({1, 1});
        EXPECT_EQ(control->rectForKnob(), c.knob);
        EXPECT_EQ(control->knobLayer().frame, c.knob);
        EXPECT_DOUBLE_EQ(control->backgroundLayer().cornerRadius, c.size.height / 2);
    }
}

TEST_F(ControlsTest, SwitchEventsBindingAndAnimation) {
    struct Case {
        const char* name;
        bool actionSet, enabled, focused;
        std::function<void(CustomSwitch&)> act;
        bool checkedAfter;
        int actions, bindings;
        size_t animatedDisplays;
    };
    const auto click = [](CustomSwitch& s) { s.mouseDown({5, 5}), s.mouseUp({5, 5}); };
    const auto releaseOutside = [](CustomSwitch& s) { s.mouseDown({5, 5}), s.mouseUp({60, 5}); };
    // The key is taken exactly when it turns the switch on.
    const auto space = [](CustomSwitch& s) {
        const bool taken = s.performKeyEquivalent(kSpaceKeyCode);
        EXPECT_EQ(taken, s.checked());
    };
    const Case cases[] = {
        {"click", true, true, false, click, true, 1, 1, 3},
        {"click without action", false, true, false, click, false, 0, 0, 0},
        {"click while disabled", true, false, false, click, false, 0, 0, 0},
        {"release outside", true, true, false, releaseOutside, false, 0, 0, 1},
        {"space while focused", true, true, true, space, true, 1, 1, 1},
        {"space unfocused", true, true, false, space, false, 0, 0, 0},
        {"set to the same value", true, true, false, [](CustomSwitch& s) { s.setChecked(false); },
         false, 0, 0, 1},
        {"set to a new value", true, true, false, [](CustomSwitch& s) { s.setChecked(true); }, true,
         0, 1, 1},
        {"accessibility press", true, true, false,
         [](CustomSwitch& s) { EXPECT_TRUE(s.accessibilityPerformPress()); }, true, 1, 1, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto view = std::make_shared<SwitchView>();
        view->focused = c.focused;
        auto control = CustomSwitch::initWithFrame(view, {{0, 0}, {50, 30}});
        int actions = 0;
        int bindings = 0;
        if (c.actionSet) control->setAction([&] { ++actions; });
        if (!c.enabled) control->setEnabled(false);
        control->bindChecked([&](bool) { ++bindings; });
        view->displays.clear();
        c.act(*control);
        EXPECT_EQ(control->checked(), c.checkedAfter);
        EXPECT_EQ(control->accessibilityValue(), c.checkedAfter ? 1 : 0);
        EXPECT_EQ(actions, c.actions);
        EXPECT_EQ(bindings, c.bindings);
        // A press released outside leaves the knob stretched until the next
        // click, deliberately.
        EXPECT_EQ(control->isActive(), std::string(c.name) == "release outside");
        ASSERT_EQ(view->displays.size(), c.animatedDisplays);
        for (const auto& animation : view->displays) {
            EXPECT_EQ(animation, (AnimationTiming{0.4, {0.25, 1.5}, {0.5, 1.0}}));
        }
    }
}

TEST_F(ControlsTest, SwitchColoursAndOpacity) {
    platform.host->setOperatingSystemVersion({11, 0, 0});
    toolkit->setDarkAppearance(true);
    auto control = CustomSwitch::initWithFrame(std::make_shared<SwitchView>(), {{0, 0}, {50, 30}});
    control->setEnabled(false);
    EXPECT_EQ(control->backgroundLayer().backgroundColor, NSColor::rgb255(122, 122, 122));
    EXPECT_EQ(control->rootLayer().opacity, 0.5);
    control->setTintColor(NSColor::rgb(1, 0, 0));
    control->setChecked(true);
    EXPECT_EQ(control->backgroundLayer().borderColor, NSColor::rgb255(61, 211, 84));
    platform.host->setOperatingSystemVersion({10, 15, 0});
    control->setChecked(false);
    EXPECT_EQ(control->backgroundLayer().backgroundColor, NSColor::clear());
}

TEST_F(ControlsTest, PaletteByVersionAppearanceAndLocalisation) {
    using Op = NSColor (*)(const AppearanceContext&);
    struct Case {
        const char* name;
        Op op;
        AppearanceContext context;
        NSColor expected;
    };
    const AppearanceContext darkMojave{{10, 14, 0}, true, "en"};
    const AppearanceContext darkHighSierra{{10, 13, 6}, true, "en"};  // no dark mode yet
    const AppearanceContext arabicHighSierra{{10, 13, 0}, false, "ar"};
    // The switch and start-up tests pin the colours they show; these rows
    // take the remaining branches of version, dark mode and Arabic.
    const Case cases[] = {
        {"on switch, dark before 10.14", Custom::onSwitchBackgroundColor, darkHighSierra,
         NSColor::rgb(0.24, 0.78, 0.32)},
        {"header, before 10.14", Custom::extensionHeaderColor, darkHighSierra,
         NSColor::rgb255(128, 140, 153)},
        {"text, Arabic 10.14",
         Custom::extensionTextColor,
         {{10, 14, 0}, false, "ar"},
         NSColor::of(SystemColor::Label)},
        {"label, Arabic before", Custom::currentLabelColor, arabicHighSierra,
         NSColor::rgb(0.2, 0.2, 0.3)},
        {"white, dark", Custom::currentWhiteColor, darkMojave, NSColor::of(SystemColor::Label)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.op(c.context), c.expected);
    }
}

// Semibold and medium for Arabic are pinned by the start-up test; bold takes
// the remaining branch, and only "ar" itself counts as Arabic.
TEST_F(ControlsTest, ExtensionFontForArabic) {
    toolkit->setPreferredLocalization("ar");
    EXPECT_EQ(Custom::defaultExtensionFontWithSize(13, FontWeight::Bold),
              (NSFont{14.5, FontWeight::Bold}));
    toolkit->setPreferredLocalization("ar-EG");
    EXPECT_EQ(Custom::defaultExtensionFontWithSize(13, FontWeight::Medium),
              (NSFont{13, FontWeight::Medium}));
}

}  // namespace
}  // namespace stonewall::testing
