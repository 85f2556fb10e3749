#pragma once

// The outlet names of the popover's layout: a toolkit's layout offers each
// of them (PopoverView lookups), grouped here by the view that holds them.

#include <array>
#include <string_view>

namespace stonewall::outlets {

// The six stacks, in view-code order (code 1 is index 0).
inline constexpr std::array<std::string_view, 6> kStackViews = {
    "mainStackView",    "visualStackView", "profileStackView",
    "websiteStackView", "reloadStackView", "errorMessageStackView"};

// Text fields (labels).
inline constexpr std::array<std::string_view, 14> kTextFields = {
    "statusHeaderLabel",        "visualHeaderLabel",   "customRulesHeaderLabel",
    "activeProfileHeaderLabel", "appHeaderLabel",      "visualTitleLabel",
    "visualMessageLabel",       "profileTitleLabel",   "profileMessageLabel",
    "websiteTitleLabel",        "websiteMessageLabel", "reloadTitleLabel",
    "errorTitleLabel",          "errorMessageLabel"};

// The main view's rows, in the order setupButtons clears them.
inline constexpr std::array<std::string_view, 8> kExtensionButtons = {
    "statusButton", "counterButton",   "visualBlockButton", "blockButton",
    "secureButton", "whitelistButton", "profileButton",     "appButton"};

inline constexpr std::array<std::string_view, 2> kImageViews = {"statusImageView",
                                                                "counterImageView"};

// Separators of the main view.
inline constexpr std::array<std::string_view, 4> kLineViews = {
    "statusLineView", "visualLineView", "customRulesLineView", "profileLineView"};

inline constexpr std::array<std::string_view, 7> kPushButtons = {
    "visualCancelButton",  "visualDoneButton",  "profileCancelButton", "profileDoneButton",
    "websiteCancelButton", "websiteDoneButton", "errorDoneButton"};

inline constexpr std::string_view kProfilePopupButton = "profilePopupButton";
inline constexpr std::string_view kReloadProgressIndicator = "reloadProgressIndicator";

// Title and message pairs of views 2, 4 and 3.
inline constexpr std::array<std::string_view, 3> kMessageStackViews = {
    "visualMessageStackView", "websiteMessageStackView", "profileMessageStackView"};

inline constexpr std::array<std::string_view, 3> kCenterYConstraints = {
    "visualCenterY", "websiteCenterY", "profileCenterY"};

inline constexpr std::array<std::string_view, 8> kSeparatorConstraints = {
    "statusLineLeadingConstraint",  "statusLineTrailingConstraint",
    "webpageLineLeadingConstraint", "webpageLineTrailingConstraint",
    "websiteLineLeadingConstraint", "websiteLineTrailingConstraint",
    "profileLineLeadingConstraint", "profileLineTrailingConstraint"};

inline constexpr std::array<std::string_view, 2> kMainStackConstraints = {
    "mainStackViewLeadingConstraint", "mainStackViewTrailingConstraint"};

}  // namespace stonewall::outlets
