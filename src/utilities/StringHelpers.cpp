// Cleaning and validation of user and page text, and escaping for URL-filter
// patterns.

#include "utilities/StringHelpers.h"

#include <unicode/regex.h>
#include <unicode/translit.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <vector>

#include "utilities/Unicode.h"

namespace stonewall::PunycodeAdditions {

namespace {

constexpr size_t kMaxRegularExpressionLength = 32768;  // UTF-16 units
constexpr int32_t kPieceLength = 1024;                 // UTF-16 units
constexpr int32_t kHardPieceLength = 4096;

bool isLineBreakForCleansing(char32_t c) {
    return c == U'\t' || c == U'\n' || c == U'\r' || c == 0x0085 || c == 0x000C || c == 0x2028 ||
           c == 0x2029;
}

bool containsAnyOf(std::string_view text, std::string_view characters) {
    return text.find_first_of(characters) != std::string_view::npos;
}

std::vector<std::string_view> split(std::string_view text, char separator) {
    std::vector<std::string_view> pieces;
    size_t begin = 0;
    while (true) {
        const size_t at = text.find(separator, begin);
        if (at == std::string_view::npos) {
            pieces.push_back(text.substr(begin));
            return pieces;
        }
        pieces.push_back(text.substr(begin, at - begin));
        begin = at + 1;
    }
}

size_t utf16Length(std::u32string_view points) {
    size_t units = 0;
    for (char32_t c : points) units += unicode::utf16Length(c);
    return units;
}

}  // namespace

std::string cleansedString(std::string_view text) {
    auto points = unicode::decodeUTF8(text);
    if (!points) return {};
    // Shorter than 1002 UTF-16 units: whole; otherwise the first 1000. A
    // surrogate pair that the cut would halve is left out entirely.
    if (utf16Length(*points) >= 1002) {
        size_t units = 0, keep = 0;
        while (keep < points->size() && units + unicode::utf16Length((*points)[keep]) <= 1000) {
            units += unicode::utf16Length((*points)[keep]);
            ++keep;
        }
        points->resize(keep);
    }
    std::string out;
    out.reserve(text.size());
    size_t pos = 0;
    const size_t size = points->size();
    while (pos < size) {
        while (pos < size && !isLineBreakForCleansing((*points)[pos])) {
            unicode::appendUTF8(out, (*points)[pos]);
            ++pos;
        }
        const size_t runStart = pos;
        while (pos < size && isLineBreakForCleansing((*points)[pos])) ++pos;
        if (pos > runStart && !out.empty() && pos < size) out.push_back(' ');
    }
    return out;
}

std::string trim(std::string_view text) {
    auto points = unicode::decodeUTF8(text);
    if (!points) return {};
    size_t begin = 0, end = points->size();
    while (begin < end && unicode::isWhitespaceOrNewline((*points)[begin])) ++begin;
    while (end > begin && unicode::isWhitespaceOrNewline((*points)[end - 1])) --end;
    return unicode::encodeUTF8(std::u32string_view(*points).substr(begin, end - begin));
}

std::string removeCommas(std::string_view text) {
    if (!unicode::isValidUTF8(text)) return {};
    std::string out(text);
    for (char& c : out) {
        if (c == ',') c = ' ';
    }
    return out;
}

bool checkInvalidRegularExpression(std::string_view text) {
    if (!unicode::isValidUTF8(text)) return false;
    // ICU's compiler moves the compiled program for every quantified group
    // that may match empty, which makes it quadratic: a megabyte of "(a*)+"
    // takes many minutes. No rule needs an expression this long.
    if (text.size() > kMaxRegularExpressionLength &&
        utf16Length(*unicode::decodeUTF8(text)) > kMaxRegularExpressionLength) {
        return true;
    }
    UErrorCode status = U_ZERO_ERROR;
    UParseError parseError;
    std::unique_ptr<icu::RegexPattern> pattern(
        icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(icu::StringPiece(
                                       text.data(), static_cast<int32_t>(text.size()))),
                                   UREGEX_CASE_INSENSITIVE, parseError, status));
    return U_FAILURE(status) || pattern == nullptr;
}

bool checkHasInvalidCharacters(std::string_view text) {
    return unicode::isValidUTF8(text) && containsAnyOf(text, "*[]()|$^");
}

bool checkHasPipe(std::string_view text) {
    return unicode::isValidUTF8(text) && containsAnyOf(text, "|");
}

bool checkHasSpaces(std::string_view text) {
    auto points = unicode::decodeUTF8(text);
    if (!points) return false;
    for (char32_t c : *points) {
        if (unicode::isWhitespace(c)) return true;
    }
    return false;
}

bool checkAscii(std::string_view text) {
    if (!unicode::isValidUTF8(text)) return false;
    for (unsigned char c : text) {
        if (c >= 0x80) return false;
    }
    return true;
}

bool checkHasInvalidDomainCharacters(std::string_view text) {
    return unicode::isValidUTF8(text) && containsAnyOf(text, "*[]()|$^;");
}

bool checkValidDomain(std::string_view text) {
    auto points = unicode::decodeUTF8(text);
    if (!points) return false;
    if (split(text, ' ').size() != 1) return false;
    const auto labels = split(text, '.');
    if (labels.size() < 2 || labels.size() > 7) return false;
    for (std::string_view label : labels) {
        const size_t length = utf16Length(unicode::decodeUTF8(label).value_or(std::u32string()));
        if (length < 1 || length > 100) return false;
    }
    return !checkHasInvalidDomainCharacters(text);
}

std::string normalizeString(std::string_view text) {
    if (!unicode::isValidUTF8(text)) return {};
    // Any script to Latin, then combining marks and diacritics removed. One
    // transliterator for the process; it is not safe for concurrent use.
    static std::mutex mutex;
    static std::unique_ptr<icu::Transliterator> transliterator;
    static bool created = false;
    std::lock_guard<std::mutex> lock(mutex);
    if (!created) {
        created = true;
        UErrorCode status = U_ZERO_ERROR;
        transliterator.reset(icu::Transliterator::createInstance(
            "Any-Latin; NFD; [:Mn:] Remove; [:Me:] Remove; NFC", UTRANS_FORWARD, status));
        if (U_FAILURE(status)) transliterator.reset();
    }
    if (!transliterator) return std::string(text);
    const icu::UnicodeString value = icu::UnicodeString::fromUTF8(
        icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
    // ICU's Any-Latin slows down with the length of the text (a megabyte of
    // Han takes minutes in one piece), so long text goes through in pieces.
    // The rules look at neighbouring letters (Han syllable spacing, Japanese
    // geminates, Greek final sigma) but not across white space, so pieces end
    // after white space; only a run of kHardPieceLength units without any is
    // cut elsewhere, at a character boundary.
    std::string out;
    out.reserve(text.size());
    const int32_t length = value.length();
    for (int32_t begin = 0; begin < length;) {
        int32_t end = std::min(length, begin + kPieceLength);
        while (end < length && !u_isUWhiteSpace(value.char32At(end - 1)) &&
               end - begin < kHardPieceLength) {
            ++end;
        }
        // Never between a surrogate pair or before a combining mark.
        while (end < length &&
               (U16_IS_TRAIL(value[end]) || (U_GET_GC_MASK(value.char32At(end)) & U_GC_M_MASK))) {
            ++end;
        }
        icu::UnicodeString piece(value, begin, end - begin);
        transliterator->transliterate(piece);
        piece.toUTF8String(out);
        begin = end;
    }
    return out;
}

std::string escapeData(std::string_view text) {
    if (!unicode::isValidUTF8(text)) return {};
    std::string out;
    out.reserve(text.size() + text.size() / 4);
    for (char c : text) {
        if (c == '.' || c == '?' || c == '^' || c == '+' || c == '|') out.push_back('\\');
        out.push_back(c);
    }
    return out;
}

}  // namespace stonewall::PunycodeAdditions
