#include "page/BlockedLoad.h"

namespace stonewall::browser {

std::optional<std::string> blockedURLFromConsoleMessage(ConsoleSource source, ConsoleLevel level,
                                                        std::string_view text) {
    constexpr std::string_view kPrefix = "Content blocker prevented frame displaying ";
    constexpr std::string_view kSeparator = " from loading a resource from ";
    if (source != ConsoleSource::Other || level != ConsoleLevel::Info) return std::nullopt;
    if (!text.starts_with(kPrefix)) return std::nullopt;
    // Serialised URLs hold no spaces, so the page URL ends at the first
    // separator and the blocked URL is the rest.
    const size_t separator = text.find(kSeparator, kPrefix.size());
    if (separator == std::string_view::npos) return std::nullopt;
    std::string_view url = text.substr(separator + kSeparator.size());
    if (url.empty() || url.find_first_of(" \n\r\t") != std::string_view::npos) return std::nullopt;
    return std::string(url);
}

}  // namespace stonewall::browser
