#pragma once

// What the browser accepts from its page script. The script runs in a world
// of its own, but it still reads a hostile page's DOM, so everything it sends
// is checked here before the extension handler sees it: the handler may then
// rely on the shapes below. No GTK or WebKit here, so the checks can be
// tested and fuzzed on their own.

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace stonewall::browser {

struct PageMessage {
    std::string name;
    nlohmann::json userInfo;  // always an object
};

// Limits on one message; a page with more elements than this is not a page
// someone picks by hand.
inline constexpr size_t kMaximumMessageBytes = 4 * 1024 * 1024;
inline constexpr size_t kMaximumPickedElements = 1000;
inline constexpr size_t kMaximumNameBytes = 128;

// Accepts {"name": string, "userInfo": object (optional)}. "VisualStatus"
// needs a numeric "status"; "VisualData" needs "data", an array of at most
// kMaximumPickedElements entries, each read by the element rule of
// engine/PageProtocol.h (an entry of another shape is an empty element, not
// a reason to drop the others). Other names pass with any object, so that
// the handler can log them. Anything else gives none. Never throws.
[[nodiscard]] std::optional<PageMessage> checkPageMessage(std::string_view jsonText);

// The script-side call that delivers `name` with `userInfo` (a JSON object or
// null) to the page script; evaluated in the script's own world.
std::string pageScriptCall(std::string_view name, const nlohmann::json& userInfo);

}  // namespace stonewall::browser
