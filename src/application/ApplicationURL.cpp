#include "application/ApplicationURL.h"

#include <algorithm>
#include <string>

namespace stonewall {

const std::array<ApplicationURLTarget, 7>& ApplicationURL::targets() {
    // Every URL but "open" is opened because the content blocker did not
    // take a new rule list; the screen says so and offers the way on.
    static const std::array<ApplicationURLTarget, 7> kTargets = {{
        {ApplicationScreen::Status, "stonewall://status", "Content blocking",
         "The content blocker did not reload after blocking was switched on or off. The "
         "new status is stored; it takes effect when the content blocker next loads."},
        {ApplicationScreen::Activate, "stonewall://activate", "Blocker profiles",
         "The content blocker did not reload after the profile was activated. The profile "
         "is active; its rules take effect when the content blocker next loads."},
        {ApplicationScreen::BlockWebsite, "stonewall://blockwebsite", "Blocked websites",
         "The content blocker did not reload after a website was blocked. The website is on "
         "the list; it is blocked when the content blocker next loads."},
        {ApplicationScreen::SecureWebsite, "stonewall://securewebsite", "Secured websites",
         "The content blocker did not reload after a website was secured. The website is on "
         "the list; it is secured when the content blocker next loads."},
        {ApplicationScreen::AllowWebsite, "stonewall://whitelistwebsite", "Allowed websites",
         "The content blocker did not reload after a website was allowed. The website is on "
         "the list; blocking stops there when the content blocker next loads."},
        {ApplicationScreen::Visual, "stonewall://visual", "Picked elements",
         "The content blocker did not reload after elements were picked on a page. The "
         "rules are stored; they take effect when the content blocker next loads."},
        {ApplicationScreen::Open, "stonewall://open", "Stonewall",
         "The main window: blocking status, blocker profiles and their rule lists."},
    }};
    return kTargets;
}

std::optional<ApplicationURLTarget> ApplicationURL::target(std::string_view url) {
    std::string normalised(url);
    std::transform(normalised.begin(), normalised.end(), normalised.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    if (normalised.ends_with('/')) normalised.pop_back();
    for (const ApplicationURLTarget& target : targets()) {
        if (normalised == target.url) return target;
    }
    return std::nullopt;
}

}  // namespace stonewall
