#pragma once

// Custom rules: picked page elements -> hide and block rules, and the storing
// of every custom rule (picked elements and website choices) under the active
// profile.
//
// Threads: used by one thread at a time, as the CompanionController that
// owns it. Every operation runs synchronously and calls its completion
// handler before returning.

#include <optional>
#include <vector>

#include "engine/CompanionState.h"
#include "engine/DataElement.h"
#include "model/SharedCustomRule.h"
#include "platform/Error.h"
#include "utilities/Nullable.h"

namespace stonewall {

class CustomRules {
  public:
    // The state stays the caller's and must outlive this object.
    explicit CustomRules(CompanionState& state) : state_(state) {}
    CustomRules(const CustomRules&) = delete;
    CustomRules& operator=(const CustomRules&) = delete;

    // One rule per usable element, in order; stores them, posts the update
    // notification and calls the handler (no error) before returning.
    void createVisualCustomRules(const std::vector<DataElement>& elements,
                                 CompletionHandler completionHandler);
    // A hide rule for ordinary elements, a block rule for media elements with
    // a usable source, none otherwise.
    [[nodiscard]] static std::optional<SharedCustomRule> createVisualCustomRule(
        const NullableString& host, const DataElement& dataElement);
    [[nodiscard]] static SharedCustomRule hideCustomRule(const NullableString& host,
                                                         const NullableString& selector);
    [[nodiscard]] static SharedCustomRule blockCustomRule(const NullableString& host,
                                                          const NullableString& escapedURL,
                                                          const NullableString& filterDomain);
    static NullableString escapeData(const NullableString& text);
    static NullableString unescapeData(const NullableString& text);
    // True for the media and image tags "img", "video", "audio", "embed",
    // "object" (exact comparison).
    static bool checkTagSource(const NullableString& tag);
    static NullableString getElementSource(const NullableString& elementSource,
                                           const NullableString& elementCurrentSource);

    // Stores custom rules under the active profile: the shared rules in the
    // shared database, their profile rules in the active database, website
    // rules as the domain status of their list says.
    void processCustomRules(std::vector<SharedCustomRule> rules);

  private:
    CompanionState& state_;
};

}  // namespace stonewall
