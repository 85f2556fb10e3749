// What the browser accepts from pages and web processes: a page-script
// message (JSON from a script that reads a hostile page) and a console
// message text. Neither check may crash, and what the page-message check
// accepts must have the shape the extension handler relies on.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "page/BlockedLoad.h"
#include "page/PageMessage.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace stonewall::browser;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
#ifdef STONEWALL_FUZZ_CONSOLE
    for (const ConsoleSource source : {ConsoleSource::Other, ConsoleSource::ConsoleAPI}) {
        if (auto url = blockedURLFromConsoleMessage(source, ConsoleLevel::Info, text)) {
            check(source == ConsoleSource::Other && !url->empty());
            check(url->find(' ') == std::string::npos);
        }
    }
#else
    if (auto message = checkPageMessage(text)) {
        check(!message->name.empty() && message->userInfo.is_object());
        if (message->name == "VisualData") {
            const auto& data = message->userInfo["data"];
            check(data.is_array() && data.size() <= kMaximumPickedElements);
        }
        if (message->name == "VisualStatus") check(message->userInfo["status"].is_number());
        (void)pageScriptCall(message->name, message->userInfo);
    }
#endif
    return 0;
}
