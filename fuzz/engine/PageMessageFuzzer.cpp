// The "data" value of a "VisualData" page message comes from a script running
// in an arbitrary web page. Reading it into elements and turning each element
// into a custom rule must never crash, and every rule made must convert to a
// content-blocker object that is valid JSON.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

#include "engine/CompanionController.h"
#include "engine/DataElement.h"
#include "model/ProfileRule.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace stonewall;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto elements = DataElement::elementsFromMessageData(text);
    if (!elements) return 0;
    for (const DataElement& element : *elements) {
        (void)element.description();
        // The front puts the page's host in place of the page's own value.
        for (const NullableString& host : {element.location, NullableString("www.example.com")}) {
            const auto rule = CompanionController::createVisualCustomRule(host, element);
            if (!rule) continue;
            check(rule->action == ActionCode::kHide || rule->action == ActionCode::kBlock);
            check(rule->blocker == BlockerCode::kCustom);
            const std::string json =
                ProfileRule::initWithSharedCustomRule(*rule).convertToSafariData2().toJSON();
            check(!nlohmann::json::parse(json, nullptr, /*allow_exceptions=*/false).is_discarded());
        }
    }
    return 0;
}
