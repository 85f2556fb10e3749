#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// The numeric codes of rules, shared by every layer and stored in the databases.
namespace stonewall {

// Which rule list a rule belongs to (`blocker`).
namespace BlockerCode {
inline constexpr int64_t kList1 = 1;   // block and hide rules (query types 1, 2)
inline constexpr int64_t kList2 = 2;   // block and exception rules only (query type 3)
inline constexpr int64_t kList3 = 3;   // block and hide rules (query types 4, 5)
inline constexpr int64_t kCustom = 4;  // the user's custom rules
inline constexpr int64_t kList6 = 6;   // block and hide rules (query types 6, 7)
}  // namespace BlockerCode

// What a rule does (`action`).
namespace ActionCode {
inline constexpr int64_t kBlock = 1;
inline constexpr int64_t kHide = 2;          // css-display-none with a selector
inline constexpr int64_t kAllowWebsite = 3;  // the allowed-websites list
inline constexpr int64_t kBlockCookies = 4;
inline constexpr int64_t kBlockWebsite = 5;   // the blocked-websites list
inline constexpr int64_t kException = 6;      // exception of a profile list
inline constexpr int64_t kSecureWebsite = 7;  // the secured-websites list
inline constexpr int64_t kUpgradeHTTPS = 8;
}  // namespace ActionCode

// How `domains` restricts a rule (`domainType`).
namespace DomainTypeCode {
inline constexpr int64_t kNone = -1;
inline constexpr int64_t kIfTopURL = 1;              // patterns built from the domains
inline constexpr int64_t kUnlessTopURL = 2;          // patterns built from the domains
inline constexpr int64_t kIfTopURLVerbatim = 4;      // entries used as they stand
inline constexpr int64_t kUnlessTopURLVerbatim = 5;  // entries used as they stand
}  // namespace DomainTypeCode

// Which rule list a profile rule was read for (`initWithRule:reloadType:`);
// the tag it gives the rule's ruleID.
namespace ReloadType {
inline constexpr int64_t kAds = 2;                // "ad"
inline constexpr int64_t kAdsAlternate = 3;       // "ad"
inline constexpr int64_t kTrackers = 4;           // "tr"
inline constexpr int64_t kSocial = 5;             // "sm"
inline constexpr int64_t kSocialAlternate = 6;    // "sm"
inline constexpr int64_t kWebImages = 7;          // "wr_images"
inline constexpr int64_t kWebMedia = 8;           // "wr_media"
inline constexpr int64_t kWebScripts = 9;         // "wr_scripts"
inline constexpr int64_t kWebStylesheets = 10;    // "wr_stylesheets"
inline constexpr int64_t kWebSVGs = 11;           // "wr_svgs"
inline constexpr int64_t kBanners = 13;           // "bn"
inline constexpr int64_t kBannersAlternate = 14;  // "bn"
}  // namespace ReloadType

// The ruleID tag of a reload type; std::nullopt for the types without one
// (0, 1, 12 and anything outside the table).
std::optional<std::string_view> ruleIDForReloadType(int64_t reloadType);

}  // namespace stonewall
