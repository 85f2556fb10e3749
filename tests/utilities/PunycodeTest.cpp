#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

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
        "\xFF\xFE",  // invalid UTF-8
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
        {"  bücher . example",
         "xn--bcher -3ya.example"},           // white space skipped only at token starts
        {"\uFF45xample.com", "example.com"},  // NFKC folds the full-width letter
        {"a\uFF0Eb", "a.b"},                  // NFKC maps the full-width full stop to "."
        {"..@", "..@"},
        {"", ""},
        {"\xC3\x28", ""},  // invalid UTF-8
    };
    for (const auto& [input, expected] : cases)
        EXPECT_EQ(IDNAEncodedString(input), expected) << input;
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

TEST(IDNA, DecodesXnLabelsCaseInsensitively) {
    const std::pair<const char*, const char*> cases[] = {
        {"xn--bcher-kva.example", "bücher.example"},
        {"XN--BCHER-KVA", "BüCHER"},
        {"Xn--bcher-kva.de", "bücher.de"},
        {"a.xn--!!.b", "a..b"},  // an undecodable label vanishes, separators stay
        {"xn--", ""},
        {"plain.example", "plain.example"},
    };
    for (const auto& [input, expected] : cases)
        EXPECT_EQ(IDNADecodedString(input), expected) << input;
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

// The reference coder of RFC 3492 section 6, written as plainly as the RFC
// has it (one pass over the input per code point, insertion into the output
// as it goes): the library's faster coder must agree with it everywhere,
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

std::optional<std::u32string> encode(const std::u32string& input) {
    std::u32string out;
    for (char32_t c : input) {
        if (c < 0x80) out.push_back(c);
    }
    const auto b = static_cast<uint32_t>(out.size());
    if (b > 0) out.push_back(U'-');
    uint32_t n = 128, delta = 0, bias = 72, h = b;
    while (h < input.size()) {
        uint32_t m = kMax;
        for (char32_t c : input) {
            if (c >= n && c < m) m = c;
        }
        if (m - n > (kMax - delta) / (h + 1)) return std::nullopt;
        delta += (m - n) * (h + 1);
        n = m;
        for (char32_t c : input) {
            if (c < n && ++delta == 0) return std::nullopt;
            if (c == n) {
                uint32_t q = delta;
                for (uint32_t k = 36;; k += 36) {
                    const uint32_t t = threshold(k, bias);
                    if (q < t) break;
                    const uint32_t d = t + (q - t) % (36 - t);
                    out.push_back(d < 26 ? U'a' + d : U'0' + d - 26);
                    q = (q - t) / (36 - t);
                }
                out.push_back(q < 26 ? U'a' + q : U'0' + q - 26);
                bias = adapt(delta, h + 1, h == b);
                delta = 0;
                ++h;
            }
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
        for (char32_t c : out) {
            if (c >= 0x80) return std::nullopt;
        }
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

std::string utf8(const std::u32string& points) {
    std::string out;
    for (char32_t c : points) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::optional<std::string> utf8(const std::optional<std::u32string>& points) {
    if (!points) return std::nullopt;
    return utf8(*points);
}

// Random labels from a few pools, so that runs of one code point, neighbours
// and basic characters all come up; long labels that end in code points near
// U+10FFFF reach the overflow checks.
std::u32string randomLabel(std::mt19937& rng, bool nearOverflow) {
    std::u32string label;
    if (nearOverflow) {
        // (0x10FFFF - 0x80) * (h + 1) overflows once h reaches about 3855.
        for (size_t j = 3700 + rng() % 400; j > 0; --j) {
            label.push_back(rng() % 2 ? U'a' + rng() % 26 : 0x80 + rng() % 4);
        }
        for (size_t j = 1 + rng() % 3; j > 0; --j) {
            label.insert(label.begin() + rng() % label.size(), 0x10FFFF - rng() % 4);
        }
        return label;
    }
    const size_t length = rng() % 40;
    const uint32_t pool = rng() % 3;
    for (size_t j = 0; j < length; ++j) {
        char32_t c;
        switch (rng() % 4 == 0 ? 0 : pool) {
            case 0:
                c = U'a' + rng() % 26;
                break;
            case 1:
                c = 0xC0 + rng() % 8;
                break;
            default:
                c = 0x4E00 + rng() % 5000;
                break;
        }
        label.push_back(c);
    }
    return label;
}

TEST(Punycode, AgreesWithTheReferenceCoder) {
    std::mt19937 rng(20240501);
    int overflows = 0;
    for (int round = 0; round < 2000; ++round) {
        const std::u32string label = randomLabel(rng, /*nearOverflow=*/round % 20 == 0);
        const auto expected = utf8(reference::encode(label));
        const auto encoded = punycodeEncodedString(utf8(label));
        ASSERT_EQ(encoded, expected) << utf8(label);
        if (!encoded) {
            ++overflows;
            continue;
        }
        ASSERT_EQ(punycodeDecodedString(*encoded), utf8(label));
    }
    EXPECT_GT(overflows, 10);   // the overflow checks are reached
    EXPECT_LT(overflows, 100);  // and successes near them too

    // Arbitrary digit strings, most of them invalid or overflowing.
    const std::u32string alphabet = U"abcz09AZ-";
    for (int round = 0; round < 5000; ++round) {
        std::u32string text;
        for (size_t j = rng() % 16; j > 0; --j) text.push_back(alphabet[rng() % alphabet.size()]);
        ASSERT_EQ(punycodeDecodedString(utf8(text)), utf8(reference::decode(text))) << utf8(text);
    }
}

TEST(Punycode, OverflowGivesNil) {
    // (0x10FFFF - 128) * (h + 1) exceeds 2^32 - 1 once more than 3855 code
    // points precede U+10FFFF in the output.
    const std::string top = "\U0010FFFF";
    EXPECT_EQ(punycodeEncodedString(std::string(5000, 'a') + top), std::nullopt);
    const auto fits = punycodeEncodedString(std::string(3000, 'a') + top);
    ASSERT_TRUE(fits.has_value());
    EXPECT_EQ(punycodeDecodedString(*fits), std::string(3000, 'a') + top);

    // A well-formed integer whose code point lies beyond U+10FFFF.
    EXPECT_EQ(punycodeDecodedString("99999999"), std::nullopt);
    // Integers that decode to a surrogate (U+D800 alone, and after "a"): no
    // string holds one.
    EXPECT_EQ(punycodeDecodedString("ib9b"), std::nullopt);
    EXPECT_EQ(punycodeDecodedString("a-rc4g"), std::nullopt);
}

TEST(IDNA, FailedEncodingWritesNullAndKeepsSeparators) {
    const std::string overflowing = std::string(5000, 'a') + "\U0010FFFF";
    EXPECT_EQ(IDNAEncodedString("ok." + overflowing + "@b.com"), "ok.xn--(null)@b.com");
}

TEST(IDNA, ControlAndWhiteSpaceHandling) {
    const std::pair<std::string, std::string> encodes[] = {
        // U+0000 counts as non-ASCII, but the encoder copies it as basic.
        {std::string("a\0b.com", 7), std::string("xn--a\0b-.com", 12)},
        // White space is dropped where a token starts, kept where one ends.
        {"\tbücher.\nexample\r\n", "xn--bcher-kva.example\r\n"},
        {"a\u3002b", "xn--ab-r13a"},  // the ideographic full stop separates nothing
    };
    for (const auto& [input, expected] : encodes) EXPECT_EQ(IDNAEncodedString(input), expected);

    const std::pair<const char*, const char*> decodes[] = {
        {"\txn--bcher-kva.\nde", "bücher.de"},
        {"xn--bcher-kva .de", ".de"},  // the blank is part of the label: no digit
        {"@@xn--tda@@", "@@ü@@"},
        {"xn--tda\xC3", ""},  // invalid UTF-8
    };
    for (const auto& [input, expected] : decodes) EXPECT_EQ(IDNADecodedString(input), expected);
}

TEST(Punycode, MegabyteLabelsRoundTrip) {
    // 200000 distinct code points: a quadratic coder would take hours.
    std::u32string ascending, descending;
    for (char32_t c = 0x4E00; ascending.size() < 200000; ++c) {
        if (c == 0xA000) c = 0x20000;   // past the BMP's ideographs
        if (c == 0x2F800) c = 0x2FA20;  // NFKC maps the compatibility ideographs
        ascending.push_back(c);
    }
    descending.assign(ascending.rbegin(), ascending.rend());
    for (const auto* label : {&ascending, &descending}) {
        const std::string text = utf8(*label);
        const auto encoded = punycodeEncodedString(text);
        ASSERT_TRUE(encoded.has_value());
        // Descending order makes the decoder insert every code point at the front.
        EXPECT_TRUE(punycodeDecodedString(*encoded) == text);
        EXPECT_TRUE(IDNADecodedString(IDNAEncodedString(text)) == text);
    }
}

}  // namespace
