#include "application/FilterListParser.h"

#include <algorithm>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "application/URLFilter.h"
#include "utilities/Punycode.h"
#include "utilities/Unicode.h"

namespace stonewall {
namespace {

constexpr std::string_view kAnyURL = url_filter::kAnyURL;

// WebKit's names for the resource types the syntax's options name.
const std::unordered_map<std::string_view, std::string_view>& resourceTypeNames() {
    static const std::unordered_map<std::string_view, std::string_view> names = {
        {"script", "script"},
        {"image", "image"},
        {"stylesheet", "style-sheet"},
        {"css", "style-sheet"},
        {"font", "font"},
        {"media", "media"},
        {"subdocument", "document"},
        {"frame", "document"},
        {"xmlhttprequest", "raw"},
        {"xhr", "raw"},
        {"websocket", "raw"},
        {"ping", "ping"},
        {"popup", "popup"},
        {"other", "other"},
    };
    return names;
}
// Every type, in WebKit's order, for "~type" options.
constexpr std::array<std::string_view, 10> kAllResourceTypes = {
    "document", "image",        "style-sheet", "script", "font",
    "raw",      "svg-document", "media",       "popup",  "ping"};
// Types the syntax knows that WebKit cannot tell apart from others.
const std::unordered_set<std::string_view> kInexpressibleTypes = {"object", "object-subrequest",
                                                                  "webrtc"};

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f'; }

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
    while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
    return text;
}

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

bool isASCII(std::string_view text) {
    return std::all_of(text.begin(), text.end(),
                       [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

char lowerASCII(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::string lowered(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), lowerASCII);
    return result;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    while (true) {
        const size_t end = text.find(separator, start);
        pieces.push_back(text.substr(start, end == std::string_view::npos ? end : end - start));
        if (end == std::string_view::npos) return pieces;
        start = end + 1;
    }
}

// A host name of the list, IDNA-encoded and lower case; none when it is not
// one (a wildcard top-level domain "example.*", a path, a blank).
std::optional<std::string> normalisedDomain(std::string_view text) {
    if (text.empty()) return std::nullopt;
    std::string domain =
        isASCII(text) ? lowered(text) : lowered(PunycodeAdditions::IDNAEncodedString(text));
    if (domain.empty() || domain.front() == '.' || domain.back() == '.') return std::nullopt;
    for (char c : domain) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.';
        if (!ok) return std::nullopt;
    }
    return domain;
}

bool isSameOrSubdomain(std::string_view domain, std::string_view parent) {
    if (domain == parent) return true;
    return domain.size() > parent.size() && domain.ends_with(parent) &&
           domain[domain.size() - parent.size() - 1] == '.';
}

// The rule's domain condition from the syntax's domain list: included
// domains restrict it to those sites ("*" entries take the subdomains too),
// excluded ones exempt those sites. WebKit takes only one kind per rule, so
// an exclusion inside an included domain cannot be expressed; exclusions
// outside every included domain change nothing and are dropped.
struct DomainCondition {
    NullableString domains;
    int64_t domainType = DomainTypeCode::kNone;
};
std::optional<std::string_view> domainCondition(const std::vector<std::string_view>& entries,
                                                DomainCondition& condition) {
    std::vector<std::string> included, excluded;
    for (std::string_view entry : entries) {
        entry = trimmed(entry);
        const bool exclude = startsWith(entry, "~");
        if (exclude) entry.remove_prefix(1);
        const auto domain = normalisedDomain(entry);
        if (!domain) return SkipReason::kInvalidDomain;
        (exclude ? excluded : included).push_back(*domain);
    }
    if (!included.empty()) {
        for (const std::string& out : excluded) {
            for (const std::string& in : included) {
                if (isSameOrSubdomain(out, in)) return SkipReason::kMixedDomains;
            }
        }
    }
    const auto& kept = included.empty() ? excluded : included;
    if (kept.empty()) return std::nullopt;
    std::string joined;
    for (const std::string& domain : kept) {
        if (!joined.empty()) joined.push_back(',');
        joined.push_back('*');
        joined.append(domain);
    }
    condition.domains = std::move(joined);
    condition.domainType =
        included.empty() ? DomainTypeCode::kUnlessTopURL : DomainTypeCode::kIfTopURL;
    return std::nullopt;
}

// Pseudo-classes and forms of the extended element-hiding syntaxes that no
// browser's selector engine knows; WebKit would refuse the whole list.
constexpr std::string_view kExtendedSelectorMarks[] = {
    ":-abp-",         ":has-text(",     ":contains(",
    ":xpath(",        ":matches-css",   ":upward(",
    ":remove(",       ":style(",        ":min-text-length(",
    ":watch-attr(",   ":others(",       ":matches-path(",
    ":nth-ancestor(", ":if(",           ":if-not(",
    ":matches-attr(", ":matches-prop(", ":remove-attr(",
    ":remove-class(", ":-ext-",         ":matches-media(",
    ":shadow(",       ":watch-attrs("};

std::optional<std::string_view> checkSelector(std::string_view selector) {
    if (selector.empty()) return SkipReason::kMalformedSelector;
    if (startsWith(selector, "+js(") || startsWith(selector, "^"))
        return SkipReason::kExtendedSyntax;
    for (std::string_view mark : kExtendedSelectorMarks) {
        if (selector.find(mark) != std::string_view::npos) return SkipReason::kExtendedSyntax;
    }
    // Style injection and unbalanced brackets or quotes: WebKit's CSS parser
    // would reject them, and with them the whole list.
    int round = 0, square = 0;
    char quote = 0;
    for (size_t i = 0; i < selector.size(); ++i) {
        const char c = selector[i];
        if (static_cast<unsigned char>(c) < 0x20) return SkipReason::kMalformedSelector;
        if (c == '\\') {
            ++i;
            continue;
        }
        if (quote) {
            if (c == quote) quote = 0;
            continue;
        }
        switch (c) {
            case '"':
            case '\'':
                quote = c;
                break;
            case '(':
                ++round;
                break;
            case ')':
                if (--round < 0) return SkipReason::kMalformedSelector;
                break;
            case '[':
                ++square;
                break;
            case ']':
                if (--square < 0) return SkipReason::kMalformedSelector;
                break;
            case '{':
            case '}':
                return SkipReason::kExtendedSyntax;
            default:
                break;
        }
    }
    if (quote || round || square) return SkipReason::kMalformedSelector;
    if (selector.back() == ',' || selector.back() == '>' || selector.back() == '+' ||
        selector.back() == '~' || selector.front() == ',') {
        return SkipReason::kMalformedSelector;
    }
    return std::nullopt;
}

// One network rule's options.
struct NetworkOptions {
    std::vector<std::string_view> includedTypes;
    std::vector<std::string_view> excludedTypes;
    bool droppedType = false;  // a type WebKit cannot express was named
    NullableString loads;
    bool matchCase = false;
    bool cookies = false;
    bool upgrade = false;
    bool document = false;
    std::vector<std::string_view> domains;
};

std::optional<std::string_view> parseOptions(std::string_view text, NetworkOptions& options) {
    for (std::string_view option : split(text, ',')) {
        option = trimmed(option);
        const bool negated = startsWith(option, "~");
        if (negated) option.remove_prefix(1);
        std::string_view value;
        bool hasValue = false;
        if (const size_t equals = option.find('='); equals != std::string_view::npos) {
            value = option.substr(equals + 1);
            option = option.substr(0, equals);
            hasValue = true;
        }
        const std::string name = lowered(option);
        if (name == "domain" && hasValue && !negated) {
            options.domains = split(value, '|');
            continue;
        }
        if (hasValue) {
            if (name == "csp" && !negated &&
                lowered(trimmed(value)) == "upgrade-insecure-requests") {
                options.upgrade = true;
                continue;
            }
            return SkipReason::kUnsupportedOption;
        }
        if (name == "third-party" || name == "3p" || name == "first-party" || name == "1p") {
            const bool third = (name == "third-party" || name == "3p") != negated;
            options.loads = third ? "third-party" : "first-party";
        } else if (name == "match-case" && !negated) {
            options.matchCase = true;
        } else if (name == "important" && !negated) {
            // Exceptions come after blocks in the compiled list, so an
            // "important" block still yields to them; the rule is kept.
        } else if (name == "cookie" && !negated) {
            options.cookies = true;
        } else if ((name == "document" || name == "doc") && !negated) {
            options.document = true;
        } else if (name == "all" && !negated) {
            // Every type: no resource condition.
        } else if (auto type = resourceTypeNames().find(name); type != resourceTypeNames().end()) {
            (negated ? options.excludedTypes : options.includedTypes).push_back(type->second);
        } else if (kInexpressibleTypes.contains(name)) {
            if (!negated) options.droppedType = true;
        } else {
            return SkipReason::kUnsupportedOption;
        }
    }
    return std::nullopt;
}

// The resource-type list of the rule, or none for every type.
std::optional<std::string_view> resourceTypes(const NetworkOptions& options, bool document,
                                              NullableString& resources) {
    std::vector<std::string_view> types = options.includedTypes;
    if (document) types.push_back("document");
    if (types.empty() && options.droppedType) return SkipReason::kUnsupportedResourceType;
    if (types.empty() && options.excludedTypes.empty()) return std::nullopt;
    if (types.empty()) types.assign(kAllResourceTypes.begin(), kAllResourceTypes.end());
    std::string joined;
    std::unordered_set<std::string_view> seen;
    for (std::string_view type : types) {
        if (std::find(options.excludedTypes.begin(), options.excludedTypes.end(), type) !=
                options.excludedTypes.end() ||
            !seen.insert(type).second) {
            continue;
        }
        if (!joined.empty()) joined.push_back(',');
        joined.append(type);
    }
    if (joined.empty()) return SkipReason::kUnsupportedResourceType;
    resources = std::move(joined);
    return std::nullopt;
}

// Where an element-hiding marker starts and how long it is; also the
// extended markers, which are recognised only to be skipped.
struct CosmeticMarker {
    size_t position = std::string_view::npos;
    std::string_view marker;
};
CosmeticMarker findCosmeticMarker(std::string_view line) {
    static constexpr std::string_view kMarkers[] = {"#@$?#", "#$?#", "#@?#", "#@$#", "#@%#",
                                                    "#?#",   "#$#",  "#%#",  "#@#",  "##"};
    for (size_t at = line.find('#'); at != std::string_view::npos; at = line.find('#', at + 1)) {
        for (std::string_view marker : kMarkers) {
            if (line.compare(at, marker.size(), marker) == 0) return {at, marker};
        }
    }
    return {};
}

struct HideException {
    std::string selector;
    std::vector<std::string> domains;  // empty: everywhere
};

class Parser {
  public:
    explicit Parser(int64_t blocker) : blocker_(blocker) {}

    void line(std::string_view text) {
        text = trimmed(text);
        if (text.empty()) return;
        ++result_.lines;
        if (text.front() == '!' || (text.front() == '[' && text.back() == ']')) {
            ++result_.comments;
            return;
        }
        // Real lists stay under 6 KiB a line; a longer one is no rule of
        // theirs, and would cost WebKit seconds and a gigabyte to refuse.
        if (text.size() > FilterListParser::kMaximumLineLength) {
            return skip(SkipReason::kLineTooLong);
        }
        // A comment is dropped whatever its bytes; a rule with bytes that are
        // not UTF-8 could only be stored as a broken selector or pattern.
        if (!unicode::isValidUTF8(text)) return skip(SkipReason::kInvalidUTF8);
        if (const CosmeticMarker cosmetic = findCosmeticMarker(text);
            cosmetic.position != std::string_view::npos) {
            return elementHiding(text.substr(0, cosmetic.position), cosmetic.marker,
                                 trimmed(text.substr(cosmetic.position + cosmetic.marker.size())));
        }
        if (startsWith(text, "$$") || startsWith(text, "$@$") ||
            text.find("$$") != std::string_view::npos) {
            return skip(SkipReason::kExtendedSyntax);
        }
        network(text);
    }

    FilterListImport finish() {
        applyHideExceptions();
        std::unordered_set<std::string> seen;
        std::vector<ProfileRule> unique;
        unique.reserve(rules_.size());
        for (ProfileRule& rule : rules_) {
            if (!rule.filter) continue;  // removed by a hiding exception
            if (!seen.insert(rule.computeHash()).second) {
                skip(SkipReason::kDuplicate);
                continue;
            }
            ++result_.rulesByAction[static_cast<size_t>(rule.action)];
            unique.push_back(std::move(rule));
        }
        result_.rules = std::move(unique);
        return std::move(result_);
    }

  private:
    void skip(std::string_view reason) {
        auto found = result_.skipped.find(reason);
        if (found == result_.skipped.end()) {
            result_.skipped.emplace(std::string(reason), 1);
        } else {
            ++found->second;
        }
    }

    ProfileRule newRule(int64_t action) const {
        ProfileRule rule;
        rule.blocker = blocker_;
        rule.action = action;
        return rule;
    }

    void elementHiding(std::string_view domainText, std::string_view marker,
                       std::string_view selector) {
        if (marker != "##" && marker != "#@#") return skip(SkipReason::kExtendedSyntax);
        if (const auto reason = checkSelector(selector)) return skip(*reason);

        std::vector<std::string_view> entries;
        if (!trimmed(domainText).empty()) entries = split(domainText, ',');
        if (marker == "#@#") {
            HideException exception{std::string(selector), {}};
            for (std::string_view entry : entries) {
                entry = trimmed(entry);
                if (startsWith(entry, "~")) return skip(SkipReason::kUnsupportedSyntax);
                const auto domain = normalisedDomain(entry);
                if (!domain) return skip(SkipReason::kInvalidDomain);
                exception.domains.push_back(*domain);
            }
            exceptions_.push_back(std::move(exception));
            return;
        }
        DomainCondition condition;
        if (const auto reason = domainCondition(entries, condition)) return skip(*reason);
        ProfileRule rule = newRule(ActionCode::kHide);
        rule.filter = std::string(kAnyURL);
        rule.selector = std::string(selector);
        rule.domains = std::move(condition.domains);
        rule.domainType = condition.domainType;
        hideRules_[*rule.selector].push_back(rules_.size());
        rules_.push_back(std::move(rule));
    }

    void network(std::string_view text) {
        const bool exception = startsWith(text, "@@");
        if (exception) text.remove_prefix(2);

        std::string_view pattern = text;
        std::string_view optionText;
        // Options follow the last "$", except inside a regular expression
        // ("/ads$/" ends with an anchor, not with options).
        const size_t regexEnd = startsWith(text, "/") ? text.rfind("/$") : std::string_view::npos;
        if (regexEnd != std::string_view::npos && regexEnd > 0) {
            pattern = text.substr(0, regexEnd + 1);
            optionText = text.substr(regexEnd + 2);
        } else if (text.size() > 1 && text.front() == '/' && text.back() == '/') {
            // A whole regular expression without options.
        } else if (const size_t dollar = text.rfind('$'); dollar != std::string_view::npos) {
            pattern = text.substr(0, dollar);
            optionText = text.substr(dollar + 1);
        }
        if (pattern.find_first_of(" \t") != std::string_view::npos) {
            return skip(SkipReason::kUnsupportedSyntax);
        }

        NetworkOptions options;
        if (!optionText.empty()) {
            if (const auto reason = parseOptions(optionText, options)) return skip(*reason);
        }
        DomainCondition condition;
        if (const auto reason = domainCondition(options.domains, condition)) return skip(*reason);

        std::string filter;
        if (const auto reason = url_filter::fromPattern(pattern, filter)) return skip(*reason);
        // "|", "*" or "@@*" alone would block, or let through, every load
        // everywhere: no list means that, a cut or garbled line does.
        if (filter == kAnyURL && !condition.domains && !options.loads && !options.document &&
            options.includedTypes.empty() && options.excludedTypes.empty()) {
            return skip(SkipReason::kMatchesEverything);
        }

        if (exception && options.document) return pageException(filter, condition, options);

        int64_t action = ActionCode::kBlock;
        if (exception) {
            if (options.cookies || options.upgrade) return skip(SkipReason::kUnsupportedOption);
            action = ActionCode::kException;
        } else if (options.cookies && options.upgrade) {
            return skip(SkipReason::kUnsupportedOption);
        } else if (options.cookies) {
            action = ActionCode::kBlockCookies;
        } else if (options.upgrade) {
            action = ActionCode::kUpgradeHTTPS;
        }

        ProfileRule rule = newRule(action);
        if (const auto reason = resourceTypes(options, options.document, rule.resources)) {
            return skip(*reason);
        }
        rule.filter = std::move(filter);
        rule.loads = std::move(options.loads);
        rule.domains = std::move(condition.domains);
        rule.domainType = condition.domainType;
        rule.filterSensitive = options.matchCase ? 1 : 0;
        rules_.push_back(std::move(rule));
    }

    // "@@...$document": no rule applies on the pages the pattern matches. The
    // page's address is the top URL, so the pattern itself becomes the
    // top-URL condition of an exception that matches every load.
    void pageException(const std::string& filter, const DomainCondition& condition,
                       const NetworkOptions& options) {
        if (condition.domains || options.loads || !options.includedTypes.empty() ||
            !options.excludedTypes.empty() || filter.find(',') != std::string::npos) {
            return skip(SkipReason::kUnsupportedOption);
        }
        ProfileRule rule = newRule(ActionCode::kException);
        rule.filter = std::string(kAnyURL);
        rule.domains = filter;
        rule.domainType = DomainTypeCode::kIfTopURLVerbatim;
        rule.filterSensitive = 0;
        rules_.push_back(std::move(rule));
    }

    // "#@#" takes sites out of the hide rules with the same selector: a rule
    // for every site becomes one for every site but those; a rule for listed
    // sites loses them. WebKit cannot except one selector otherwise.
    void applyHideExceptions() {
        for (const HideException& exception : exceptions_) {
            auto found = hideRules_.find(exception.selector);
            bool applied = false;
            if (found != hideRules_.end()) {
                for (size_t index : found->second) applied |= except(rules_[index], exception);
            }
            if (applied) {
                ++result_.hideExceptionsApplied;
            } else {
                skip(SkipReason::kUnmatchedHideException);
            }
        }
    }

    static bool except(ProfileRule& rule, const HideException& exception) {
        if (!rule.filter) return false;
        if (exception.domains.empty()) {
            rule.filter.reset();  // hidden nowhere
            return true;
        }
        std::vector<std::string> listed;
        if (rule.domains) {
            for (std::string_view entry : split(*rule.domains, ',')) {
                listed.emplace_back(entry.substr(1));  // without the "*"
            }
        }
        auto joinWithStars = [](const std::vector<std::string>& domains) {
            std::string joined;
            for (const std::string& domain : domains) {
                if (!joined.empty()) joined.push_back(',');
                joined.push_back('*');
                joined.append(domain);
            }
            return joined;
        };
        if (rule.domainType == DomainTypeCode::kIfTopURL) {
            const size_t before = listed.size();
            std::erase_if(listed, [&](const std::string& domain) {
                return std::any_of(
                    exception.domains.begin(), exception.domains.end(),
                    [&](const std::string& out) { return isSameOrSubdomain(domain, out); });
            });
            if (listed.size() == before) return false;
            if (listed.empty()) {
                rule.filter.reset();
            } else {
                rule.domains = joinWithStars(listed);
            }
            return true;
        }
        // Everywhere, or everywhere but some sites: add the exception's sites.
        for (const std::string& domain : exception.domains) {
            if (std::find(listed.begin(), listed.end(), domain) == listed.end()) {
                listed.push_back(domain);
            }
        }
        rule.domains = joinWithStars(listed);
        rule.domainType = DomainTypeCode::kUnlessTopURL;
        return true;
    }

    int64_t blocker_;
    FilterListImport result_;
    std::vector<ProfileRule> rules_;
    std::unordered_map<std::string, std::vector<size_t>> hideRules_;
    std::vector<HideException> exceptions_;
};

bool looksLikeHostsLine(std::string_view line) {
    for (std::string_view address : {"0.0.0.0", "127.0.0.1", "::1", "::"}) {
        if (startsWith(line, address) && line.size() > address.size() &&
            isBlank(line[address.size()])) {
            return true;
        }
    }
    return false;
}

template <typename Visit>
void forEachLine(std::string_view text, Visit&& visit) {
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        visit(text.substr(start, end - start));
        start = end + 1;
    }
}

}  // namespace

int64_t FilterListImport::skippedCount() const {
    int64_t total = 0;
    for (const auto& [reason, count] : skipped) total += count;
    return total;
}

std::optional<std::string> FilterListParser::checkFormat(std::string_view text) {
    constexpr const char* kNotText = "is not a text file (binary data or not UTF-8)";
    if (text.find('\0') != std::string_view::npos) return kNotText;
    // Text with a few lines in another encoding (a Latin-1 selector) is read
    // without those lines; when they are half the rule lines or more, the
    // file is taken for binary data.
    const bool allUTF8 = unicode::isValidUTF8(text);
    if (startsWith(text, "\xEF\xBB\xBF")) text.remove_prefix(3);
    const std::string_view start = trimmed(text.substr(0, 256));
    if (startsWith(start, "{") ||
        (startsWith(start, "[") && !startsWith(start, "[Adblock") &&
         !startsWith(start, "[uBlock") && !startsWith(start, "[AdGuard"))) {
        return "is JSON (a content-blocker rule list?), not an adblock filter list";
    }
    int64_t ruleLines = 0, hostsLines = 0, invalidLines = 0;
    forEachLine(text, [&](std::string_view line) {
        line = trimmed(line);
        // "#" starts a comment in hosts files, and an element-hiding rule
        // ("##.ad") here.
        const bool hashComment =
            !line.empty() && line.front() == '#' && findCosmeticMarker(line).position != 0;
        if (line.empty() || line.front() == '!' || hashComment ||
            (line.front() == '[' && line.back() == ']')) {
            return;
        }
        ++ruleLines;
        if (!allUTF8 && !unicode::isValidUTF8(line)) ++invalidLines;
        if (looksLikeHostsLine(line)) ++hostsLines;
    });
    if (invalidLines > 0 && invalidLines * 2 >= ruleLines) return kNotText;
    if (ruleLines == 0) return "holds no filter rules (only comments or blank lines)";
    if (hostsLines * 2 > ruleLines) {
        return "is a hosts file (\"0.0.0.0 host\" lines), not an adblock filter list";
    }
    return std::nullopt;
}

FilterListImport FilterListParser::parse(std::string_view text, int64_t blocker) {
    if (startsWith(text, "\xEF\xBB\xBF")) text.remove_prefix(3);
    Parser parser(blocker);
    forEachLine(text, [&](std::string_view line) { parser.line(line); });
    return parser.finish();
}

int64_t FilterListParser::updateIntervalSeconds(std::string_view text) {
    // Only the header: the comments before the first rule line.
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(start, end - start);
        start = end + 1;
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.remove_suffix(1);
        if (line.empty() || line.starts_with("[")) continue;
        if (!line.starts_with("!")) break;
        line.remove_prefix(1);
        while (!line.empty() && line.front() == ' ') line.remove_prefix(1);
        constexpr std::string_view kExpires = "expires:";
        if (line.size() < kExpires.size()) continue;
        bool matches = true;
        for (size_t i = 0; i < kExpires.size(); ++i) {
            const char c = line[i];
            matches &= (c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c) == kExpires[i];
        }
        if (!matches) continue;
        line.remove_prefix(kExpires.size());
        while (!line.empty() && line.front() == ' ') line.remove_prefix(1);
        int64_t count = 0;
        size_t digits = 0;
        while (digits < line.size() && digits < 6 && line[digits] >= '0' && line[digits] <= '9') {
            count = count * 10 + (line[digits] - '0');
            ++digits;
        }
        if (digits == 0) break;
        line.remove_prefix(digits);
        while (!line.empty() && line.front() == ' ') line.remove_prefix(1);
        int64_t unit = 24 * 3600;  // a bare number counts days
        if (line.starts_with("h")) {
            unit = 3600;
        } else if (!line.empty() && !line.starts_with("d") && !line.starts_with("(")) {
            break;
        }
        return std::clamp(count * unit, kMinimumUpdateInterval, kMaximumUpdateInterval);
    }
    return kDefaultUpdateInterval;
}

}  // namespace stonewall
