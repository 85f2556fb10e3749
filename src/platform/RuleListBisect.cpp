#include "RuleListBisect.h"

namespace stonewall::tool {

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

}  // namespace stonewall::tool
