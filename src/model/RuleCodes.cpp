#include "model/RuleCodes.h"

namespace stonewall {

std::optional<std::string_view> ruleIDForReloadType(int64_t reloadType) {
    switch (reloadType) {
        case ReloadType::kAds:
        case ReloadType::kAdsAlternate:
            return "ad";
        case ReloadType::kTrackers:
            return "tr";
        case ReloadType::kSocial:
        case ReloadType::kSocialAlternate:
            return "sm";
        case ReloadType::kWebImages:
            return "wr_images";
        case ReloadType::kWebMedia:
            return "wr_media";
        case ReloadType::kWebScripts:
            return "wr_scripts";
        case ReloadType::kWebStylesheets:
            return "wr_stylesheets";
        case ReloadType::kWebSVGs:
            return "wr_svgs";
        case ReloadType::kBanners:
        case ReloadType::kBannersAlternate:
            return "bn";
        default:
            return std::nullopt;
    }
}

}  // namespace stonewall
