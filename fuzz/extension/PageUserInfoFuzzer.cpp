// The user info of a page message comes from a script running in an
// arbitrary web page: any JSON value, of any shape. Reading the picking
// status and the picked elements out of it must never crash, and every
// element must carry the host it was given, never one the page chose.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

#include "extension/SafariExtensionHandler.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace stonewall;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto userInfo = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (userInfo.is_discarded()) return 0;
    (void)SafariExtensionHandler::visualStatusFromUserInfo(userInfo);
    const NullableString host = "www.example.com";
    for (const DataElement& element :
         SafariExtensionHandler::visualElementsFromUserInfo(userInfo, host)) {
        check(element.location == host);
    }
    check(SafariExtensionHandler::visualElementsFromUserInfo(userInfo, std::nullopt).size() ==
          SafariExtensionHandler::visualElementsFromUserInfo(userInfo, host).size());
    return 0;
}
