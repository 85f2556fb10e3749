#include "model/ContentBlockerRule.h"

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <utility>

#include "model/RuleText.h"

namespace stonewall {

namespace {

// Bytes that cannot be copied into a JSON string as they stand: control
// characters, the quote, the backslash and every non-ASCII byte (checked as
// part of a UTF-8 sequence). Everything else goes out in bulk.
constexpr std::array<bool, 256> makeSpecialByteTable() {
    std::array<bool, 256> table{};
    for (int c = 0; c < 0x20; ++c) table[c] = true;
    for (int c = 0x80; c < 0x100; ++c) table[c] = true;
    table['"'] = true;
    table['\\'] = true;
    return table;
}
constexpr std::array<bool, 256> kSpecialByte = makeSpecialByteTable();

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";

bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Length of the well-formed UTF-8 sequence at text[0], or 0 when it is not
// one; then `invalid` is the length of its maximal ill-formed subpart (the
// bytes that one U+FFFD replaces, as Unicode recommends), at least 1.
size_t utf8SequenceLength(std::string_view text, size_t& invalid) {
    const auto lead = static_cast<unsigned char>(text[0]);
    size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // the range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0)
            low = 0xA0;  // overlong
        else if (lead == 0xED)
            high = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0)
            low = 0x90;  // overlong
        else if (lead == 0xF4)
            high = 0x8F;  // beyond U+10FFFF
    } else {
        invalid = 1;
        return 0;
    }
    size_t i = 1;
    for (; i < length && i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const bool ok = i == 1 ? (byte >= low && byte <= high) : isContinuation(byte);
        if (!ok) break;
    }
    if (i == length) return length;
    invalid = i;
    return 0;
}

void appendJSONString(std::string& out, std::string_view text) {
    static constexpr char kHex[] = "0123456789abcdef";
    out.push_back('"');
    size_t i = 0;
    while (i < text.size()) {
        size_t run = i;
        while (run < text.size() && !kSpecialByte[static_cast<unsigned char>(text[run])]) ++run;
        out.append(text.data() + i, run - i);
        i = run;
        if (i == text.size()) break;

        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte >= 0x80) {
            size_t invalid = 0;
            const size_t length = utf8SequenceLength(text.substr(i), invalid);
            if (length) {
                out.append(text.data() + i, length);
                i += length;
            } else {
                out += kReplacementCharacter;
                i += invalid;
            }
            continue;
        }
        switch (byte) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\b':
                out += "\\b";
                break;
            case '\f':
                out += "\\f";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default: {
                const char escape[] = {'\\', 'u', '0', '0', kHex[byte >> 4], kHex[byte & 0xF]};
                out.append(escape, sizeof escape);
            }
        }
        ++i;
    }
    out.push_back('"');
}

// Writes `,"key":` before every member but the first of an object.
class ObjectWriter {
  public:
    explicit ObjectWriter(std::string& out) : out_(out) { out_.push_back('{'); }
    void key(std::string_view name) {
        if (!first_) out_.push_back(',');
        first_ = false;
        out_.push_back('"');
        out_ += name;  // every key is a fixed ASCII literal: no escaping needed
        out_ += "\":";
    }
    void string(std::string_view name, const NullableString& value) {
        if (!value) return;
        key(name);
        appendJSONString(out_, *value);
    }
    void array(std::string_view name, const std::optional<std::vector<std::string>>& values) {
        if (!values) return;
        key(name);
        out_.push_back('[');
        for (size_t i = 0; i < values->size(); ++i) {
            if (i) out_.push_back(',');
            appendJSONString(out_, (*values)[i]);
        }
        out_.push_back(']');
    }
    void close() { out_.push_back('}'); }

  private:
    std::string& out_;
    bool first_ = true;
};

using Json = nlohmann::json;

const Json* member(const Json& object, const char* key) {
    const auto found = object.find(key);
    return found == object.end() ? nullptr : &*found;
}

NullableString readString(const Json& object, const char* key) {
    const Json* value = member(object, key);
    if (!value || !value->is_string()) return std::nullopt;
    return value->get_ref<const Json::string_t&>();
}

// A list whose value is not an array stays absent; members that are not
// strings are skipped, so ["image", 3, "media"] reads as ["image", "media"].
std::optional<std::vector<std::string>> readStringArray(const Json& object, const char* key) {
    const Json* value = member(object, key);
    if (!value || !value->is_array()) return std::nullopt;
    std::vector<std::string> strings;
    strings.reserve(value->size());
    for (const Json& entry : *value) {
        if (entry.is_string()) strings.push_back(entry.get_ref<const Json::string_t&>());
    }
    return strings;
}

// The integer value of the flag, as the product's other programs read it:
// true, a non-zero number, or text whose integer value is non-zero.
bool readFlag(const Json& object, const char* key) {
    const Json* value = member(object, key);
    if (!value) return false;
    if (value->is_boolean()) return value->get<bool>();
    if (value->is_number_integer()) return value->get<int64_t>() != 0;
    if (value->is_number_float()) {
        // Truncation towards zero, as an integer reading of 0.5 gives 0.
        const double number = value->get<double>();
        return number >= 1.0 || number <= -1.0;
    }
    if (value->is_string())
        return RuleText::integerValue(value->get_ref<const Json::string_t&>()) != 0;
    return false;
}

}  // namespace

void ContentBlockerRule::appendJSON(std::string& out) const {
    out += "{\"action\":";
    ObjectWriter actionWriter(out);
    actionWriter.string("type", action.type);
    actionWriter.string("selector", action.selector);
    actionWriter.close();

    out += ",\"trigger\":";
    ObjectWriter triggerWriter(out);
    triggerWriter.string("url-filter", trigger.urlFilter);
    if (trigger.urlFilterIsCaseSensitive) {
        triggerWriter.key("url-filter-is-case-sensitive");
        out += "true";
    }
    triggerWriter.array("resource-type", trigger.resourceType);
    triggerWriter.array("load-type", trigger.loadType);
    triggerWriter.array("if-top-url", trigger.ifTopURL);
    triggerWriter.array("unless-top-url", trigger.unlessTopURL);
    triggerWriter.array("if-domain", trigger.ifDomain);
    triggerWriter.array("unless-domain", trigger.unlessDomain);
    triggerWriter.close();
    out.push_back('}');
}

std::string ContentBlockerRule::toJSON() const {
    std::string out;
    out.reserve(128);
    appendJSON(out);
    return out;
}

ContentBlockerRule ContentBlockerRule::fromJSON(std::string_view json) {
    ContentBlockerRule rule;
    // Outside text: a parse error gives the empty rule, wrong types leave
    // their fields absent, and nothing (running out of memory included)
    // escapes as an exception.
    try {
        const Json root = Json::parse(json.begin(), json.end(), /*cb=*/nullptr,
                                      /*allow_exceptions=*/false);
        if (!root.is_object()) return rule;
        if (const Json* action = member(root, "action"); action && action->is_object()) {
            rule.action.type = readString(*action, "type");
            rule.action.selector = readString(*action, "selector");
        }
        if (const Json* trigger = member(root, "trigger"); trigger && trigger->is_object()) {
            ContentBlockerTrigger& t = rule.trigger;
            t.urlFilter = readString(*trigger, "url-filter");
            t.urlFilterIsCaseSensitive = readFlag(*trigger, "url-filter-is-case-sensitive");
            t.resourceType = readStringArray(*trigger, "resource-type");
            t.loadType = readStringArray(*trigger, "load-type");
            t.ifTopURL = readStringArray(*trigger, "if-top-url");
            t.unlessTopURL = readStringArray(*trigger, "unless-top-url");
            t.ifDomain = readStringArray(*trigger, "if-domain");
            t.unlessDomain = readStringArray(*trigger, "unless-domain");
        }
    } catch (...) {
        return ContentBlockerRule{};
    }
    return rule;
}

ContentBlockerRuleListWriter::ContentBlockerRuleListWriter(std::string& out) : out_(out) {
    out_.push_back('[');
}

ContentBlockerRuleListWriter::ContentBlockerRuleListWriter(std::string& out, Flush flush,
                                                           size_t flushBytes)
    : out_(out), flush_(std::move(flush)), flushBytes_(flushBytes) {
    out_.push_back('[');
}

void ContentBlockerRuleListWriter::add(const ContentBlockerRule& rule) {
    // After finish() the list is closed; adding more would break the JSON.
    if (finished_) return;
    if (count_) out_.push_back(',');
    rule.appendJSON(out_);
    ++count_;
    if (flush_ && out_.size() >= flushBytes_) {
        flush_(out_);
        out_.clear();
    }
}

void ContentBlockerRuleListWriter::finish() {
    if (finished_) return;
    out_.push_back(']');
    finished_ = true;
    if (flush_) {
        flush_(out_);
        out_.clear();
    }
}

}  // namespace stonewall
