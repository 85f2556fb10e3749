#include <gtest/gtest.h>

#include "utilities/PunycodeAdditions.h"

using namespace stonewall;
using namespace stonewall::PunycodeAdditions;

namespace {

struct LabelCase {
    const char* unicode;
    const char* punycode;
};

// RFC 3492 section 7.1 samples (upper-case letters kept as basic code points)
// and the small cases the host-name code relies on.
const LabelCase kLabels[] = {
    {"bücher", "bcher-kva"},
    {"ü", "tda"},
    {"\u0644\u064A\u0647\u0645\u0627\u0628\u062A\u0643\u0644\u0645\u0648\u0634\u0639\u0631"
     "\u0628\u064A\u061F",
     "egbpdaj6bu4bxfgehfvwxn"},
    {"\u4ED6\u4EEC\u4E3A\u4EC0\u4E48\u4E0D\u8BF4\u4E2D\u6587", "ihqwcrb4cv8a8dqg056pqjye"},
    {"3\u5E74B\u7D44\u91D1\u516B\u5148\u751F", "3B-ww4c5e180e575a65lsy2b"},
    {"\u5B89\u5BA4\u5948\u7F8E\u6075-with-SUPER-MONKEYS",
     "-with-SUPER-MONKEYS-pc58ag80a8qai00g7n9n"},
    {"Hello-Another-Way-\u305D\u308C\u305E\u308C\u306E\u5834\u6240",
     "Hello-Another-Way--fc4qua05auwb3674vfr0b"},
    {"\u3072\u3068\u3064\u5C4B\u6839\u306E\u4E0B2", "2-u9tlzr9756bt3uc0v"},
    {"Maji\u3067Koi\u3059\u308B5\u79D2\u524D", "MajiKoi5-783gue6qz075azm5e"},
    {"\u30D1\u30D5\u30A3\u30FCde\u30EB\u30F3\u30D0", "de-jg4avhby1noc0d"},
    {"\u305D\u306E\u30B9\u30D4\u30FC\u30C9\u3067", "d9juau41awczczp"},
    {"-> $1.00 <-", "-> $1.00 <--"},
};

TEST(Punycode, EncodesAndDecodesLabels) {
    for (const auto& c : kLabels) {
        EXPECT_EQ(punycodeEncodedString(c.unicode), c.punycode) << c.unicode;
        EXPECT_EQ(punycodeDecodedString(c.punycode), c.unicode) << c.punycode;
    }
}

TEST(Punycode, RejectsBadInputAndOverflow) {
    const char* bad[] = {
        "-abc",          // a leading delimiter leaves "-" as a digit
        "ab\xC3\xBC-x",  // non-basic character before the delimiter
        "abc-!",         // not a digit
        "a-9",           // input ends inside an integer
        "99999999999",   // overflow of i
        "zzzzzzzzzzzzzzz",
        "\xFF\xFE",      // invalid UTF-8
    };
    for (const char* input : bad) EXPECT_EQ(punycodeDecodedString(input), std::nullopt) << input;
    EXPECT_EQ(punycodeDecodedString(""), "");
    EXPECT_EQ(punycodeDecodedString("abc-"), "abc");
    EXPECT_EQ(punycodeEncodedString("\xC3"), std::nullopt);
}

TEST(Punycode, EncoderDropsIgnoredCharacters) {
    EXPECT_EQ(punycodeEncodedString("b\u00ADü\u200Bcher"), "bcher-kva");
    EXPECT_EQ(stringByDeletingIgnoredCharacters("a\u00AD\uFE0Fb\uFEFF"), "ab");
    EXPECT_EQ(longCharactersWithCount("aü\U0001F600").size(), 3u);
}

TEST(IDNA, EncodesLabelByLabel) {
    const std::pair<const char*, const char*> cases[] = {
        {"bücher.example", "xn--bcher-kva.example"},
        {"example.com", "example.com"},
        {"user@bücher.de", "user@xn--bcher-kva.de"},
        {"a\u00ADb.example", "xn--ab-.example"},  // soft hyphen: non-ASCII, then dropped
        {"  bücher . example", "xn--bcher -3ya.example"},  // white space skipped only at token starts
        {"\uFF45xample.com", "example.com"},  // NFKC folds the full-width letter
        {"a\uFF0Eb", "a.b"},  // NFKC maps the full-width full stop to "."
        {"..@", "..@"},
        {"", ""},
        {"\xC3\x28", ""},  // invalid UTF-8
    };
    for (const auto& [input, expected] : cases) EXPECT_EQ(IDNAEncodedString(input), expected) << input;
}

TEST(IDNA, DecodesXnLabelsCaseInsensitively) {
    const std::pair<const char*, const char*> cases[] = {
        {"xn--bcher-kva.example", "bücher.example"},
        {"XN--BCHER-KVA", "BüCHER"},
        {"Xn--bcher-kva.de", "bücher.de"},
        {"a.xn--!!.b", "a..b"},  // an undecodable label vanishes, separators stay
        {"xn--", ""},
        {"plain.example", "plain.example"},
    };
    for (const auto& [input, expected] : cases) EXPECT_EQ(IDNADecodedString(input), expected) << input;
}

TEST(URLParts, SplitsTheDocumentedExamples) {
    auto parts = URLParts("ftp://user:pw@bücher.example:8080/a b?q=1#frag");
    EXPECT_EQ(parts.scheme, "ftp");
    EXPECT_EQ(parts.delim, "://");
    EXPECT_EQ(parts.username, "user");
    EXPECT_EQ(parts.password, "pw");
    EXPECT_EQ(parts.host, "bücher.example:8080");
    EXPECT_EQ(parts.path, "/a b?q=1");
    EXPECT_EQ(parts.fragment, "frag");
    EXPECT_EQ(encodedURLString("ftp://user:pw@bücher.example:8080/a b?q=1#frag"),
              "ftp://user:pw@xn--bcher-kva.example:8080/a%20b?q=1#frag");

    parts = URLParts("example.com/path");
    EXPECT_EQ(parts.scheme, "");
    EXPECT_EQ(parts.delim, "");
    EXPECT_EQ(parts.host, "example.com");
    EXPECT_EQ(parts.path, "/path");
    EXPECT_EQ(parts.fragment, std::nullopt);

    parts = URLParts("http://a@b@c/x");
    EXPECT_EQ(parts.username, "a");
    EXPECT_EQ(parts.password, std::nullopt);
    EXPECT_EQ(parts.host, "b");

    parts = URLParts("mailto:someone");  // at the end after the scheme
    EXPECT_EQ(parts.scheme, "mailto");
    EXPECT_EQ(parts.host, "someone");
}

TEST(URLParts, DecodesBackToUnicode) {
    EXPECT_EQ(decodedURLString("http://xn--bcher-kva.example/a%20b#x%41"),
              "http://bücher.example/a b#xA");
    EXPECT_EQ(decodedURLString("http://host/bad%zz"), "http://host");
    EXPECT_EQ(URLWithUnicodeString("http://bücher.example/ä"),
              "http://xn--bcher-kva.example/%C3%A4");
    EXPECT_EQ(URLWithUnicodeString("http://exa mple.com/"), std::nullopt);
}

TEST(IDNA, HugeAndHostileInputsStayBounded) {
    std::string huge(1 << 20, 'a');
    EXPECT_EQ(IDNAEncodedString(huge), huge);
    std::string unicodeHuge;
    for (int i = 0; i < 20000; ++i) unicodeHuge += "ü.";
    EXPECT_FALSE(IDNAEncodedString(unicodeHuge).empty());
    EXPECT_FALSE(URLParts(std::string(100000, ':')).scheme.empty() &&
                 URLParts(std::string(100000, ':')).host.size() > 0);
}

}  // namespace
