#pragma once

// Names shared by the browser's UI process, its web-process extension and
// its page script. The page script's messages to and from the extension
// ("VisualStatus", "VisualData", ...) and the shape of a picked element are
// in engine/PageProtocol.h, which the extension's handler uses too.

namespace stonewall::browser {

// The script world of the page script: pages neither see its globals nor
// reach its message handler.
inline constexpr const char* kScriptWorldName = "stonewall";
// The script message handler registered in that world.
inline constexpr const char* kScriptMessageHandlerName = "stonewall";
// Web process to UI process: one blocked load, its URL as a string.
inline constexpr const char* kBlockedLoadMessage = "stonewall-blocked-load";

}  // namespace stonewall::browser
