#include "platform/RuleListSplit.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

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

// The url-filter of a rule object's text, unescaped; none when it has none
// or holds an escape that a host anchor never needs.
std::optional<std::string> urlFilter(std::string_view rule) {
    constexpr std::string_view kKey = "\"url-filter\"";
    for (size_t at = rule.find(kKey); at != std::string_view::npos; at = rule.find(kKey, at + 1)) {
        size_t i = at + kKey.size();
        while (i < rule.size() && isSpace(rule[i])) ++i;
        if (i == rule.size() || rule[i] != ':') continue;  // a value, not the key
        ++i;
        while (i < rule.size() && isSpace(rule[i])) ++i;
        if (i == rule.size() || rule[i] != '"') return std::nullopt;
        std::string value;
        for (++i; i < rule.size() && rule[i] != '"'; ++i) {
            if (rule[i] != '\\') {
                value.push_back(rule[i]);
                continue;
            }
            if (++i == rule.size()) return std::nullopt;
            if (rule[i] != '\\' && rule[i] != '/' && rule[i] != '"') return std::nullopt;
            value.push_back(rule[i]);
        }
        return value;
    }
    return std::nullopt;
}

// The last two labels of the host a url-filter is anchored at, lower case:
// the filter of "||ads.example.com^" and its kind matches only addresses
// whose host is that host or one of its subdomains. None for any other
// filter (a path pattern, ".*", a host of one label, a wildcard in the host).
std::optional<std::string> anchoredDomain(std::string_view filter) {
    constexpr std::string_view kHostAnchor = "^[^:]+://+([^:/]+\\.)?";
    constexpr std::string_view kSeparator = "[^a-zA-Z0-9_.%-]";
    constexpr std::string_view kClosingSeparator = "([^a-zA-Z0-9_.%-].*)?$";
    if (!filter.starts_with(kHostAnchor)) return std::nullopt;
    filter.remove_prefix(kHostAnchor.size());
    std::vector<std::string> labels(1);
    size_t i = 0;
    for (; i < filter.size(); ++i) {
        const char c = filter[i];
        if ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_') {
            labels.back().push_back(c);
        } else if (c >= 'A' && c <= 'Z') {
            labels.back().push_back(static_cast<char>(c - 'A' + 'a'));
        } else if (c == '\\' && i + 1 < filter.size() && filter[i + 1] == '.') {
            if (labels.back().empty()) return std::nullopt;
            labels.emplace_back();
            ++i;
        } else {
            break;
        }
    }
    const std::string_view rest = filter.substr(i);
    const bool hostEnds = rest.empty() || rest.front() == '/' || rest.front() == ':' ||
                          rest == "$" || rest.starts_with(kSeparator) ||
                          rest.starts_with(kClosingSeparator);
    if (!hostEnds || labels.size() < 2 || labels.back().empty()) return std::nullopt;
    return labels[labels.size() - 2] + "." + labels.back();
}

// Parts 0 ... kHostParts - 1 hold rules anchored at a host, the others the rest.
constexpr size_t kHostParts = 6;

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

    // Rules anchored at a host go to the host parts by the host's last two
    // labels, the others to the generic parts by their text. An exception
    // anchored at a host can only cancel rules whose addresses share that
    // host's last two labels, or rules of no host: it goes to the generic
    // parts and to the host part of its domain. Every other exception goes
    // to every part. Hosts are most of a real list's rules, and most of its
    // exceptions; the user's own lists (".*" with page conditions) and
    // picked elements are generic, so their parts are small and quick.
    std::vector<RuleListPart> parts(kRuleListParts);
    std::vector<bool> started(kRuleListParts, false);
    auto append = [&](RuleListPart& part, std::string_view rule, size_t index) {
        part.json.push_back(part.json.empty() ? '[' : ',');
        part.json.append(rule);
        part.indexes.push_back(index);
    };
    auto domainOf = [](std::string_view rule) -> std::optional<std::string> {
        const auto filter = urlFilter(rule);
        return filter ? anchoredDomain(*filter) : std::nullopt;
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
            const auto domain = domainOf(rule);
            const size_t hostPart = domain ? fnv1a(*domain) % kHostParts : kRuleListParts;
            if (ignoresPreviousRules(rule)) {
                // Before any other rule of a part it cancels nothing there.
                for (size_t p = 0; p < kRuleListParts; ++p) {
                    const bool reaches = !domain || p >= kHostParts || p == hostPart;
                    if (started[p] && reaches) append(parts[p], rule, index);
                }
            } else {
                const size_t p =
                    domain ? hostPart : kHostParts + fnv1a(rule) % (kRuleListParts - kHostParts);
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
