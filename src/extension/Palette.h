#pragma once

// The front's named colours and its font rule. Each colour adapts to the
// system version and, from 10.14 on, to the dark appearance; before 10.14 the
// text colours darken slightly for the Arabic localisation.
//
// Every operation takes the appearance it is drawn in; the default argument
// reads the current one from the installed host and toolkit, so a toolkit
// asks again when the appearance changes rather than caching answers.

#include <string>

#include "extension/platform/Toolkit.h"
#include "platform/Host.h"

namespace stonewall {

struct AppearanceContext {
    platform::OperatingSystemVersion systemVersion;
    bool darkAppearance = false;        // the toolkit's effective appearance is dark
    std::string preferredLocalization;  // first preferred localisation

    // From platform::host() and platform::toolkit().
    static AppearanceContext current();

    bool isMojaveOrLater() const;  // 10.14 or later
    bool isBigSurOrLater() const;  // 11.0 or later
    // Dark counts only where the system has a dark appearance (10.14+).
    bool isDark() const;
    bool isArabic() const;
};

namespace Custom {

// Colours this system draws with.
NSColor extensionHeaderColor(const AppearanceContext& context = AppearanceContext::current());
NSColor tableHeaderColor(const AppearanceContext& context = AppearanceContext::current());
NSColor extensionTitleColor(const AppearanceContext& context = AppearanceContext::current());
NSColor extensionTextColor(const AppearanceContext& context = AppearanceContext::current());
NSColor currentLabelColor(const AppearanceContext& context = AppearanceContext::current());
NSColor extensionSeperatorLine(const AppearanceContext& context = AppearanceContext::current());
NSColor currentSeperatorColor(const AppearanceContext& context = AppearanceContext::current());
NSColor disabledColor(const AppearanceContext& context = AppearanceContext::current());
NSColor onSwitchBackgroundColor(const AppearanceContext& context = AppearanceContext::current());
NSColor offSwitchBorderColor(const AppearanceContext& context = AppearanceContext::current());
NSColor currentWhiteColor(const AppearanceContext& context = AppearanceContext::current());
// The hover highlight of the popover's rows and its title colour.
NSColor selectedContentBackgroundColor(
    const AppearanceContext& context = AppearanceContext::current());
NSColor selectedMenuItemColor();
NSColor selectedMenuItemTextColor();

// Kept for the product's other programs, which share the palette.
std::string currentEffectiveAppearance(
    const AppearanceContext& context = AppearanceContext::current());
NSColor backgroundColor(const AppearanceContext& context = AppearanceContext::current());
NSColor currentMainSeperatorColor();
NSColor currentResponderLineColor(const AppearanceContext& context = AppearanceContext::current());
NSColor boxColor(const AppearanceContext& context = AppearanceContext::current());

// The system font at the requested size and weight, adjusted for Arabic:
// medium becomes regular half a point larger, semibold one point smaller,
// any other weight one and a half points larger.
NSFont defaultExtensionFontWithSize(
    double size, FontWeight weight,
    const AppearanceContext& context = AppearanceContext::current());

}  // namespace Custom

}  // namespace stonewall
