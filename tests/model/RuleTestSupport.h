#pragma once

// Builders for the rule records, so a test names only the fields that matter
// to it, and rule objects compared as parsed JSON, so expectations can be
// written as the JSON literals the browser reads, independent of key order.

#include <nlohmann/json.hpp>
#include <string_view>

#include "model/ContentBlockerRule.h"
#include "model/ProfileRule.h"

namespace stonewall::test_support {

template <typename Record, typename Self>
class RecordBuilder {
  public:
    operator Record() const { return record_; }  // NOLINT: builders convert implicitly
    Record build() const { return record_; }
    Record& record() { return record_; }

    Self& ruleID(NullableString v) { return set(&Record::ruleID, std::move(v)); }
    Self& blocker(int64_t v) { return set(&Record::blocker, v); }
    Self& action(int64_t v) { return set(&Record::action, v); }
    Self& selector(NullableString v) { return set(&Record::selector, std::move(v)); }
    Self& filter(NullableString v) { return set(&Record::filter, std::move(v)); }
    Self& resources(NullableString v) { return set(&Record::resources, std::move(v)); }
    Self& loads(NullableString v) { return set(&Record::loads, std::move(v)); }
    Self& domains(NullableString v) { return set(&Record::domains, std::move(v)); }
    Self& domainType(int64_t v) { return set(&Record::domainType, v); }
    Self& filterSensitive(int64_t v) { return set(&Record::filterSensitive, v); }

  protected:
    template <typename Field, typename Value>
    Self& set(Field Record::*field, Value&& value) {
        record_.*field = std::forward<Value>(value);
        return static_cast<Self&>(*this);
    }
    Record record_;
};

struct ProfileRuleBuilder : RecordBuilder<ProfileRule, ProfileRuleBuilder> {};

inline ProfileRuleBuilder aRule() { return {}; }
inline ProfileRuleBuilder aRuleFrom(ProfileRule rule) {
    ProfileRuleBuilder builder;
    builder.record() = std::move(rule);
    return builder;
}

inline nlohmann::json parsed(std::string_view text) {
    return nlohmann::json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
}

inline nlohmann::json written(const ContentBlockerRule& rule) { return parsed(rule.toJSON()); }

}  // namespace stonewall::test_support
