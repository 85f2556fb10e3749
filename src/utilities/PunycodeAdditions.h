#pragma once

// Host names, URLs and rule text: Punycode and IDNA conversion, URL splitting,
// validation of user input, escaping for URL-filter patterns.
//
// All functions take UTF-8 text. Text that is not valid UTF-8 gives the
// nil/empty/false result of the function (std::nullopt, "", false): it is
// treated like a string that could not be made at all.

#include <optional>
#include <string>
#include <string_view>

#include "utilities/AttributedString.h"
#include "utilities/Nullable.h"

namespace stonewall::PunycodeAdditions {

// --- Punycode and IDNA -------------------------------------------------------

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

// The parts of a URL; username, password and fragment only when found.
struct URLPartsDictionary {
    std::string scheme;
    std::string delim;
    std::string host;
    std::string path;
    NullableString username;
    NullableString password;
    NullableString fragment;

    bool operator==(const URLPartsDictionary&) const = default;
};
URLPartsDictionary URLParts(std::string_view url);
std::string encodedURLString(std::string_view url);
std::string decodedURLString(std::string_view url);

// The URL that encodedURLString of the text parses to (its absolute string),
// or std::nullopt when it does not parse as a URL.
std::optional<std::string> URLWithUnicodeString(std::string_view text);

// --- Validation and URL helpers ---------------------------------------------

std::string cleansedString(std::string_view text);
std::string trim(std::string_view text);
std::string removeCommas(std::string_view text);
// True when the text does not compile as an ICU regular expression with the
// case-insensitive flag. Expressions longer than 32768 UTF-16 units count as
// invalid without compiling: ICU's compiler is quadratic in their length.
bool checkInvalidRegularExpression(std::string_view text);
bool checkHasInvalidCharacters(std::string_view text);
bool checkHasPipe(std::string_view text);
bool checkHasSpaces(std::string_view text);
bool checkAscii(std::string_view text);
bool checkHasInvalidDomainCharacters(std::string_view text);
bool checkValidDomain(std::string_view text);

// Host and scheme of the text taken as a URL (after IDNA encoding, so the
// host comes back in its "xn--" form); std::nullopt when it does not parse.
NullableString hostFromURL(std::string_view url);
NullableString schemeFromURL(std::string_view url);
// "%@://%@" of scheme and host, a missing part written as "(null)".
std::string schemeAndHostFromURL(std::string_view url);

// Any script to Latin, without combining marks and diacritics. Text is
// transliterated in pieces that end at white space; a run of more than 4096
// UTF-16 units without any is cut at a character boundary, where rules that
// look at the neighbouring letter may read differently.
std::string normalizeString(std::string_view text);

// ".", "?", "^", "+" and "|" each preceded by a backslash; nothing else.
std::string escapeData(std::string_view text);

// --- Styled text -------------------------------------------------------------

AttributedString messageAttributedString(std::string_view text, double lineHeightMultiple);
AttributedString formattedAttributedString(std::string_view text, double lineHeightMultiple);
AttributedString buttonAttributedTitle(const AttributedString& title);
AttributedString createButtonAttributedString(std::string_view text, const Color& color,
                                              const Font& font);
AttributedString hyperlinkFromString(std::string_view text, std::string_view url);

}  // namespace stonewall::PunycodeAdditions
