#pragma once

// Punycode (RFC 3492) for single labels, and IDNA label by label for whole
// host names and e-mail-like strings.
//
// All functions take UTF-8 text. Text that is not valid UTF-8 gives the
// nil/empty result of the function (std::nullopt, ""): it is treated like a
// string that could not be made at all.

#include <optional>
#include <string>
#include <string_view>

namespace stonewall::PunycodeAdditions {

// The text as Unicode code points (its "UTF-32" form); the count is size().
std::u32string longCharactersWithCount(std::string_view text);
std::string stringByDeletingIgnoredCharacters(std::string_view text);

// One label, without the "xn--" prefix. std::nullopt on overflow / bad input.
std::optional<std::string> punycodeEncodedString(std::string_view label);
std::optional<std::string> punycodeDecodedString(std::string_view label);

// Whole host names or e-mail-like strings, label by label. The plain-ASCII
// case costs about a copy: the rule compiler calls this for every domain.
std::string IDNAEncodedString(std::string_view text);
std::string IDNADecodedString(std::string_view text);

}  // namespace stonewall::PunycodeAdditions
