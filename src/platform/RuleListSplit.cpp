#include "platform/RuleListSplit.h"

#include <cstdint>
#include <nlohmann/json.hpp>

namespace stonewall::platform {
namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// The end (one past) of the JSON object that starts at `begin`, or npos when
// it does not close. Strings are skipped whole, escapes included.
size_t objectEnd(std::string_view text, size_t begin) {
    int depth = 0;
    for (size_t i = begin; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"') {
            for (++i; i < text.size() && text[i] != '"'; ++i) {
                if (text[i] == '\\') ++i;
            }
            if (i >= text.size()) return std::string_view::npos;
        } else if (c == '{' || c == '[') {
            ++depth;
        } else if (c == '}' || c == ']') {
            if (--depth == 0) return i + 1;
        }
    }
    return std::string_view::npos;
}

// Whether the rule object's action is "ignore-previous-rules". The text can
// only hold that word inside a string, so a rule without it is none; one
// with it is read properly to tell the action from, say, a selector.
bool ignoresPreviousRules(std::string_view rule) {
    if (rule.find("ignore-previous-rules") == std::string_view::npos) return false;
    const nlohmann::json object = nlohmann::json::parse(rule, nullptr, false);
    if (!object.is_object()) return false;
    const auto action = object.find("action");
    if (action == object.end() || !action->is_object()) return false;
    const auto type = action->find("type");
    return type != action->end() && type->is_string() &&
           type->get_ref<const std::string&>() == "ignore-previous-rules";
}

uint64_t fnv1a(std::string_view text) {
    uint64_t hash = 14695981039346656037ull;
    for (char c : text) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 1099511628211ull;
    }
    return hash;
}

}  // namespace

std::optional<std::vector<RuleListPart>> splitRuleList(std::string_view json) {
    // The scan below finds where rules start and end; whether the text is
    // JSON at all is checked first, without building it (a tenth of the
    // time a full reading takes).
    if (!nlohmann::json::accept(json)) return std::nullopt;
    size_t at = 0;
    auto skipSpace = [&] {
        while (at < json.size() && isSpace(json[at])) ++at;
    };
    skipSpace();
    if (at == json.size() || json[at] != '[') return std::nullopt;
    ++at;

    std::vector<RuleListPart> parts(kRuleListParts);
    std::vector<bool> started(kRuleListParts, false);
    auto append = [&](RuleListPart& part, std::string_view rule, size_t index) {
        part.json.push_back(part.json.empty() ? '[' : ',');
        part.json.append(rule);
        part.indexes.push_back(index);
    };
    size_t index = 0;
    skipSpace();
    if (at < json.size() && json[at] == ']') {
        ++at;
    } else {
        while (true) {
            skipSpace();
            if (at == json.size() || json[at] != '{') return std::nullopt;
            const size_t end = objectEnd(json, at);
            if (end == std::string_view::npos) return std::nullopt;
            const std::string_view rule = json.substr(at, end - at);
            if (ignoresPreviousRules(rule)) {
                // Before any other rule it cancels nothing and goes nowhere.
                for (size_t p = 0; p < kRuleListParts; ++p) {
                    if (started[p]) append(parts[p], rule, index);
                }
            } else {
                const size_t p = fnv1a(rule) % kRuleListParts;
                started[p] = true;
                append(parts[p], rule, index);
            }
            ++index;
            at = end;
            skipSpace();
            if (at < json.size() && json[at] == ',') {
                ++at;
                continue;
            }
            if (at < json.size() && json[at] == ']') {
                ++at;
                break;
            }
            return std::nullopt;
        }
    }
    skipSpace();
    if (at != json.size()) return std::nullopt;
    for (RuleListPart& part : parts) {
        if (part.json.empty()) {
            part.json.assign(kEmptyRuleListPart);
        } else {
            part.json.push_back(']');
        }
    }
    return parts;
}

std::string ruleListPartIdentifier(std::string_view identifier, size_t index) {
    return std::string(identifier) + ".part" + std::to_string(index);
}

}  // namespace stonewall::platform
