#include "model/RuleText.h"

#include <cstddef>
#include <limits>
#include <unordered_set>

namespace stonewall::RuleText {

void appendComponents(std::string_view text, std::vector<std::string>& out) {
    size_t start = 0;
    while (true) {
        const size_t comma = text.find(kListSeparator, start);
        if (comma == std::string_view::npos) {
            out.emplace_back(text.substr(start));
            return;
        }
        out.emplace_back(text.substr(start, comma - start));
        start = comma + 1;
    }
}

std::vector<std::string> components(std::string_view text) {
    std::vector<std::string> pieces;
    // Sized up front: the compiler splits tens of thousands of these per run.
    size_t commas = 0;
    for (char c : text) commas += c == kListSeparator;
    pieces.reserve(commas + 1);
    appendComponents(text, pieces);
    return pieces;
}

std::string joinComponents(const std::vector<std::string>& pieces) {
    size_t length = pieces.empty() ? 0 : pieces.size() - 1;
    for (const auto& piece : pieces) length += piece.size();
    std::string joined;
    joined.reserve(length);
    for (size_t i = 0; i < pieces.size(); ++i) {
        if (i) joined.push_back(kListSeparator);
        joined += pieces[i];
    }
    return joined;
}

int64_t integerValue(std::string_view text) {
    size_t i = 0;
    auto isSpace = [](char c) {
        return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
    };
    while (i < text.size() && isSpace(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    // Accumulate towards the sign's own end so that INT64_MIN is reachable
    // without overflowing on the way.
    constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
    constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
    int64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        const int digit = text[i] - '0';
        if (negative) {
            if (value < (kMin + digit) / 10) return kMin;
            value = value * 10 - digit;
        } else {
            if (value > (kMax - digit) / 10) return kMax;
            value = value * 10 + digit;
        }
    }
    return value;
}

void appendInteger(std::string& out, int64_t value) {
    char buffer[24];
    char* const end = buffer + sizeof buffer;
    char* p = end;
    // Unsigned arithmetic, so that INT64_MIN negates cleanly.
    uint64_t magnitude =
        value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    do {
        *--p = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude);
    if (value < 0) *--p = '-';
    out.append(p, end);
}

std::string mergeDomains(const NullableString& own, const NullableString& other) {
    const std::vector<std::string> ownPieces = own ? components(*own) : std::vector<std::string>{};
    const std::vector<std::string> otherPieces =
        other ? components(*other) : std::vector<std::string>{};
    const std::unordered_set<std::string_view> known(ownPieces.begin(), ownPieces.end());

    std::vector<std::string> merged;
    merged.reserve(otherPieces.size() + ownPieces.size());
    // The set is deliberately not updated while the other list is scanned:
    // the product's other programs keep repeats within it, and so do we.
    for (const std::string& piece : otherPieces) {
        if (!known.contains(piece)) merged.push_back(piece);
    }
    merged.insert(merged.end(), ownPieces.begin(), ownPieces.end());
    return joinComponents(merged);
}

}  // namespace stonewall::RuleText
