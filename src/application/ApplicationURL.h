#pragma once

// The internal "stonewall://" URLs through which the browser side opens the
// main application on a given screen, and what each screen is for.

#include <array>
#include <optional>
#include <string_view>

namespace stonewall {

enum class ApplicationScreen {
    Status,         // blocking on/off after a failed reload
    Activate,       // the profiles after a failed activation
    BlockWebsite,   // the block list after a failed reload
    SecureWebsite,  // the secure list after a failed reload
    AllowWebsite,   // the allow list after a failed reload
    Visual,         // the picked-element rules after a failed reload
    Open,           // the main window, from the popover's button
};

struct ApplicationURLTarget {
    ApplicationScreen screen;
    std::string_view url;
    std::string_view title;
    std::string_view explanation;
};

class ApplicationURL {
  public:
    // The seven URLs, in the order the browser side lists them.
    static const std::array<ApplicationURLTarget, 7>& targets();
    // The screen of a URL: scheme and name compared without case, a
    // trailing "/" allowed; none for any other text.
    static std::optional<ApplicationURLTarget> target(std::string_view url);
};

}  // namespace stonewall
