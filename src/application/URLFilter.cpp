#include "application/URLFilter.h"

#include <algorithm>

namespace stonewall::url_filter {
namespace {

constexpr std::string_view kHostAnchor = FilterListParser::kHostAnchor;
// The separator "^": anything but a letter, digit or one of "_-.%". WebKit
// has no alternation, so "or the end of the address" is written as an
// optional tail before "$" where the separator closes the pattern. That tail
// is what WebKit's compiler charges most for (ten times a plain class: see
// docs/filter-lists.md), so it is written only where the address can
// end there: after a host ("||ads.example^") WebKit always sees ":" or "/",
// since it matches normalised addresses, and the plain class is exact.
constexpr std::string_view kSeparator = "[^a-zA-Z0-9_.%-]";
constexpr std::string_view kClosingSeparator = "([^a-zA-Z0-9_.%-].*)?$";

// Characters of a host name with its port: what "||" may be followed by
// when the pattern names a host and nothing after it.
bool isHostPattern(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               c == '.' || c == '-' || c == '_' || c == ':';
    });
}

bool isASCII(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

}  // namespace

std::optional<std::string_view> fromPattern(std::string_view pattern, std::string& out) {
    out.clear();
    if (pattern.size() >= 2 && pattern.front() == '/' && pattern.back() == '/') {
        // A regular expression of the list's own; taken only when WebKit can run it.
        out.assign(pattern.substr(1, pattern.size() - 2));
        if (!isASCII(out)) return SkipReason::kNonASCII;
        if (!isWebKitURLFilter(out)) return SkipReason::kRegularExpression;
        return std::nullopt;
    }
    if (!isASCII(pattern)) return SkipReason::kNonASCII;

    bool endAnchor = false;
    const bool hostAnchored = pattern.starts_with("||");
    if (hostAnchored) {
        out.append(kHostAnchor);
        pattern.remove_prefix(2);
    } else if (pattern.starts_with("|")) {
        out.push_back('^');
        pattern.remove_prefix(1);
    }
    if (!pattern.empty() && pattern.back() == '|') {
        endAnchor = true;
        pattern.remove_suffix(1);
    }
    // Leading and trailing wildcards add nothing to an unanchored search.
    if (out.empty()) {
        while (!pattern.empty() && pattern.front() == '*') pattern.remove_prefix(1);
    }
    if (!endAnchor) {
        while (!pattern.empty() && pattern.back() == '*') pattern.remove_suffix(1);
    }

    for (size_t i = 0; i < pattern.size(); ++i) {
        const char c = pattern[i];
        switch (c) {
            case '*':
                if (!out.ends_with(".*")) out.append(".*");
                break;
            case '^':
                if (i + 1 == pattern.size() && !endAnchor) {
                    const bool afterHost = hostAnchored && isHostPattern(pattern.substr(0, i));
                    out.append(afterHost ? kSeparator : kClosingSeparator);
                    return std::nullopt;
                }
                out.append(kSeparator);
                break;
            case '.':
            case '+':
            case '?':
            case '(':
            case ')':
            case '[':
            case ']':
            case '{':
            case '}':
            case '\\':
            case '$':
            case '|':
                out.push_back('\\');
                out.push_back(c);
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x21 || c == 0x7f) {
                    return SkipReason::kUnsupportedSyntax;
                }
                out.push_back(c);
                break;
        }
    }
    if (endAnchor) out.push_back('$');
    if (out.empty() || out == "^") out.assign(kAnyURL);
    if (out == kHostAnchor) return SkipReason::kUnsupportedSyntax;  // "||" alone
    if (!isWebKitURLFilter(out)) return SkipReason::kRegularExpression;
    return std::nullopt;
}

bool isWebKitURLFilter(std::string_view expression) {
    if (expression.empty()) return false;
    int depth = 0;
    bool atom = false;  // whether a quantifier may follow
    bool emptyGroup = false;
    for (size_t i = 0; i < expression.size(); ++i) {
        const char c = expression[i];
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e) {
            return false;
        }
        const bool first = i == 0;
        switch (c) {
            case '^':
                if (!first) return false;
                atom = false;
                break;
            case '$':
                if (i + 1 != expression.size() || depth != 0) return false;
                atom = false;
                break;
            case '\\': {
                if (i + 1 == expression.size()) return false;
                const char next = expression[++i];
                const bool word = (next >= 'a' && next <= 'z') || (next >= 'A' && next <= 'Z') ||
                                  (next >= '0' && next <= '9');
                if (word || static_cast<unsigned char>(next) > 0x7e) return false;
                atom = true;
                break;
            }
            case '[': {
                size_t j = i + 1;
                if (j < expression.size() && expression[j] == '^') ++j;
                const size_t contentStart = j;
                bool closed = false;
                for (; j < expression.size(); ++j) {
                    const char d = expression[j];
                    if (d == '\\') {
                        if (j + 1 == expression.size()) return false;
                        const char next = expression[++j];
                        if ((next >= 'a' && next <= 'z') || (next >= 'A' && next <= 'Z') ||
                            (next >= '0' && next <= '9')) {
                            return false;
                        }
                    } else if (d == '[') {
                        return false;  // nested classes and POSIX classes
                    } else if (d == ']') {
                        closed = j > contentStart;
                        break;
                    }
                }
                if (!closed) return false;
                i = j;
                atom = true;
                break;
            }
            case ']':
            case '{':
            case '}':
            case '|':
                return false;
            case '(':
                if (i + 1 < expression.size() && expression[i + 1] == '?') return false;
                ++depth;
                atom = false;
                emptyGroup = true;
                continue;
            case ')':
                if (depth == 0 || emptyGroup) return false;
                --depth;
                atom = true;
                break;
            case '*':
            case '+':
            case '?':
                if (!atom) return false;
                atom = false;
                break;
            default:
                atom = true;
                break;
        }
        emptyGroup = false;
    }
    return depth == 0;
}

}  // namespace stonewall::url_filter
