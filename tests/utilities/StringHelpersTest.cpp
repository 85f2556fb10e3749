#include <gtest/gtest.h>

#include "utilities/PunycodeAdditions.h"

using namespace stonewall;
using namespace stonewall::PunycodeAdditions;

namespace {

TEST(CleansedString, CutsAt1002Utf16Units) {
    EXPECT_EQ(cleansedString(std::string(1000, 'a')).size(), 1000u);
    EXPECT_EQ(cleansedString(std::string(1001, 'a')).size(), 1001u);
    EXPECT_EQ(cleansedString(std::string(1002, 'a')).size(), 1000u);
    // A surrogate pair (one emoji = 2 units) straddling unit 1000 is dropped whole.
    std::string text = std::string(999, 'a') + "\U0001F600" + std::string(10, 'b');
    EXPECT_EQ(cleansedString(text), std::string(999, 'a'));
    // Counting is in UTF-16 units, not bytes: 1001 two-byte letters stay whole.
    std::string umlauts;
    for (int i = 0; i < 1001; ++i) umlauts += "ü";
    EXPECT_EQ(cleansedString(umlauts), umlauts);
}

TEST(CleansedString, FoldsLineBreakRuns) {
    const std::pair<const char*, const char*> cases[] = {
        {"a\r\nb", "a b"},
        {"\n\nstart and end\t\n", "start and end"},
        {"a\u2028\u2029\u0085b", "a b"},
        {"a  b", "a  b"},  // blanks are not collapsed
        {"", ""},
    };
    for (const auto& [input, expected] : cases) EXPECT_EQ(cleansedString(input), expected);
}

TEST(StringHelpers, ValidatesDomains) {
    const std::pair<std::string, bool> cases[] = {
        {"example.com", true},     {"com", false},
        {"a..b", false},           {".example.com", false},
        {"a.b.c.d.e.f.g", true},   {"a.b.c.d.e.f.g.h", false},
        {std::string(100, 'x') + ".com", true},
        {std::string(101, 'x') + ".com", false},
        {"exa mple.com", false},   {"ex;ample.com", false},
        {"under_score.com", true}, {"bücher.de", true},
    };
    for (const auto& [input, expected] : cases) EXPECT_EQ(checkValidDomain(input), expected) << input;
}

TEST(StringHelpers, CharacterChecks) {
    EXPECT_TRUE(checkInvalidRegularExpression("[a-z"));
    EXPECT_FALSE(checkInvalidRegularExpression("ab|cd"));
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
    EXPECT_EQ(normalizeString("Crème Brûlée"), "Creme Brulee");
    EXPECT_EQ(normalizeString("Москва"), "Moskva");
}

TEST(StringHelpers, EscapesExactlyFiveCharacters) {
    EXPECT_EQ(escapeData("ads.example.com/*?x"), "ads\\.example\\.com/*\\?x");
    EXPECT_EQ(escapeData("^a+b|c$[()]\\"), "\\^a\\+b\\|c$[()]\\");
}

TEST(StringHelpers, HostAndSchemeFromURL) {
    EXPECT_EQ(hostFromURL("https://www.bücher.example/path"), "www.xn--bcher-kva.example");
    // The whole text is IDNA-encoded before parsing, so a Unicode first label
    // takes the scheme into its Punycode.
    EXPECT_EQ(hostFromURL("https://bücher.example/path"), "bcher-4ob.example");
    EXPECT_EQ(hostFromURL("https://news.example.org:8080/a?b#c"), "news.example.org");
    EXPECT_EQ(hostFromURL("example.com/path"), std::nullopt);  // no authority
    EXPECT_EQ(hostFromURL("http://exa mple.com/"), std::nullopt);
    EXPECT_EQ(schemeFromURL("HTTPS://a.b/"), "HTTPS");
    EXPECT_EQ(schemeAndHostFromURL("https://cdn.example.com/x.png"), "https://cdn.example.com");
    EXPECT_EQ(schemeAndHostFromURL("not a url"), "(null)://(null)");
}

TEST(StyledText, RunsCoverTheWholeTextInUtf16Units) {
    auto link = hyperlinkFromString("a\U0001F600", "https://example.com");
    ASSERT_EQ(link.runs.size(), 1u);
    EXPECT_EQ(link.runs[0].length, 3u);
    EXPECT_EQ(link.runs[0].attributes.link, "https://example.com");
    EXPECT_EQ(link.runs[0].attributes.underlineStyle, UnderlineStyle::Single);

    auto message = messageAttributedString("hello", 1.2);
    EXPECT_EQ(message.runs[0].attributes.paragraphStyle->alignment, TextAlignment::Center);
    EXPECT_EQ(message.runs[0].attributes.paragraphStyle->lineBreakMode, LineBreakMode::TruncatingTail);

    auto white = buttonAttributedTitle(createButtonAttributedString("OK", Color{1, 0, 0, 1}, Font{}));
    EXPECT_EQ(white.runs[0].attributes.foregroundColor, (Color{1, 1, 1, 1}));
    EXPECT_TRUE(white.runs[0].attributes.font.has_value());
}

}  // namespace
