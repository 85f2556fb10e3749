#pragma once

// Cleaning and validation of user and page text, and escaping for URL-filter
// patterns.
//
// All functions take UTF-8 text. Text that is not valid UTF-8 gives the
// empty/false result of the function: it is treated like a string that could
// not be made at all.

#include <string>
#include <string_view>

namespace stonewall::PunycodeAdditions {

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

// Any script to Latin, without combining marks and diacritics. Text is
// transliterated in pieces that end at white space; a run of more than 4096
// UTF-16 units without any is cut at a character boundary, where rules that
// look at the neighbouring letter may read differently.
std::string normalizeString(std::string_view text);

// ".", "?", "^", "+" and "|" each preceded by a backslash; nothing else.
std::string escapeData(std::string_view text);

}  // namespace stonewall::PunycodeAdditions
