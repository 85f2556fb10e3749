#include <gtest/gtest.h>

#include "utilities/Unicode.h"

using namespace stonewall;

namespace {

// Every sequence is also tried behind 0 to 16 ASCII bytes and before 9, so
// that it falls at each offset of the eight-byte ASCII skip and after it.
TEST(Unicode, UTF8ValidationTable) {
    const std::pair<std::string, bool> cases[] = {
        {"", true},
        {"a", true},
        {std::string("a\0b", 3), true},  // NUL is a character
        {"\x7F", true},                  // U+007F, last one-byte form
        {"\xC2\x80", true},              // U+0080, first two-byte form
        {"caf\xC3\xA9", true},           // é
        {"\xDF\xBF", true},              // U+07FF
        {"\xE0\xA0\x80", true},          // U+0800, first three-byte form
        {"\xE2\x82\xAC", true},          // €
        {"\xED\x9F\xBF", true},          // U+D7FF, below the surrogates
        {"\xEE\x80\x80", true},          // U+E000, above them
        {"\xEF\xBF\xBF", true},          // U+FFFF
        {"\xF0\x90\x80\x80", true},      // U+10000, first four-byte form
        {"\xF0\x9F\x98\x80", true},      // 😀
        {"\xF4\x8F\xBF\xBF", true},      // U+10FFFF, the last code point
        {"\xED\xA0\x80", false},         // surrogate U+D800
        {"\xED\xBF\xBF", false},         // surrogate U+DFFF
        {"\xC0\x80", false},             // overlong NUL
        {"\xC1\xBF", false},             // overlong U+007F
        {"\xE0\x80\x80", false},         // overlong three-byte
        {"\xE0\x9F\xBF", false},         // overlong U+07FF
        {"\xF0\x80\x80\x80", false},     // overlong four-byte
        {"\xF0\x8F\xBF\xBF", false},     // overlong U+FFFF
        {"\xF4\x90\x80\x80", false},     // U+110000
        {"\xF5\x80\x80\x80", false},
        {"\xF8\x88\x80\x80\x80", false},
        {"\xFE", false},
        {"\xFF", false},
        {"\x80", false},          // lone continuation
        {"\xBF\xBF", false},      // continuations only
        {"\xC3", false},          // truncated two-byte
        {"\xE2\x82", false},      // truncated three-byte
        {"\xF0\x9F\x98", false},  // truncated four-byte
        {"\xC3\x28", false},      // ASCII where a continuation belongs
        {"\xE2\x28\xAC", false},
        {"\xF0\x9F\xC3\xA9", false},  // a lead where a continuation belongs
    };
    for (const auto& [bytes, valid] : cases) {
        SCOPED_TRACE(::testing::PrintToString(bytes));
        EXPECT_EQ(unicode::decodeUTF8(bytes).has_value(), valid);
        for (size_t before = 0; before <= 16; ++before) {
            const std::string padded = std::string(before, 'x') + bytes + "012345678";
            EXPECT_EQ(unicode::isValidUTF8(padded), valid) << before << " bytes before";
        }
        EXPECT_EQ(unicode::isValidUTF8(bytes), valid);
    }
}

}  // namespace
