// Punycode (RFC 3492) for single labels and IDNA label by label for host
// names and e-mail-like strings.

#include "utilities/Punycode.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "utilities/Nullable.h"
#include "utilities/Unicode.h"

namespace stonewall::PunycodeAdditions {

namespace {

constexpr uint32_t kBase = 36;
constexpr uint32_t kTMin = 1;
constexpr uint32_t kTMax = 26;
constexpr uint32_t kSkew = 38;
constexpr uint32_t kDamp = 700;
constexpr uint32_t kInitialBias = 72;
constexpr uint32_t kInitialN = 128;
constexpr char32_t kDelimiter = U'-';
constexpr uint32_t kMaxInt = std::numeric_limits<uint32_t>::max();

// RFC 3454 table B.1, "commonly mapped to nothing": the only nameprep step
// that is applied.
bool isIgnored(char32_t c) {
    switch (c) {
        case 0x00AD:
        case 0x034F:
        case 0x1806:
        case 0x180B:
        case 0x180C:
        case 0x180D:
        case 0x200B:
        case 0x200C:
        case 0x200D:
        case 0x2060:
        case 0xFEFF:
            return true;
        default:
            return c >= 0xFE00 && c <= 0xFE0F;
    }
}

uint32_t adapt(uint32_t delta, uint32_t numPoints, bool firstTime) {
    delta = firstTime ? delta / kDamp : delta / 2;
    delta += delta / numPoints;
    uint32_t k = 0;
    while (delta > ((kBase - kTMin) * kTMax) / 2) {
        delta /= kBase - kTMin;
        k += kBase;
    }
    return k + (kBase * delta) / (delta + kSkew);
}

char encodeDigit(uint32_t d) { return static_cast<char>(d < 26 ? 'a' + d : '0' + (d - 26)); }

// Digit value, or kBase for a character that is no digit.
uint32_t decodeDigit(char32_t c) {
    if (c >= U'0' && c <= U'9') return c - U'0' + 26;
    if (c >= U'A' && c <= U'Z') return c - U'A';
    if (c >= U'a' && c <= U'z') return c - U'a';
    return kBase;
}

uint32_t threshold(uint32_t k, uint32_t bias) {
    if (k <= bias) return kTMin;
    if (k >= bias + kTMax) return kTMax;
    return k - bias;
}

// Counts marked positions; lets the coder find "how many smaller code points
// lie between these two positions" and "the k-th free slot" in O(log n), so
// a label of a megabyte costs n log n instead of the reference code's n^2.
class PositionTree {
  public:
    explicit PositionTree(size_t size) : tree_(size + 1, 0) {}

    // A tree with every position marked.
    static PositionTree allMarked(size_t size) {
        PositionTree result(size);
        for (size_t i = 1; i <= size; ++i) {
            result.tree_[i] += 1;
            const size_t parent = i + (i & (~i + 1));
            if (parent <= size) result.tree_[parent] += result.tree_[i];
        }
        return result;
    }

    void add(size_t position, int32_t value) {
        for (size_t i = position + 1; i < tree_.size(); i += i & (~i + 1)) {
            tree_[i] = static_cast<uint32_t>(static_cast<int64_t>(tree_[i]) + value);
        }
    }

    // Marked positions before `end`.
    uint32_t countBefore(size_t end) const {
        uint32_t sum = 0;
        for (size_t i = end; i > 0; i -= i & (~i + 1)) sum += tree_[i];
        return sum;
    }

    // The marked position that has `rank` marked positions before it; the
    // caller guarantees that rank is below the number of marked positions.
    size_t findByRank(uint32_t rank) const {
        size_t position = 0;
        size_t step = 1;
        while (step * 2 < tree_.size()) step *= 2;
        for (; step > 0; step /= 2) {
            if (position + step < tree_.size() && tree_[position + step] <= rank) {
                position += step;
                rank -= tree_[position];
            }
        }
        return position;  // 0-based: the tree is 1-based
    }

  private:
    std::vector<uint32_t> tree_;
};

void appendInteger(std::string& out, uint32_t q, uint32_t bias) {
    for (uint32_t k = kBase;; k += kBase) {
        const uint32_t t = threshold(k, bias);
        if (q < t) break;
        out.push_back(encodeDigit(t + (q - t) % (kBase - t)));
        q = (q - t) / (kBase - t);
    }
    out.push_back(encodeDigit(q));
}

// RFC 3492 encoding. The reference code walks the whole input once per
// distinct code point; this visits the code points in ascending order and
// counts the smaller ones between two occurrences with a PositionTree, which
// gives the same deltas, the same overflow failures and the same output.
std::optional<std::string> encodeCodePoints(const std::u32string& input) {
    std::string out;
    out.reserve(input.size() * 2);
    for (char32_t c : input) {
        if (c < 0x80) out.push_back(static_cast<char>(c));
    }
    const auto basicCount = static_cast<uint32_t>(out.size());
    if (basicCount > 0) out.push_back(static_cast<char>(kDelimiter));
    if (basicCount == input.size()) return out;
    // A label of 2^32 code points or more cannot be counted in 32 bits.
    if (input.size() >= kMaxInt) return std::nullopt;

    std::vector<std::pair<char32_t, uint32_t>> pending;  // (code point, position)
    pending.reserve(input.size() - basicCount);
    PositionTree smaller(input.size());  // positions of code points below n
    for (size_t j = 0; j < input.size(); ++j) {
        if (input[j] < 0x80) {
            smaller.add(j, 1);
        } else {
            pending.emplace_back(input[j], static_cast<uint32_t>(j));
        }
    }
    std::sort(pending.begin(), pending.end());

    uint32_t n = kInitialN, delta = 0, bias = kInitialBias, h = basicCount;
    for (size_t group = 0; group < pending.size();) {
        const uint32_t m = pending[group].first;
        if ((m - n) > (kMaxInt - delta) / (h + 1)) return std::nullopt;
        delta += (m - n) * (h + 1);
        n = m;
        size_t groupEnd = group;
        while (groupEnd < pending.size() && pending[groupEnd].first == m) ++groupEnd;
        size_t previous = 0;  // positions before this one are already counted
        for (size_t g = group; g < groupEnd; ++g) {
            const size_t position = pending[g].second;
            const uint32_t between = smaller.countBefore(position) - smaller.countBefore(previous);
            if (between > kMaxInt - delta) return std::nullopt;
            delta += between;
            appendInteger(out, delta, bias);
            bias = adapt(delta, h + 1, h == basicCount);
            delta = 0;
            ++h;
            previous = position + 1;
        }
        // The rest of the pass: smaller code points after the last occurrence.
        delta += smaller.countBefore(input.size()) - smaller.countBefore(previous);
        for (size_t g = group; g < groupEnd; ++g) smaller.add(pending[g].second, 1);
        group = groupEnd;
        ++delta;
        ++n;
    }
    return out;
}

// RFC 3492 decoding. The reference code inserts each code point into the
// output as it goes, which moves the whole tail every time; this records the
// (code point, insertion index) pairs and places them afterwards, last one
// first, each into the free slot of its rank.
std::optional<std::u32string> decodeCodePoints(const std::u32string& input) {
    std::u32string basic;
    size_t start = 0;
    const size_t delimiter = input.rfind(kDelimiter);
    if (delimiter != std::u32string::npos && delimiter > 0) {
        for (size_t j = 0; j < delimiter; ++j) {
            if (input[j] >= 0x80) return std::nullopt;
            basic.push_back(input[j]);
        }
        start = delimiter + 1;
    }
    if (input.size() >= kMaxInt) return std::nullopt;
    std::vector<std::pair<char32_t, uint32_t>> insertions;  // (code point, index)
    uint32_t n = kInitialN, i = 0, bias = kInitialBias;
    for (size_t in = start; in < input.size();) {
        const uint32_t oldi = i;
        uint32_t w = 1;
        for (uint32_t k = kBase;; k += kBase) {
            if (in >= input.size()) return std::nullopt;
            const uint32_t digit = decodeDigit(input[in++]);
            if (digit >= kBase) return std::nullopt;
            if (digit > (kMaxInt - i) / w) return std::nullopt;
            i += digit * w;
            const uint32_t t = threshold(k, bias);
            if (digit < t) break;
            if (w > kMaxInt / (kBase - t)) return std::nullopt;
            w *= kBase - t;
        }
        const auto outCount = static_cast<uint32_t>(basic.size() + insertions.size() + 1);
        bias = adapt(i - oldi, outCount, oldi == 0);
        if (i / outCount > kMaxInt - n) return std::nullopt;
        n += i / outCount;
        i %= outCount;
        // A value that is no Unicode scalar value cannot become a string.
        if (n > 0x10FFFF || (n >= 0xD800 && n <= 0xDFFF)) return std::nullopt;
        insertions.emplace_back(static_cast<char32_t>(n), i);
        ++i;
    }
    if (insertions.empty()) return basic;

    const size_t length = basic.size() + insertions.size();
    std::u32string out(length, U'\0');
    std::vector<bool> taken(length, false);
    PositionTree free = PositionTree::allMarked(length);
    for (size_t r = insertions.size(); r-- > 0;) {
        const size_t slot = free.findByRank(insertions[r].second);
        out[slot] = insertions[r].first;
        taken[slot] = true;
        free.add(slot, -1);
    }
    size_t next = 0;
    for (size_t slot = 0; slot < length; ++slot) {
        if (!taken[slot]) out[slot] = basic[next++];
    }
    return out;
}

bool isDotOrAt(char32_t c) { return c == U'.' || c == U'@'; }

// Walks text the way the host-name scanner does: at each token start white
// space and line breaks are skipped; a token is either a label (a run of
// anything but "." and "@") or a run of separators.
template <typename OnLabel, typename OnSeparators>
void scanLabels(const std::u32string& text, OnLabel onLabel, OnSeparators onSeparators) {
    size_t pos = 0;
    auto skip = [&] {
        while (pos < text.size() && unicode::isWhitespaceOrNewline(text[pos])) ++pos;
    };
    while (true) {
        skip();
        if (pos >= text.size()) break;
        size_t begin = pos;
        while (pos < text.size() && !isDotOrAt(text[pos])) ++pos;
        if (pos > begin) onLabel(std::u32string_view(text).substr(begin, pos - begin));
        skip();
        begin = pos;
        while (pos < text.size() && isDotOrAt(text[pos])) ++pos;
        if (pos > begin) onSeparators(std::u32string_view(text).substr(begin, pos - begin));
    }
}

// Every byte in 0x21..0x7E. Eight bytes at a time: the rule compiler asks
// this of every domain, and a byte-wise loop costs as much as the copy.
bool isPlainASCIIHost(std::string_view text) {
    constexpr uint64_t kOnes = 0x0101010101010101ull;
    constexpr uint64_t kHighBits = 0x8080808080808080ull;
    size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        uint64_t word;
        std::memcpy(&word, text.data() + i, 8);
        // A byte below 0x21, or a byte above 0x7E (0x7F and up), anywhere in
        // the word (the "haszero"/"hasless" and "hasmore" bit tricks).
        const uint64_t below = (word - kOnes * 0x21) & ~word & kHighBits;
        const uint64_t above = ((word + kOnes) | word) & kHighBits;
        if (below | above) return false;
    }
    for (; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x21 || c > 0x7E) return false;
    }
    return true;
}

}  // namespace

std::u32string longCharactersWithCount(std::string_view text) {
    return unicode::decodeUTF8(text).value_or(std::u32string());
}

std::string stringByDeletingIgnoredCharacters(std::string_view text) {
    auto points = unicode::decodeUTF8(text);
    if (!points) return {};
    std::string out;
    out.reserve(text.size());
    for (char32_t c : *points) {
        if (!isIgnored(c)) unicode::appendUTF8(out, c);
    }
    return out;
}

std::optional<std::string> punycodeEncodedString(std::string_view label) {
    auto points = unicode::decodeUTF8(label);
    if (!points) return std::nullopt;
    std::u32string kept;
    kept.reserve(points->size());
    for (char32_t c : *points) {
        if (!isIgnored(c)) kept.push_back(c);
    }
    return encodeCodePoints(kept);
}

std::optional<std::string> punycodeDecodedString(std::string_view label) {
    auto points = unicode::decodeUTF8(label);
    if (!points) return std::nullopt;
    auto decoded = decodeCodePoints(*points);
    if (!decoded) return std::nullopt;
    return unicode::encodeUTF8(*decoded);
}

std::string IDNAEncodedString(std::string_view text) {
    // Printable ASCII is its own NFKC form, holds no white space to skip and
    // no label that needs Punycode: the compiler's common case is a copy.
    if (isPlainASCIIHost(text)) return std::string(text);
    auto points = unicode::decodeUTF8(text);
    if (!points) return {};
    const std::u32string normalized = unicode::nfkc(*points);
    std::string out;
    out.reserve(text.size() + 8);
    scanLabels(
        normalized,
        [&](std::u32string_view label) {
            bool ascii = true;
            for (char32_t c : label) {
                if (c == 0 || c > 0x7F) {
                    ascii = false;
                    break;
                }
            }
            if (ascii) {
                for (char32_t c : label) out.push_back(static_cast<char>(c));
                return;
            }
            std::u32string kept;
            for (char32_t c : label) {
                if (!isIgnored(c)) kept.push_back(c);
            }
            auto encoded = encodeCodePoints(kept);
            out += "xn--";
            out += encoded ? *encoded : std::string(kNullText);
        },
        [&](std::u32string_view separators) {
            for (char32_t c : separators) out.push_back(static_cast<char>(c));
        });
    return out;
}

std::string IDNADecodedString(std::string_view text) {
    auto points = unicode::decodeUTF8(text);
    if (!points) return {};
    std::string out;
    out.reserve(text.size());
    scanLabels(
        *points,
        [&](std::u32string_view label) {
            const bool prefixed = label.size() >= 4 && (label[0] == U'x' || label[0] == U'X') &&
                                  (label[1] == U'n' || label[1] == U'N') && label[2] == U'-' &&
                                  label[3] == U'-';
            if (!prefixed) {
                for (char32_t c : label) unicode::appendUTF8(out, c);
                return;
            }
            // A label that does not decode is left out; its separators stay.
            auto decoded = decodeCodePoints(std::u32string(label.substr(4)));
            if (decoded) {
                for (char32_t c : *decoded) unicode::appendUTF8(out, c);
            }
        },
        [&](std::u32string_view separators) {
            for (char32_t c : separators) out.push_back(static_cast<char>(c));
        });
    return out;
}

}  // namespace stonewall::PunycodeAdditions
