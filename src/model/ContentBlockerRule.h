#pragma once

// The browser's content-blocker rule object: exactly the two dictionaries
// "action" and "trigger". A typed value, so that the compiler's hot path never
// builds a generic JSON tree; written with a streaming writer.

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "utilities/Nullable.h"

namespace stonewall {

struct ContentBlockerAction {
    NullableString type;      // "type"
    NullableString selector;  // "selector"
    bool operator==(const ContentBlockerAction&) const = default;
};

struct ContentBlockerTrigger {
    NullableString urlFilter;                              // "url-filter"
    bool urlFilterIsCaseSensitive = false;                 // written only when true
    std::optional<std::vector<std::string>> resourceType;  // "resource-type"
    std::optional<std::vector<std::string>> loadType;      // "load-type"
    std::optional<std::vector<std::string>> ifTopURL;      // "if-top-url"
    std::optional<std::vector<std::string>> unlessTopURL;  // "unless-top-url"
    std::optional<std::vector<std::string>> ifDomain;      // "if-domain"
    std::optional<std::vector<std::string>> unlessDomain;  // "unless-domain"
    bool operator==(const ContentBlockerTrigger&) const = default;
};

struct ContentBlockerRule {
    ContentBlockerAction action;
    ContentBlockerTrigger trigger;

    bool operator==(const ContentBlockerRule&) const = default;

    // Appends the compact JSON object to out.
    void appendJSON(std::string& out) const;
    std::string toJSON() const;

    // Reads a rule object from JSON text. Keys of the wrong type, unknown keys
    // and a non-object input are ignored (the field stays absent); never throws.
    static ContentBlockerRule fromJSON(std::string_view json);
};

// Writes a list of rules as one compact JSON array into a buffer: a growing
// one that holds the whole list, or, with a flush function, one that is
// handed on and emptied whenever it holds flushBytes, so that a list of any
// length costs one small buffer.
class ContentBlockerRuleListWriter {
  public:
    using Flush = std::function<void(std::string_view)>;

    explicit ContentBlockerRuleListWriter(std::string& out);
    ContentBlockerRuleListWriter(std::string& out, Flush flush, size_t flushBytes);
    void add(const ContentBlockerRule& rule);
    // Closes the array; the buffer then holds the whole list (or the rest of
    // it has gone to the flush function).
    void finish();
    size_t count() const { return count_; }

  private:
    std::string& out_;
    Flush flush_;
    size_t flushBytes_ = 0;
    size_t count_ = 0;
    bool finished_ = false;
};

}  // namespace stonewall
