// Splitting URLs into parts and writing them with the host in its IDNA form
// (encodedURLString) or its Unicode form (decodedURLString).

#include "utilities/URLParts.h"

#include <uriparser/Uri.h>

#include <vector>

#include "utilities/Punycode.h"
#include "utilities/Unicode.h"

namespace stonewall::PunycodeAdditions {

namespace {

// A scanner over code points that skips white space and line breaks before
// every scan, and counts its position in UTF-16 units as well.
class Scanner {
  public:
    explicit Scanner(const std::u32string& text) : text_(text) {}

    bool isAtEnd() {
        size_t p = pos_;
        while (p < text_.size() && unicode::isWhitespaceOrNewline(text_[p])) ++p;
        return p >= text_.size();
    }

    // Scans up to (not including) the first character for which stop() holds.
    template <typename Stop>
    bool scanUpTo(Stop stop, std::u32string& into) {
        skip();
        const size_t begin = pos_;
        while (pos_ < text_.size() && !stop(text_[pos_])) ++pos_;
        if (pos_ == begin) return false;
        into.assign(text_, begin, pos_ - begin);
        return true;
    }

    template <typename Accept>
    bool scanWhile(Accept accept, std::u32string& into) {
        skip();
        const size_t begin = pos_;
        while (pos_ < text_.size() && accept(text_[pos_])) ++pos_;
        if (pos_ == begin) return false;
        into.assign(text_, begin, pos_ - begin);
        return true;
    }

    bool scanCharacter(char32_t c) {
        skip();
        if (pos_ < text_.size() && text_[pos_] == c) {
            ++pos_;
            return true;
        }
        return false;
    }

    size_t utf16Position() const {
        size_t units = 0;
        for (size_t i = 0; i < pos_; ++i) units += unicode::utf16Length(text_[i]);
        return units;
    }

  private:
    void skip() {
        while (pos_ < text_.size() && unicode::isWhitespaceOrNewline(text_[pos_])) ++pos_;
    }

    const std::u32string& text_;
    size_t pos_ = 0;
};

// Whether the UTF-16 unit at that index of the text is a colon.
bool colonAtUTF16Index(const std::u32string& text, size_t index) {
    size_t units = 0;
    for (char32_t c : text) {
        if (units == index) return c == U':';
        units += unicode::utf16Length(c);
        if (units > index) return false;
    }
    return false;
}

std::vector<std::u32string> split(const std::u32string& text, char32_t separator) {
    std::vector<std::u32string> pieces;
    size_t begin = 0;
    while (true) {
        const size_t at = text.find(separator, begin);
        if (at == std::u32string::npos) {
            pieces.emplace_back(text, begin);
            return pieces;
        }
        pieces.emplace_back(text, begin, at - begin);
        begin = at + 1;
    }
}

bool isUnreserved(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}
bool isSubDelimiter(unsigned char c) {
    return c == '!' || c == '$' || c == '&' || c == '\'' || c == '(' || c == ')' || c == '*' ||
           c == '+' || c == ',' || c == ';' || c == '=';
}

enum class Component { User, Password, Path, Fragment };

// The standard allowed sets of URL user, password, path and fragment; the
// path additionally keeps "%" and "?" (existing escapes and the query), the
// fragment keeps "%".
bool isAllowed(Component component, unsigned char c) {
    if (isUnreserved(c)) return true;
    switch (component) {
        case Component::User:
        case Component::Password:
            return isSubDelimiter(c);
        case Component::Path:
            return (isSubDelimiter(c) && c != ';') || c == '/' || c == ':' || c == '@' ||
                   c == '%' || c == '?';
        case Component::Fragment:
            return isSubDelimiter(c) || c == '/' || c == ':' || c == '@' || c == '?' || c == '%';
    }
    return false;
}

std::string percentEncode(std::string_view text, Component component) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (isAllowed(component, c)) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back('%');
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0xF]);
        }
    }
    return out;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Percent-decoding that fails on a malformed escape or on bytes that are not
// UTF-8, as the platform's decoder does.
std::optional<std::string> percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out.push_back(text[i]);
            continue;
        }
        if (i + 2 >= text.size()) return std::nullopt;
        const int high = hexValue(text[i + 1]);
        const int low = hexValue(text[i + 2]);
        if (high < 0 || low < 0) return std::nullopt;
        out.push_back(static_cast<char>(high * 16 + low));
        i += 2;
    }
    if (!unicode::isValidUTF8(out)) return std::nullopt;
    return out;
}

}  // namespace

URLPartsDictionary URLParts(std::string_view url) {
    URLPartsDictionary parts;
    auto original = unicode::decodeUTF8(url);
    if (!original) return parts;
    const std::u32string normalized = unicode::nfkc(*original);
    Scanner scanner(normalized);

    std::u32string host, token, path, fragment;
    bool hasFragment = false;
    std::u32string scheme, delim;
    auto colonOrSlash = [](char32_t c) { return c == U':' || c == U'/'; };
    if (scanner.scanUpTo(colonOrSlash, host)) {
        // The colon test reads the text as given, at the position reached in
        // its normalised form.
        if (!scanner.isAtEnd() && colonAtUTF16Index(*original, scanner.utf16Position())) {
            scheme = host;
            if (!scanner.isAtEnd()) scanner.scanWhile(colonOrSlash, delim);
            if (!scanner.isAtEnd()) {
                scanner.scanUpTo([](char32_t c) { return c == U'/' || c == U'?'; }, host);
            }
        }
    }
    if (!scanner.isAtEnd()) scanner.scanUpTo([](char32_t c) { return c == U'#'; }, path);
    if (!scanner.isAtEnd()) {
        scanner.scanCharacter(U'#');
        hasFragment = scanner.scanUpTo(
            [](char32_t c) {
                return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
            },
            fragment);
    }

    auto pieces = split(host, U'@');
    if (pieces.size() > 1) {
        host = pieces[1];
        auto credentials = split(pieces[0], U':');
        parts.username = unicode::encodeUTF8(credentials[0]);
        if (credentials.size() > 1) parts.password = unicode::encodeUTF8(credentials[1]);
    }
    parts.scheme = unicode::encodeUTF8(scheme);
    parts.delim = unicode::encodeUTF8(delim);
    parts.host = unicode::encodeUTF8(host);
    parts.path = unicode::encodeUTF8(path);
    if (hasFragment) parts.fragment = unicode::encodeUTF8(fragment);
    return parts;
}

std::string encodedURLString(std::string_view url) {
    if (!unicode::isValidUTF8(url)) return {};
    const URLPartsDictionary parts = URLParts(url);
    std::string out = parts.scheme + parts.delim;
    if (parts.username) {
        out += percentEncode(*parts.username, Component::User);
        if (parts.password) {
            out += ':';
            out += percentEncode(*parts.password, Component::Password);
        }
        out += '@';
    }
    out += IDNAEncodedString(parts.host);
    out += percentEncode(parts.path, Component::Path);
    if (parts.fragment) {
        out += '#';
        out += percentEncode(*parts.fragment, Component::Fragment);
    }
    return out;
}

std::string decodedURLString(std::string_view url) {
    if (!unicode::isValidUTF8(url)) return {};
    const URLPartsDictionary parts = URLParts(url);
    auto decodedOrNull = [](const std::string& text) {
        auto decoded = percentDecode(text);
        return decoded ? *decoded : std::string(kNullText);
    };
    std::string out = parts.scheme + parts.delim;
    if (parts.username) {
        out += decodedOrNull(*parts.username);
        if (parts.password) {
            out += ':';
            out += decodedOrNull(*parts.password);
        }
        out += '@';
    }
    out += IDNADecodedString(parts.host);
    out += percentDecode(parts.path).value_or(std::string());
    if (parts.fragment) {
        out += '#';
        out += decodedOrNull(*parts.fragment);
    }
    return out;
}

namespace {

// Owns the text: uriparser's ranges point into it.
struct ParsedURI {
    std::string text;
    UriUriA uri{};
    bool ok = false;
    explicit ParsedURI(std::string source) : text(std::move(source)) {
        const char* error = nullptr;
        ok = !text.empty() && uriParseSingleUriExA(&uri, text.data(), text.data() + text.size(),
                                                   &error) == URI_SUCCESS;
    }
    ~ParsedURI() {
        if (ok) uriFreeUriMembersA(&uri);
    }
    ParsedURI(const ParsedURI&) = delete;
    ParsedURI& operator=(const ParsedURI&) = delete;
};

std::string rangeText(const UriTextRangeA& range) {
    if (range.first == nullptr || range.afterLast == nullptr) return {};
    return std::string(range.first, range.afterLast);
}

}  // namespace

std::optional<std::string> URLWithUnicodeString(std::string_view text) {
    if (!unicode::isValidUTF8(text)) return std::nullopt;
    std::string encoded = encodedURLString(text);
    ParsedURI parsed(encoded);
    if (!parsed.ok) return std::nullopt;
    return encoded;
}

NullableString hostFromURL(std::string_view url) {
    if (!unicode::isValidUTF8(url)) return std::nullopt;
    ParsedURI parsed(IDNAEncodedString(url));
    if (!parsed.ok) return std::nullopt;
    // No authority at all: no host (an empty authority gives an empty host).
    if (parsed.uri.hostText.first == nullptr) return std::nullopt;
    return percentDecode(rangeText(parsed.uri.hostText)).value_or(rangeText(parsed.uri.hostText));
}

NullableString schemeFromURL(std::string_view url) {
    if (!unicode::isValidUTF8(url)) return std::nullopt;
    ParsedURI parsed(IDNAEncodedString(url));
    if (!parsed.ok || parsed.uri.scheme.first == nullptr) return std::nullopt;
    return rangeText(parsed.uri.scheme);
}

std::string schemeAndHostFromURL(std::string_view url) {
    return textOrNull(schemeFromURL(url)) + "://" + textOrNull(hostFromURL(url));
}

}  // namespace stonewall::PunycodeAdditions
