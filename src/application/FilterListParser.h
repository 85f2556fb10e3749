#pragma once

// Reads a filter list in the common adblock text syntax (EasyList and its
// kind) into profile rules that WebKit's content-blocker compiler accepts.
//
// Pure: no I/O, no process services. Every emitted rule has an ASCII
// url-filter in the regular-expression subset WebKit runs (checked by
// url_filter::isWebKitURLFilter before it is emitted); a line that cannot be expressed
// in that format is skipped and counted under a reason, never approximated
// by a broader rule.

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/ProfileRule.h"

namespace stonewall {

// Reasons a line gives no rule; the texts appear in the import summary.
namespace SkipReason {
inline constexpr std::string_view kUnsupportedSyntax = "unsupported syntax";
inline constexpr std::string_view kUnsupportedOption = "unsupported option";
inline constexpr std::string_view kUnsupportedResourceType = "unsupported resource type";
inline constexpr std::string_view kExtendedSyntax = "extended CSS, scriptlet or HTML filter";
inline constexpr std::string_view kRegularExpression = "regular expression outside WebKit's subset";
inline constexpr std::string_view kNonASCII = "non-ASCII URL pattern";
inline constexpr std::string_view kInvalidDomain = "invalid domain";
inline constexpr std::string_view kMixedDomains = "domain exceptions inside included domains";
inline constexpr std::string_view kMalformedSelector = "malformed selector";
inline constexpr std::string_view kUnmatchedHideException =
    "hiding exception without a rule to except";
inline constexpr std::string_view kDuplicate = "duplicate";
inline constexpr std::string_view kInvalidUTF8 = "invalid UTF-8";
inline constexpr std::string_view kLineTooLong = "line longer than 64 KiB";
inline constexpr std::string_view kMatchesEverything =
    "matches every address everywhere (a cut line?)";
}  // namespace SkipReason

struct FilterListImport {
    // In the order of the list, hide rules after any exception applied.
    std::vector<ProfileRule> rules;
    // Emitted rules by action code (index 1 to 8).
    std::array<int64_t, 9> rulesByAction{};
    int64_t lines = 0;                  // non-blank lines
    int64_t comments = 0;               // "!" comments and the "[Adblock ...]" header
    int64_t hideExceptionsApplied = 0;  // "#@#" lines that changed a hide rule
    std::map<std::string, int64_t, std::less<>> skipped;  // by SkipReason text

    int64_t skippedCount() const;
};

class FilterListParser {
  public:
    // What "||" becomes: scheme, slashes and any run of subdomain labels, so
    // that the pattern starts at the host or at one of its labels.
    static constexpr std::string_view kHostAnchor = "^[^:]+://+([^:/]+\\.)?";

    // Longer rule lines are skipped (kLineTooLong).
    static constexpr size_t kMaximumLineLength = size_t{64} << 10;

    // Why the text is not an adblock filter list (binary, JSON, a hosts
    // file, no rule line at all), or none when it may be read as one.
    static std::optional<std::string> checkFormat(std::string_view text);

    // The rules of the list, with `blocker` as their list code. Rules that
    // equal an earlier one (same computeHash) are counted as duplicates.
    static FilterListImport parse(std::string_view text, int64_t blocker);

    // How often a subscribed list wants to be fetched again: its header's
    // "! Expires: N days" (or "N hours", "N day", "N h") comment, in
    // seconds, kept between kMinimumUpdateInterval and kMaximumUpdateInterval;
    // kDefaultUpdateInterval when the header has none or it does not read.
    static constexpr int64_t kMinimumUpdateInterval = 3600;
    static constexpr int64_t kMaximumUpdateInterval = 14 * 24 * 3600;
    static constexpr int64_t kDefaultUpdateInterval = 4 * 24 * 3600;
    static int64_t updateIntervalSeconds(std::string_view text);
};

}  // namespace stonewall
