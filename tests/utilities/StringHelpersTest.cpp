#include <gtest/gtest.h>

#include "utilities/PunycodeAdditions.h"

using namespace stonewall;
using namespace stonewall::PunycodeAdditions;

namespace {

std::string repeat(std::string_view unit, size_t count) {
    std::string out;
    for (size_t i = 0; i < count; ++i) out += unit;
    return out;
}

TEST(CleansedString, CutsAt1002Utf16UnitsThenFoldsLineBreakRuns) {
    const std::string emoji = "\U0001F600";  // one code point, two UTF-16 units
    const std::pair<std::string, std::string> cases[] = {
        {repeat("a", 1001), repeat("a", 1001)},
        {repeat("a", 1002), repeat("a", 1000)},
        {repeat("a", 5000000), repeat("a", 1000)},
        // Counting is in UTF-16 units, not bytes or code points.
        {repeat("ü", 1001), repeat("ü", 1001)},
        {repeat("ü", 1002), repeat("ü", 1000)},
        {repeat("a", 999) + emoji, repeat("a", 999) + emoji},              // 1001 units
        {repeat("a", 998) + emoji + "b", repeat("a", 998) + emoji + "b"},  // 1001 units
        {repeat("a", 1000) + emoji, repeat("a", 1000)},                    // 1002 units
        {repeat(emoji, 501), repeat(emoji, 500)},                          // 1002 units
        // The pair straddles unit 1000: it goes whole rather than in half.
        {repeat("a", 999) + emoji + "b", repeat("a", 999)},
        // The cut comes before the folding of line breaks.
        {repeat("a", 998) + "\n\nb", repeat("a", 998) + " b"},
        {repeat("a", 999) + "\n\nb", repeat("a", 999)},
        {repeat("a", 1000) + "\nb", repeat("a", 1000)},
        {"a\r\nb", "a b"},
        {"\n\nstart and end\t\n", "start and end"},
        {"a\u2028\u2029\u0085b", "a b"},
        {"a  b", "a  b"},  // blanks are not collapsed
        {"", ""},
        {"\r\n\r\n", ""},
        {"a\fb\tc\rd", "a b c d"},
        {"a \n b", "a   b"},       // the run is the break alone; the blanks stay
        {"a\u000Bb", "a\u000Bb"},  // vertical tab is not in the set
    };
    for (const auto& [input, expected] : cases)
        EXPECT_TRUE(cleansedString(input) == expected) << input.substr(0, 20) << input.size();
}

TEST(StringHelpers, DomainTable) {
    const std::pair<std::string, bool> cases[] = {
        {"example.com", true},
        {"com", false},
        {"a..b", false},
        {".example.com", false},
        {"example.com.", false},
        {"*.example.com", false},
        {"a.b.c.d.e.f.g", true},
        {"a.b.c.d.e.f.g.h", false},
        {std::string(100, 'x') + ".com", true},
        {std::string(101, 'x') + ".com", false},
        {std::string(100, 'x') + "." + std::string(100, 'y'), true},
        {repeat("ü", 100) + ".de", true},           // 100 UTF-16 units, 200 bytes
        {repeat("\U0001F600", 50) + ".de", true},   // 100 units
        {repeat("\U0001F600", 51) + ".de", false},  // 102 units
        {"exa mple.com", false},
        {"ex;ample.com", false},
        {"example.com/path?x", true},
        {"example.com\t", true},  // only the blank splits
        {"under_score.com", true},
        {"bücher.de", true},
        {"", false},
        {".", false},
    };
    for (const auto& [input, expected] : cases)
        EXPECT_EQ(checkValidDomain(input), expected) << input;
}

TEST(StringHelpers, RegularExpressionTable) {
    const std::pair<std::string, bool> cases[] = {
        {"[a-z", true},
        {"ab|cd", false},
        {"", false},
        {"(", true},
        {"a)", true},
        {"*a", true},
        {"a{2,1}", true},
        {"\\", true},
        {"(?<name>x)\\k<name>", false},
        {"^https?://([a-z0-9-]+\\.)*example\\.com/", false},
        {"[[:alpha:]]+", false},
        {"\\p{Latin}+", false},
        {"\\p{NoSuchProperty}", true},
        {std::string(32768, 'a'), false},
        {std::string(32769, 'a'), true},  // refused without compiling
        {repeat("(a*)+", 200000), true},  // a megabyte: compiled, it would take minutes
    };
    for (const auto& [input, invalid] : cases)
        EXPECT_EQ(checkInvalidRegularExpression(input), invalid) << input.substr(0, 40);
}

TEST(StringHelpers, CharacterChecksAndTransforms) {
    EXPECT_TRUE(checkHasPipe("ab|cd"));
    EXPECT_TRUE(checkHasInvalidCharacters("ab|cd"));
    EXPECT_FALSE(checkHasInvalidCharacters("abc;"));
    EXPECT_TRUE(checkHasInvalidDomainCharacters("abc;"));
    EXPECT_TRUE(checkHasSpaces("a\u00A0b"));
    EXPECT_FALSE(checkHasSpaces("a\nb"));
    EXPECT_TRUE(checkAscii("plain"));
    EXPECT_FALSE(checkAscii("plä"));
    EXPECT_EQ(removeCommas("a,b"), "a b");
    EXPECT_EQ(trim(" \n a b \t"), "a b");
    // Escaping touches exactly . ? ^ + | and never doubles a backslash.
    const std::pair<const char*, const char*> escapes[] = {
        {"ads.example.com/*?x", "ads\\.example\\.com/*\\?x"},
        {"^a+b|c$[()]\\", "\\^a\\+b\\|c$[()]\\"},
        {"\\.", "\\\\."},
        {"bücher.de", "bücher\\.de"},
    };
    for (const auto& [input, expected] : escapes) EXPECT_EQ(escapeData(input), expected);
}

TEST(StringHelpers, NormalizesLongTextInPieces) {
    EXPECT_EQ(normalizeString("Crème Brûlée"), "Creme Brulee");
    // Pieces end at white space, where no transliteration rule looks across,
    // so long text reads exactly as its words do one by one.
    const std::string sentence = "Москва 中国 がっこう Ελληνικός Crème\n";
    const std::string once = normalizeString(sentence);
    EXPECT_EQ(once, "Moskva zhong guo gakkou Ellenikos Creme\n");
    EXPECT_TRUE(normalizeString(repeat(sentence, 400)) == repeat(once, 400));
    // No white space at all for a megabyte: still linear, still Latin.
    EXPECT_TRUE(normalizeString(repeat("ü", 500000)) == repeat("u", 500000));
}

TEST(StringHelpers, InvalidUtf8GivesTheEmptyResult) {
    for (const std::string bad :
         {"\xFF", "a\xC3", "\xC0\xAF", "\xED\xA0\x80.com", "\xF4\x90\x80\x80", "ok.\xE2\x82"}) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(cleansedString(bad), "");
        EXPECT_EQ(trim(bad), "");
        EXPECT_EQ(removeCommas(bad), "");
        EXPECT_EQ(normalizeString(bad), "");
        EXPECT_EQ(escapeData(bad), "");
        EXPECT_FALSE(checkInvalidRegularExpression(bad));
        EXPECT_FALSE(checkHasInvalidCharacters(bad + "|"));
        EXPECT_FALSE(checkHasSpaces(bad + " "));
        EXPECT_FALSE(checkAscii(bad));
        EXPECT_FALSE(checkValidDomain(bad + "example.com"));
        EXPECT_EQ(hostFromURL("https://" + bad), std::nullopt);
        EXPECT_EQ(schemeFromURL("https://" + bad), std::nullopt);
        EXPECT_EQ(schemeAndHostFromURL(bad), "(null)://(null)");
        EXPECT_EQ(IDNAEncodedString(bad), "");
        EXPECT_EQ(IDNADecodedString(bad), "");
        EXPECT_EQ(encodedURLString(bad), "");
        EXPECT_EQ(URLWithUnicodeString(bad), std::nullopt);
        EXPECT_EQ(punycodeEncodedString(bad), std::nullopt);
        EXPECT_TRUE(messageAttributedString(bad, 1).string.empty());
    }
}

TEST(StringHelpers, HostTable) {
    const std::pair<std::string, NullableString> cases[] = {
        {"https://www.bücher.example/path", "www.xn--bcher-kva.example"},
        // The whole text is IDNA-encoded before parsing, so a Unicode first
        // label takes the scheme into its Punycode.
        {"https://bücher.example/path", "bcher-4ob.example"},
        {"https://news.example.org:8080/a?b#c", "news.example.org"},
        {"example.com/path", std::nullopt},  // no authority
        {"http://exa mple.com/", std::nullopt},
        {"http://[::1]:8080/", "::1"},
        {"http://user:pw@ä.example/", "xn--4ca.example"},
        {"http://a%41b.example/", "aAb.example"},
        {"", std::nullopt},
        {"https://www.b\u00FCcher.example/" + std::string(1 << 20, 'p'),
         "www.xn--bcher-kva.example"},
    };
    for (const auto& [url, host] : cases) EXPECT_EQ(hostFromURL(url), host) << url.substr(0, 40);
    EXPECT_EQ(schemeFromURL("HTTPS://a.b/"), "HTTPS");
    EXPECT_EQ(schemeAndHostFromURL("https://cdn.example.com/x.png"), "https://cdn.example.com");
    EXPECT_EQ(schemeAndHostFromURL("not a url"), "(null)://(null)");
    EXPECT_EQ(schemeAndHostFromURL("mailto:someone@example.com"), "mailto://(null)");
}

}  // namespace
