#pragma once

// Shared by the files of SafariExtensionViewController (the controller's
// state and toolbar, its layout, its view switching, its actions) and by no
// one else: the outlets it holds and the small text helpers they all use.

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "extension/SafariExtensionViewController.h"
#include "extension/platform/FrontServices.h"
#include "utilities/Unicode.h"

namespace stonewall {

namespace front_detail {

// Marks a text for the translation template (xgettext's keyword) where it is
// translated later, through localized().
inline constexpr const char* N_(const char* text) { return text; }

inline constexpr double kSwitchAnimationDuration = 0.05;
// Profile names longer than this many UTF-16 units are cut in the pop-up.
inline constexpr size_t kProfileTitleLimit = 40;

// Replaces the first "%@" of a localised format with one object
// argument; a null argument reads
// "(null)".
inline std::string format(const std::string& pattern, const NullableString& argument) {
    std::string text = pattern;
    const size_t at = text.find("%@");
    if (at != std::string::npos) text.replace(at, 2, textOrNull(argument));
    return text;
}

// "a,b" -> {a, b}; "" -> {""}; null -> {}.
inline std::vector<std::string> split(const NullableString& list) {
    std::vector<std::string> parts;
    if (!list) return parts;
    size_t start = 0;
    while (true) {
        const size_t comma = list->find(',', start);
        parts.push_back(list->substr(start, comma - start));
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return parts;
}

inline bool equalsIgnoringCase(const std::string& a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        const auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c; };
        if (lower(a[i]) != lower(b[i])) return false;
    }
    return true;
}

// The first `limit` UTF-16 units of `text`, never splitting a character
// (a pair cut in half would leave text no JSON writer or widget accepts).
// Nullopt when the text is no longer than the limit.
inline std::optional<std::string> utf16Prefix(const std::string& text, size_t limit) {
    const auto codePoints = unicode::decodeUTF8(text);
    if (!codePoints) return std::nullopt;
    size_t units = 0;
    for (char32_t c : *codePoints) units += unicode::utf16Length(c);
    if (units <= limit) return std::nullopt;
    std::u32string prefix;
    units = 0;
    for (char32_t c : *codePoints) {
        if (units + unicode::utf16Length(c) > limit) break;
        units += unicode::utf16Length(c);
        prefix.push_back(c);
    }
    return unicode::encodeUTF8(prefix);
}

inline void openURL(const char* url) { (void)platform::sharedWorkspace().openURL(url); }

}  // namespace front_detail

// Weak outlets: any of them may be null when the layout lacks it.
struct SafariExtensionViewController::Outlets {
    std::array<std::shared_ptr<NSStackView>, 6> stacks;

    std::shared_ptr<NSTextField> statusHeaderLabel, visualHeaderLabel, customRulesHeaderLabel,
        activeProfileHeaderLabel, appHeaderLabel, visualTitleLabel, visualMessageLabel,
        profileTitleLabel, profileMessageLabel, websiteTitleLabel, websiteMessageLabel,
        reloadTitleLabel, errorTitleLabel, errorMessageLabel;
    std::shared_ptr<NSImageView> statusImageView, counterImageView;
    std::shared_ptr<ExtensionButton> statusButton, counterButton, visualBlockButton, blockButton,
        secureButton, whitelistButton, profileButton, appButton;
    std::array<std::shared_ptr<NSView>, 4> lineViews;
    std::shared_ptr<NSButton> visualCancelButton, visualDoneButton, profileCancelButton,
        profileDoneButton, websiteCancelButton, websiteDoneButton, errorDoneButton;
    std::shared_ptr<NSPopUpButton> profilePopupButton;
    std::shared_ptr<NSProgressIndicator> reloadProgressIndicator;
    std::array<std::shared_ptr<NSStackView>, 3> messageStacks;
    std::array<std::shared_ptr<NSLayoutConstraint>, 3> centerY;
    std::array<std::shared_ptr<NSLayoutConstraint>, 8> separatorConstraints;
    std::array<std::shared_ptr<NSLayoutConstraint>, 2> mainStackConstraints;

    std::array<std::shared_ptr<ExtensionButton>*, 8> rows() {
        return {&statusButton, &counterButton,   &visualBlockButton, &blockButton,
                &secureButton, &whitelistButton, &profileButton,     &appButton};
    }
};

}  // namespace stonewall
