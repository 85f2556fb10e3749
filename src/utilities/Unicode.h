#pragma once

// UTF-8 checks and UTF-8 <-> code point conversions. isValidUTF8 is the one
// check of the program: storage, the filter-list reader and the command line
// use it too.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace stonewall::unicode {

// The code points of valid UTF-8; std::nullopt for invalid UTF-8 (overlong
// forms, surrogates, values above U+10FFFF, truncated sequences).
std::optional<std::u32string> decodeUTF8(std::string_view text);
// Whether decodeUTF8 would succeed (RFC 3629), without decoding: ASCII is
// checked eight bytes at a time.
[[nodiscard]] bool isValidUTF8(std::string_view text);
void appendUTF8(std::string& out, char32_t codePoint);
std::string encodeUTF8(std::u32string_view codePoints);

// The length of a code point in UTF-16 units.
inline size_t utf16Length(char32_t c) { return c > 0xFFFF ? 2 : 1; }

// White space and line breaks as the scanner of host names skips them:
// Unicode general category Z*, tab, U+000A..U+000D and U+0085.
bool isWhitespaceOrNewline(char32_t c);
// White space without line breaks: category Zs and tab.
bool isWhitespace(char32_t c);

// NFKC of valid UTF-8 (the input must be valid).
std::u32string nfkc(std::u32string_view codePoints);

}  // namespace stonewall::unicode
