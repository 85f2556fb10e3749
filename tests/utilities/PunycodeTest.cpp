#include <gtest/gtest.h>

#include <cstdint>
#include <random>

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

// The reference coder of RFC 3492 section 6, written as plainly as the RFC
// has it: the library's faster coder must agree with it everywhere,
// including on which inputs overflow.
namespace reference {

constexpr uint32_t kMax = UINT32_MAX;

uint32_t adapt(uint32_t delta, uint32_t numPoints, bool firstTime) {
    delta = firstTime ? delta / 700 : delta / 2;
    delta += delta / numPoints;
    uint32_t k = 0;
    for (; delta > 455; k += 36) delta /= 35;
    return k + (36 * delta) / (delta + 38);
}

uint32_t threshold(uint32_t k, uint32_t bias) {
    return k <= bias ? 1 : k >= bias + 26 ? 26 : k - bias;
}

char32_t digitChar(uint32_t d) { return d < 26 ? U'a' + d : U'0' + d - 26; }

std::optional<std::u32string> encode(const std::u32string& input) {
    std::u32string out;
    for (char32_t c : input)
        if (c < 0x80) out.push_back(c);
    const auto b = static_cast<uint32_t>(out.size());
    if (b > 0) out.push_back(U'-');
    uint32_t n = 128, delta = 0, bias = 72, h = b;
    while (h < input.size()) {
        uint32_t m = kMax;
        for (char32_t c : input)
            if (c >= n && c < m) m = c;
        if (m - n > (kMax - delta) / (h + 1)) return std::nullopt;
        delta += (m - n) * (h + 1);
        n = m;
        for (char32_t c : input) {
            if (c < n && ++delta == 0) return std::nullopt;
            if (c != n) continue;
            uint32_t q = delta;
            for (uint32_t k = 36;; k += 36) {
                const uint32_t t = threshold(k, bias);
                if (q < t) break;
                out.push_back(digitChar(t + (q - t) % (36 - t)));
                q = (q - t) / (36 - t);
            }
            out.push_back(digitChar(q));
            bias = adapt(delta, h + 1, h == b);
            delta = 0;
            ++h;
        }
        ++delta;
        ++n;
    }
    return out;
}

std::optional<std::u32string> decode(const std::u32string& input) {
    std::u32string out;
    size_t in = 0;
    const size_t delimiter = input.rfind(U'-');
    if (delimiter != std::u32string::npos && delimiter > 0) {
        out = input.substr(0, delimiter);
        for (char32_t c : out)
            if (c >= 0x80) return std::nullopt;
        in = delimiter + 1;
    }
    uint32_t n = 128, i = 0, bias = 72;
    while (in < input.size()) {
        const uint32_t oldi = i;
        uint32_t w = 1;
        for (uint32_t k = 36;; k += 36) {
            if (in >= input.size()) return std::nullopt;
            const char32_t c = input[in++];
            const uint32_t digit = c >= U'0' && c <= U'9'   ? c - U'0' + 26
                                   : c >= U'a' && c <= U'z' ? c - U'a'
                                   : c >= U'A' && c <= U'Z' ? c - U'A'
                                                            : 36;
            if (digit >= 36 || digit > (kMax - i) / w) return std::nullopt;
            i += digit * w;
            const uint32_t t = threshold(k, bias);
            if (digit < t) break;
            if (w > kMax / (36 - t)) return std::nullopt;
            w *= 36 - t;
        }
        const auto count = static_cast<uint32_t>(out.size() + 1);
        bias = adapt(i - oldi, count, oldi == 0);
        if (i / count > kMax - n) return std::nullopt;
        n += i / count;
        i %= count;
        if (n > 0x10FFFF || (n >= 0xD800 && n <= 0xDFFF)) return std::nullopt;
        out.insert(out.begin() + i, n);
        ++i;
    }
    return out;
}

}  // namespace reference

std::optional<std::string> utf8(const std::optional<std::u32string>& points) {
    if (!points) return std::nullopt;
    return unicode::encodeUTF8(*points);
}

// Random labels from a few pools, so that runs of one code point, neighbours
// and basic characters all come up; long labels that end in code points near
// U+10FFFF reach the overflow checks (at about 3855 code points before one).
std::u32string randomLabel(std::mt19937& rng, bool nearOverflow) {
    std::u32string label;
    if (nearOverflow) {
        for (size_t j = 3700 + rng() % 400; j > 0; --j)
            label.push_back(rng() % 2 ? U'a' + rng() % 26 : 0x80 + rng() % 4);
        for (size_t j = 1 + rng() % 3; j > 0; --j)
            label.insert(label.begin() + rng() % label.size(), 0x10FFFF - rng() % 4);
        return label;
    }
    const char32_t bases[] = {U'a', 0xC0, 0x4E00};
    const uint32_t spans[] = {26, 8, 5000};
    const uint32_t pool = rng() % 3;
    for (size_t j = rng() % 40; j > 0; --j) {
        const uint32_t p = rng() % 4 == 0 ? 0 : pool;
        label.push_back(bases[p] + rng() % spans[p]);
    }
    return label;
}

TEST(Punycode, AgreesWithTheReferenceCoder) {
    std::mt19937 rng(20240501);
    int overflows = 0;
    for (int round = 0; round < 2000; ++round) {
        const std::u32string label = randomLabel(rng, /*nearOverflow=*/round % 20 == 0);
        const std::string text = unicode::encodeUTF8(label);
        const auto encoded = punycodeEncodedString(text);
        ASSERT_EQ(encoded, utf8(reference::encode(label))) << text;
        if (!encoded) {
            ++overflows;
            continue;
        }
        ASSERT_EQ(punycodeDecodedString(*encoded), text);
    }
    EXPECT_GT(overflows, 10);   // the overflow checks are reached
    EXPECT_LT(overflows, 100);  // and successes near them too

    // Arbitrary digit strings, most of them invalid or overflowing.
    const std::u32string alphabet = U"abcz09AZ-";
    for (int round = 0; round < 5000; ++round) {
        std::u32string text;
        for (size_t j = rng() % 16; j > 0; --j) text.push_back(alphabet[rng() % alphabet.size()]);
        ASSERT_EQ(punycodeDecodedString(unicode::encodeUTF8(text)), utf8(reference::decode(text)));
    }
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
