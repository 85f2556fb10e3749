// Filter lists come from anywhere on the web. Reading one must never crash,
// and every rule it yields must keep the promises the importer makes: a
// url-filter in WebKit's subset, list entries without blanks or empty
// pieces, and a conversion that writes valid JSON.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string_view>

#include "application/FilterListParser.h"
#include "application/URLFilter.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

bool cleanList(const stonewall::NullableString& list) {
    if (!list) return true;
    if (list->empty() || list->front() == ',' || list->back() == ',') return false;
    return list->find(",,") == std::string::npos && list->find(' ') == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    (void)stonewall::FilterListParser::checkFormat(text);
    (void)stonewall::url_filter::isWebKitURLFilter(text);
    const auto list = stonewall::FilterListParser::parse(text, stonewall::BlockerCode::kList1);
    int64_t counted = 0;
    for (const auto& rule : list.rules) {
        check(rule.filter && stonewall::url_filter::isWebKitURLFilter(*rule.filter));
        check(rule.action >= 1 && rule.action <= 8);
        check(rule.action != stonewall::ActionCode::kHide ||
              (rule.selector && !rule.selector->empty()));
        check(cleanList(rule.resources) && cleanList(rule.domains));
        const auto json = nlohmann::json::parse(rule.convertToSafariData2().toJSON(), nullptr,
                                                /*allow_exceptions=*/false);
        check(!json.is_discarded());
        ++counted;
    }
    int64_t byAction = 0;
    for (int64_t count : list.rulesByAction) byAction += count;
    check(byAction == counted);
    // The "! Expires:" header always gives an interval within its bounds.
    const int64_t interval = stonewall::FilterListParser::updateIntervalSeconds(text);
    check(interval >= stonewall::FilterListParser::kMinimumUpdateInterval &&
          interval <= stonewall::FilterListParser::kMaximumUpdateInterval);
    return 0;
}
