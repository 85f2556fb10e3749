#include "platform/RuleListBisect.h"

#include <string>
#include <utility>

namespace stonewall::platform {

RejectedRule findFirstRejectedRule(size_t ruleCount, const Error& fullListError,
                                   const std::optional<Error>& emptyListError,
                                   const PrefixCompiler& compilePrefix) {
    RejectedRule result;
    result.error = fullListError;
    if (ruleCount == 0 || fullListError == emptyListError) return result;

    // Invariant: the prefix of `failing` rules fails (with result.error), the
    // prefix of `passing` rules passes (the empty one by definition).
    size_t passing = 0;
    size_t failing = ruleCount;
    while (failing - passing > 1) {
        const size_t middle = passing + (failing - passing) / 2;
        ++result.compiles;
        std::optional<Error> error = compilePrefix(middle);
        if (error && error != emptyListError) {
            failing = middle;
            result.error = std::move(*error);
        } else {
            passing = middle;
        }
    }
    result.index = failing - 1;
    return result;
}

RuleListRepair dropRejectedRules(size_t ruleCount, const Error& fullListError,
                                 const std::optional<Error>& emptyListError,
                                 const RuleSubsetCompiler& compile, size_t maximumDrops) {
    RuleListRepair repair;
    repair.kept.reserve(ruleCount);
    for (size_t index = 0; index < ruleCount; ++index) repair.kept.push_back(index);
    Error verdict = fullListError;
    while (true) {
        const RejectedRule rejected =
            findFirstRejectedRule(repair.kept.size(), verdict, emptyListError, [&](size_t count) {
                return compile(std::vector<size_t>(repair.kept.begin(),
                                                   repair.kept.begin() + static_cast<long>(count)));
            });
        if (!rejected.index) {
            repair.error = verdict;
            return repair;
        }
        if (repair.dropped.size() == maximumDrops) {
            repair.error = Error{verdict.domain, verdict.code,
                                 "more than " + std::to_string(maximumDrops) +
                                     " rules rejected; the last: " + rejected.error.message};
            return repair;
        }
        repair.dropped.push_back(DroppedRule{repair.kept[*rejected.index], rejected.error});
        repair.kept.erase(repair.kept.begin() + static_cast<long>(*rejected.index));
        // Nothing left: every rule was rejected and dropped; the caller
        // decides what an empty list stands for.
        if (repair.kept.empty()) return repair;
        std::optional<Error> next = compile(repair.kept);
        if (!next) return repair;
        verdict = std::move(*next);
        if (verdict == emptyListError) {
            repair.error = verdict;
            return repair;
        }
    }
}

}  // namespace stonewall::platform
