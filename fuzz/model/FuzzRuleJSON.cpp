// Rule objects read back from outside (the product's other programs hand
// them over as JSON): reading, turning into a custom rule and writing again
// must never crash, and what is written must always be valid JSON that reads
// back to the same rule.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "model/ContentBlockerRule.h"
#include "model/ProfileRule.h"
#include "model/SharedCustomRule.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

void checkWritten(const stonewall::ContentBlockerRule& rule) {
    const std::string json = rule.toJSON();
    const auto parsed = nlohmann::json::parse(json, nullptr, /*allow_exceptions=*/false);
    check(!parsed.is_discarded());
    check(parsed.is_object() && parsed.size() == 2);
    // fromJSON of a valid rule text gives the rule back (the writer only
    // replaces invalid UTF-8, which the reader never produces).
    check(stonewall::ContentBlockerRule::fromJSON(json) == rule);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const auto rule = stonewall::ContentBlockerRule::fromJSON(input);
    checkWritten(rule);

    const auto custom = stonewall::SharedCustomRule::initWithSafariData(rule);
    const auto converted = custom.convertToSafariData();
    checkWritten(converted);

    // The compiler's path for the same rule, and a list of both.
    const auto profileRule = stonewall::ProfileRule::initWithSharedCustomRule(custom);
    check(profileRule.computeHash() == custom.computeHash());
    const auto compiled = profileRule.convertToSafariData2();
    checkWritten(compiled);
    std::string list;
    stonewall::ContentBlockerRuleListWriter writer(list);
    writer.add(converted);
    writer.add(compiled);
    writer.finish();
    const auto parsedList = nlohmann::json::parse(list, nullptr, /*allow_exceptions=*/false);
    check(parsedList.is_array() && parsedList.size() == 2);
    return 0;
}
