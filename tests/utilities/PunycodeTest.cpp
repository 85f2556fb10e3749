#include <gtest/gtest.h>

#include "utilities/PunycodeAdditions.h"
#include "utilities/Unicode.h"

using namespace stonewall;
using namespace stonewall::PunycodeAdditions;

namespace {

std::string nul(const char* text, size_t size) { return std::string(text, size); }

TEST(Punycode, LabelTable) {
    // RFC 3492 section 7.1 samples (upper-case letters kept as basic code
    // points) and the small cases the host-name code relies on.
    const std::pair<const char*, const char*> labels[] = {
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
    for (const auto& [unicode, punycode] : labels) {
        EXPECT_EQ(punycodeEncodedString(unicode), punycode) << unicode;
        EXPECT_EQ(punycodeDecodedString(punycode), unicode) << punycode;
    }
    // The encoder drops default-ignorable characters first.
    EXPECT_EQ(punycodeEncodedString("b\u00ADü\u200Bcher"), "bcher-kva");
    EXPECT_EQ(stringByDeletingIgnoredCharacters("a\u00AD\uFE0Fb\uFEFF"), "ab");
    EXPECT_EQ(longCharactersWithCount("aü\U0001F600").size(), 3u);
    EXPECT_EQ(punycodeEncodedString("\xC3"), std::nullopt);
    // (0x10FFFF - 128) * (h + 1) exceeds 2^32 - 1 once more than 3855 code
    // points precede U+10FFFF.
    EXPECT_EQ(punycodeEncodedString(std::string(5000, 'a') + "\U0010FFFF"), std::nullopt);
    const std::string fits = std::string(3000, 'a') + "\U0010FFFF";
    EXPECT_EQ(punycodeDecodedString(punycodeEncodedString(fits).value_or("")), fits);
}

TEST(Punycode, DecoderTable) {
    const std::pair<const char*, std::optional<std::string>> cases[] = {
        {"-abc", std::nullopt},          // a leading delimiter leaves "-" as a digit
        {"ab\xC3\xBC-x", std::nullopt},  // non-basic character before the delimiter
        {"abc-!", std::nullopt},         // not a digit
        {"a-9", std::nullopt},           // input ends inside an integer
        {"99999999999", std::nullopt},   // overflow of i
        {"zzzzzzzzzzzzzzz", std::nullopt},
        {"\xFF\xFE", std::nullopt},
        {"99999999", std::nullopt},  // a code point beyond U+10FFFF
        {"ib9b", std::nullopt},      // U+D800 alone: no string holds a surrogate
        {"a-rc4g", std::nullopt},    // a surrogate after "a"
        {"", ""},
        {"abc-", "abc"},
    };
    for (const auto& [input, expected] : cases)
        EXPECT_EQ(punycodeDecodedString(input), expected) << input;
}

TEST(Punycode, MegabyteLabelsRoundTrip) {
    // 200000 distinct code points: a quadratic coder would take hours.
    std::u32string ascending;
    for (char32_t c = 0x4E00; ascending.size() < 200000; ++c) {
        if (c == 0xA000) c = 0x20000;   // past the BMP's ideographs
        if (c == 0x2F800) c = 0x2FA20;  // NFKC maps the compatibility ideographs
        ascending.push_back(c);
    }
    std::u32string descending(ascending.rbegin(), ascending.rend());
    for (const auto* label : {&ascending, &descending}) {
        const std::string text = unicode::encodeUTF8(*label);
        const auto encoded = punycodeEncodedString(text);
        ASSERT_TRUE(encoded.has_value());
        // Descending order makes the decoder insert every code point at the front.
        EXPECT_TRUE(punycodeDecodedString(*encoded) == text);
        EXPECT_TRUE(IDNADecodedString(IDNAEncodedString(text)) == text);
    }
    const std::string huge(1 << 20, 'a');
    EXPECT_EQ(IDNAEncodedString(huge), huge);
    std::string manyLabels;
    for (int i = 0; i < 20000; ++i) manyLabels += "ü.";
    EXPECT_FALSE(IDNAEncodedString(manyLabels).empty());
}

TEST(IDNA, EncodeTable) {
    const std::pair<std::string, std::string> cases[] = {
        {"bücher.example", "xn--bcher-kva.example"},
        {"example.com", "example.com"},
        {"user@bücher.de", "user@xn--bcher-kva.de"},
        {"a\u00ADb.example", "xn--ab-.example"},  // soft hyphen: non-ASCII, then dropped
        // White space is dropped where a token starts, kept where one ends.
        {"  bücher . example", "xn--bcher -3ya.example"},
        {"\tbücher.\nexample\r\n", "xn--bcher-kva.example\r\n"},
        {"\uFF45xample.com", "example.com"},  // NFKC folds the full-width letter
        {"a\uFF0Eb", "a.b"},                  // and the full-width full stop to "."
        {"a\u3002b", "xn--ab-r13a"},          // the ideographic full stop separates nothing
        // U+0000 counts as non-ASCII, but the encoder copies it as basic.
        {nul("a\0b.com", 7), nul("xn--a\0b-.com", 12)},
        {"..@", "..@"},
        {"", ""},
        {"\xC3\x28", ""},
        {"ok." + std::string(5000, 'a') + "\U0010FFFF@b.com", "ok.xn--(null)@b.com"},
    };
    for (const auto& [input, expected] : cases)
        EXPECT_EQ(IDNAEncodedString(input), expected) << input.substr(0, 40);
}

TEST(IDNA, PlainASCIIShortcutSeesEveryByte) {
    // Printable ASCII is copied without a look at its labels; any other byte,
    // wherever it sits in the word-wise scan, must send the text the long way.
    for (size_t length : {1u, 7u, 8u, 9u, 16u, 23u, 40u}) {
        const std::string plain(length, 'a');
        EXPECT_EQ(IDNAEncodedString(plain), plain);
        for (size_t at = 0; at < length; ++at) {
            std::string text = plain;
            text[at] = '\0';  // non-ASCII for IDNA, a basic code point for Punycode
            EXPECT_EQ(IDNAEncodedString(text), "xn--" + text + "-") << length << " " << at;
            text[at] = ' ';  // dropped only where a label starts
            EXPECT_EQ(IDNAEncodedString(text), at == 0 ? plain.substr(1) : text);
            for (char kept : {'\x21', '\x7E', '\x7F', '\x1F'}) {
                text[at] = kept;
                EXPECT_EQ(IDNAEncodedString(text), text) << length << " " << at;
            }
            text[at] = '\xC3';  // a broken UTF-8 sequence
            EXPECT_EQ(IDNAEncodedString(text), "");
        }
    }
}

TEST(IDNA, DecodeTable) {
    const std::pair<const char*, const char*> cases[] = {
        {"xn--bcher-kva.example", "bücher.example"},
        {"XN--BCHER-KVA", "BüCHER"},
        {"Xn--bcher-kva.de", "bücher.de"},
        {"a.xn--!!.b", "a..b"},  // an undecodable label vanishes, separators stay
        {"xn--", ""},
        {"plain.example", "plain.example"},
        {"\txn--bcher-kva.\nde", "bücher.de"},
        {"xn--bcher-kva .de", ".de"},  // the blank is part of the label: no digit
        {"@@xn--tda@@", "@@ü@@"},
        {"xn--tda\xC3", ""},
    };
    for (const auto& [input, expected] : cases)
        EXPECT_EQ(IDNADecodedString(input), expected) << input;
}

}  // namespace
