// Rule-list files split into parts: any text either is refused or gives
// parts that are valid JSON arrays, hold every rule that is not an
// "ignore-previous-rules" exactly once (as the indexes say) and agree with
// a full JSON reading of the text on how many rules it holds.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

#include "platform/RuleListSplit.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const auto parts = stonewall::platform::splitRuleList(input);
    if (!parts) return 0;
    check(parts->size() == stonewall::platform::kRuleListParts);
    size_t highest = 0;
    for (const auto& part : *parts) {
        const auto parsed = nlohmann::json::parse(part.json, nullptr, false);
        check(parsed.is_array());
        check(part.indexes.empty() ? part.json == stonewall::platform::kEmptyRuleListPart
                                   : parsed.size() == part.indexes.size());
        for (size_t index : part.indexes) highest = std::max(highest, index + 1);
    }
    // A text the splitter takes for a list of objects is one for a JSON
    // reader too, with at least as many rules as the parts name.
    const auto whole = nlohmann::json::parse(input, nullptr, false);
    check(whole.is_array() && whole.size() >= highest);
    return 0;
}
