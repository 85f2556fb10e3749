#pragma once

// WebKitGTK does not tell the UI process when its content blocker stops a
// load; it only writes a console message in the page. The web-process
// extension recognises that message with this function. GTK-free so it can
// be tested and fuzzed.

#include <optional>
#include <string>
#include <string_view>

namespace stonewall::browser {

// The console's message sources and levels as WebKit reports them.
enum class ConsoleSource { JavaScript, Network, ConsoleAPI, Security, Other };
enum class ConsoleLevel { Info, Log, Warning, Error, Debug };

// The blocked resource's URL when the message is WebKit's own report of a
// content-blocker block ("Content blocker prevented frame displaying <page>
// from loading a resource from <url>", source other, level info). A page
// cannot forge it: what a page writes with console.log or console.info has
// another source.
[[nodiscard]] std::optional<std::string> blockedURLFromConsoleMessage(ConsoleSource source,
                                                                      ConsoleLevel level,
                                                                      std::string_view text);

}  // namespace stonewall::browser
