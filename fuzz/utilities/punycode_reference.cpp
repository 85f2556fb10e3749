// Differential target: the library's Punycode coder against the reference
// coder of RFC 3492 section 6, written as plainly as the RFC has it. Both must
// agree on every label, including on which ones overflow, and whatever
// encodes must decode to the same text.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "utilities/PunycodeAdditions.h"
#include "utilities/Unicode.h"

using namespace stonewall;
using namespace stonewall::PunycodeAdditions;

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

namespace {

std::optional<std::string> utf8(const std::optional<std::u32string>& points) {
    if (!points) return std::nullopt;
    return unicode::encodeUTF8(*points);
}

void check(bool agrees) {
    if (!agrees) abort();
}

}  // namespace

// The first byte picks the direction. Encoding: the second byte asks for up to
// about 4000 leading "a"s, so that a short input still reaches the overflow
// checks (about 3855 code points before one near U+10FFFF), and every three
// further bytes make one code point, surrogates excluded. Decoding: each byte
// is one ASCII character of the label.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    if (data[0] & 1) {
        std::u32string label;
        for (size_t i = 2; i + 2 < size; i += 3) {
            auto c =
                static_cast<char32_t>((data[i] << 16 | data[i + 1] << 8 | data[i + 2]) % 0x110000);
            if (c >= 0xD800 && c <= 0xDFFF) c -= 0x800;
            label.push_back(c);
        }
        std::u32string padded(data[1] & 0x80 ? 3600u + (data[1] & 0x7F) * 4u : 0u, U'a');
        padded += label;
        const std::string text = unicode::encodeUTF8(padded);
        const auto encoded = punycodeEncodedString(text);
        const std::u32string kept =
            longCharactersWithCount(stringByDeletingIgnoredCharacters(text));
        check(encoded == utf8(reference::encode(kept)));
        if (encoded) check(punycodeDecodedString(*encoded) == unicode::encodeUTF8(kept));
    } else {
        std::u32string label;
        for (size_t i = 1; i < size; ++i) label.push_back(data[i] & 0x7F);
        check(punycodeDecodedString(unicode::encodeUTF8(label)) == utf8(reference::decode(label)));
    }
    return 0;
}
