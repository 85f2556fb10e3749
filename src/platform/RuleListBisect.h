#pragma once

// Finding the rule that makes WebKit reject a whole content-blocker list.
// WebKit refuses a list for a single bad rule and does not say which one, so
// we compile prefixes of the list: a prefix that contains the bad rule fails,
// one that stops before it passes, and the smallest failing prefix ends with
// the culprit. Binary search over the prefix length needs O(log n) compiles.
//
// WebKit also refuses a list with no usable rule ("Empty extension."), the
// empty prefix included. That verdict says nothing against the rules read so
// far, so a prefix refused with exactly the empty list's error counts as
// passing; a whole list refused with it has no rule to blame.

#include <cstddef>
#include <functional>
#include <optional>
#include <vector>

#include "platform/Error.h"

namespace stonewall::platform {

// Compiles the first `count` rules of the list; no error when WebKit accepts.
using PrefixCompiler = std::function<std::optional<Error>(size_t count)>;

struct RejectedRule {
    // Index (from 0) of the first rule WebKit rejects; absent when no single
    // rule is to blame (the list is empty, or has no usable rule at all).
    std::optional<size_t> index;
    // WebKit's verdict on the smallest failing prefix (for a bad rule this
    // names the rule's fault, where the whole list's message may name a later one).
    Error error;
    size_t compiles = 0;
};

// Precondition: the whole list of `ruleCount` rules was rejected with
// `fullListError`; `emptyListError` is WebKit's verdict on an empty list
// (absent if WebKit accepts one). Assumes that a list that passes still
// passes when shortened. Never compiles the whole list or the empty one again.
RejectedRule findFirstRejectedRule(size_t ruleCount, const Error& fullListError,
                                   const std::optional<Error>& emptyListError,
                                   const PrefixCompiler& compilePrefix);

// A list that one bad rule would make WebKit refuse as a whole is loaded
// without that rule instead: the user loses one rule, not all of them.

// Compiles the rules at the given indexes (ascending) as one list.
using RuleSubsetCompiler = std::function<std::optional<Error>(const std::vector<size_t>& indexes)>;

struct DroppedRule {
    size_t index;  // in the whole list, from 0
    Error error;   // WebKit's verdict that blames it
};

struct RuleListRepair {
    std::vector<size_t> kept;          // the rules of the list WebKit accepted
    std::vector<DroppedRule> dropped;  // in list order
    // Set when no accepted list was found: no single rule to blame, or more
    // than the allowed number of bad rules.
    std::optional<Error> error;
};

// Precondition as findFirstRejectedRule: the whole list was rejected with
// `fullListError`. Drops the first rejected rule and tries again, at most
// `maximumDrops` times; each round costs O(log n) compiles. When every rule
// is dropped, `kept` is empty and no error is set: the caller says what an
// empty list stands for.
RuleListRepair dropRejectedRules(size_t ruleCount, const Error& fullListError,
                                 const std::optional<Error>& emptyListError,
                                 const RuleSubsetCompiler& compile, size_t maximumDrops);

}  // namespace stonewall::platform
