#include "extension/Palette.h"

#include "extension/platform/FrontServices.h"
#include "platform/Platform.h"

namespace stonewall {

AppearanceContext AppearanceContext::current() {
    AppearanceContext context;
    context.systemVersion = platform::host().operatingSystemVersion();
    const Toolkit& toolkit = platform::toolkit();
    context.darkAppearance = toolkit.isDarkAppearance();
    context.preferredLocalization = toolkit.preferredLocalization();
    return context;
}

bool AppearanceContext::isMojaveOrLater() const {
    return systemVersion >= platform::OperatingSystemVersion{10, 14, 0};
}

bool AppearanceContext::isBigSurOrLater() const {
    return systemVersion >= platform::OperatingSystemVersion{11, 0, 0};
}

bool AppearanceContext::isDark() const { return isMojaveOrLater() && darkAppearance; }

bool AppearanceContext::isArabic() const { return preferredLocalization == "ar"; }

namespace Custom {

NSColor extensionHeaderColor(const AppearanceContext& context) {
    return context.isMojaveOrLater() ? NSColor::of(SystemColor::SecondaryLabel)
                                     : tableHeaderColor(context);
}

NSColor tableHeaderColor(const AppearanceContext& context) {
    return context.isDark() ? NSColor::rgb255(155, 162, 167) : NSColor::rgb255(128, 140, 153);
}

NSColor extensionTitleColor(const AppearanceContext&) {
    return NSColor::of(SystemColor::SecondaryLabel);
}

NSColor extensionTextColor(const AppearanceContext& context) {
    if (!context.isMojaveOrLater() && context.isArabic()) return NSColor::rgb(0.1, 0.1, 0.2);
    return currentLabelColor(context);
}

NSColor currentLabelColor(const AppearanceContext& context) {
    if (context.isMojaveOrLater()) return NSColor::of(SystemColor::Label);
    return context.isArabic() ? NSColor::rgb(0.2, 0.2, 0.3) : NSColor::rgb(0.25, 0.25, 0.35);
}

NSColor extensionSeperatorLine(const AppearanceContext& context) {
    return context.isMojaveOrLater() ? NSColor::of(SystemColor::Separator)
                                     : currentSeperatorColor(context);
}

NSColor currentSeperatorColor(const AppearanceContext& context) {
    return context.isDark() ? NSColor::rgb255(70, 70, 70) : NSColor::rgb255(227, 227, 229);
}

NSColor disabledColor(const AppearanceContext& context) {
    return context.isMojaveOrLater() ? NSColor::of(SystemColor::DisabledControlText)
                                     : NSColor::of(SystemColor::TertiaryLabel);
}

NSColor onSwitchBackgroundColor(const AppearanceContext& context) {
    return context.isDark() ? NSColor::rgb255(61, 211, 84) : NSColor::rgb(0.24, 0.78, 0.32);
}

NSColor offSwitchBorderColor(const AppearanceContext& context) {
    return context.isDark() ? NSColor::rgb255(122, 122, 122) : NSColor::rgb255(220, 220, 220);
}

NSColor currentWhiteColor(const AppearanceContext& context) {
    return context.isDark() ? currentLabelColor(context) : NSColor::white(1.0);
}

NSColor selectedContentBackgroundColor(const AppearanceContext& context) {
    return context.isMojaveOrLater() ? NSColor::of(SystemColor::SelectedContentBackground)
                                     : selectedMenuItemColor();
}

NSColor selectedMenuItemColor() { return NSColor::of(SystemColor::SelectedMenuItem); }

NSColor selectedMenuItemTextColor() { return NSColor::of(SystemColor::SelectedMenuItemText); }

std::string currentEffectiveAppearance(const AppearanceContext& context) {
    return context.isDark() ? "NSAppearanceNameDarkAqua" : "NSAppearanceNameAqua";
}

NSColor backgroundColor(const AppearanceContext& context) {
    return context.isDark() ? NSColor::of(SystemColor::WindowBackground)
                            : NSColor::rgb255(252, 252, 254);
}

NSColor currentMainSeperatorColor() { return NSColor::rgb255(197, 197, 199); }

NSColor currentResponderLineColor(const AppearanceContext& context) {
    return context.isMojaveOrLater() ? NSColor::of(SystemColor::ControlAccent)
                                     : selectedMenuItemColor();
}

NSColor boxColor(const AppearanceContext& context) {
    return context.isDark() ? NSColor::rgb255(54, 56, 59) : NSColor::white(1.0);
}

NSFont defaultExtensionFontWithSize(double size, FontWeight weight,
                                    const AppearanceContext& context) {
    if (!context.isArabic()) return NSFont{size, weight};
    // Arabic glyphs read small at medium weight and large at semibold.
    switch (weight) {
        case FontWeight::Medium:
            return NSFont{size + 0.5, FontWeight::Regular};
        case FontWeight::Semibold:
            return NSFont{size - 1.0, weight};
        default:
            return NSFont{size + 1.5, weight};
    }
}

}  // namespace Custom

}  // namespace stonewall
