#pragma once

// Small text helpers shared by the engine's files (not part of its interface).

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace stonewall::engine_detail {

// Splits at every occurrence of the separator, keeping empty pieces, as the
// stored comma lists are written: "" gives one empty piece, "a," gives "a", "".
inline std::vector<std::string> componentsSeparatedByString(std::string_view text,
                                                            std::string_view separator) {
    std::vector<std::string> pieces;
    if (separator.empty()) {
        pieces.emplace_back(text);
        return pieces;
    }
    size_t start = 0;
    while (true) {
        size_t end = text.find(separator, start);
        if (end == std::string_view::npos) {
            pieces.emplace_back(text.substr(start));
            return pieces;
        }
        pieces.emplace_back(text.substr(start, end - start));
        start = end + separator.size();
    }
}

// The pieces joined, with one allocation. (Chains of std::string operator+
// also trip a false -Wrestrict alarm in g++ 12 at -O2.)
inline std::string concatenate(std::initializer_list<std::string_view> pieces) {
    size_t size = 0;
    for (std::string_view piece : pieces) size += piece.size();
    std::string result;
    result.reserve(size);
    for (std::string_view piece : pieces) result.append(piece);
    return result;
}

}  // namespace stonewall::engine_detail
