#include "utilities/Unicode.h"

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <cstdint>
#include <cstring>

namespace stonewall::unicode {

std::optional<std::u32string> decodeUTF8(std::string_view text) {
    std::u32string out;
    out.reserve(text.size());
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    while (p < end) {
        unsigned char b = *p;
        if (b < 0x80) {
            out.push_back(b);
            ++p;
            continue;
        }
        size_t length;
        char32_t c;
        char32_t minimum;
        if ((b & 0xE0) == 0xC0) {
            length = 2, c = b & 0x1F, minimum = 0x80;
        } else if ((b & 0xF0) == 0xE0) {
            length = 3, c = b & 0x0F, minimum = 0x800;
        } else if ((b & 0xF8) == 0xF0) {
            length = 4, c = b & 0x07, minimum = 0x10000;
        } else {
            return std::nullopt;
        }
        if (static_cast<size_t>(end - p) < length) return std::nullopt;
        for (size_t i = 1; i < length; ++i) {
            if ((p[i] & 0xC0) != 0x80) return std::nullopt;
            c = (c << 6) | (p[i] & 0x3F);
        }
        if (c < minimum || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) return std::nullopt;
        out.push_back(c);
        p += length;
    }
    return out;
}

bool isValidUTF8(std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    while (p < end) {
        // Rule text, hosts and URLs are nearly all ASCII: skip it eight bytes
        // at a time.
        while (end - p >= 8) {
            uint64_t word;
            std::memcpy(&word, p, sizeof word);
            if (word & 0x8080808080808080ULL) break;
            p += 8;
        }
        if (p == end) break;
        const unsigned char b = *p;
        if (b < 0x80) {
            ++p;
            continue;
        }
        ptrdiff_t length;
        char32_t c;
        if (b >= 0xC2 && b <= 0xDF) {
            length = 2, c = b & 0x1F;
        } else if (b >= 0xE0 && b <= 0xEF) {
            length = 3, c = b & 0x0F;
        } else if (b >= 0xF0 && b <= 0xF4) {
            length = 4, c = b & 0x07;
        } else {
            return false;  // continuation byte, overlong lead (C0, C1) or F5..FF
        }
        if (end - p < length) return false;
        for (ptrdiff_t i = 1; i < length; ++i) {
            if ((p[i] & 0xC0) != 0x80) return false;
            c = (c << 6) | (p[i] & 0x3F);
        }
        if ((length == 3 && c < 0x800) || (length == 4 && c < 0x10000) || c > 0x10FFFF ||
            (c >= 0xD800 && c <= 0xDFFF)) {
            return false;
        }
        p += length;
    }
    return true;
}

void appendUTF8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (c >> 18)));
        out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

std::string encodeUTF8(std::u32string_view codePoints) {
    std::string out;
    out.reserve(codePoints.size());
    for (char32_t c : codePoints) appendUTF8(out, c);
    return out;
}

bool isWhitespace(char32_t c) {
    return c == 0x09 || u_charType(static_cast<UChar32>(c)) == U_SPACE_SEPARATOR;
}

bool isWhitespaceOrNewline(char32_t c) {
    if (c == 0x09 || (c >= 0x0A && c <= 0x0D) || c == 0x85) return true;
    const int8_t type = u_charType(static_cast<UChar32>(c));
    return type == U_SPACE_SEPARATOR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR;
}

std::u32string nfkc(std::u32string_view codePoints) {
    UErrorCode status = U_ZERO_ERROR;
    const icu::Normalizer2* normalizer = icu::Normalizer2::getNFKCInstance(status);
    if (U_FAILURE(status)) return std::u32string(codePoints);
    icu::UnicodeString source =
        icu::UnicodeString::fromUTF32(reinterpret_cast<const UChar32*>(codePoints.data()),
                                      static_cast<int32_t>(codePoints.size()));
    icu::UnicodeString normalized = normalizer->normalize(source, status);
    if (U_FAILURE(status)) return std::u32string(codePoints);
    std::u32string out(static_cast<size_t>(normalized.countChar32()), U'\0');
    UErrorCode convert = U_ZERO_ERROR;
    normalized.toUTF32(reinterpret_cast<UChar32*>(out.data()), static_cast<int32_t>(out.size()),
                       convert);
    return out;
}

}  // namespace stonewall::unicode
