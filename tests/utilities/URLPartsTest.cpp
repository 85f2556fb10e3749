#include <gtest/gtest.h>

#include "utilities/PunycodeAdditions.h"

using namespace stonewall;
using namespace stonewall::PunycodeAdditions;

namespace {

TEST(URLParts, SplitTable) {
    struct Case {
        std::string url;
        URLPartsDictionary parts;  // scheme, delim, host, path, username, password, fragment
    };
    const Case cases[] = {
        {"ftp://user:pw@bücher.example:8080/a b?q=1#frag",
         {"ftp", "://", "bücher.example:8080", "/a b?q=1", "user", "pw", "frag"}},
        {"example.com/path", {"", "", "example.com", "/path", {}, {}, {}}},
        {"http://a@b@c/x", {"http", "://", "b", "/x", "a", {}, {}}},
        {"mailto:someone", {"mailto", ":", "someone", "", {}, {}, {}}},
        {"https://example.com", {"https", "://", "example.com", "", {}, {}, {}}},
        {"https://example.com?q=1", {"https", "://", "example.com", "?q=1", {}, {}, {}}},
        {"https://example.com#top", {"https", "://", "example.com#top", "", {}, {}, {}}},
        {"https://example.com/#", {"https", "://", "example.com", "/", {}, {}, {}}},
        {"https://h/p#frag\nmore", {"https", "://", "h", "/p", {}, {}, "frag"}},
        // The delimiter takes every ":" and "/" in a row.
        {"http:///path", {"http", ":///", "path", "", {}, {}, {}}},
        {"ftp://:secret@host/", {"ftp", "://:", "host", "/", "secret", {}, {}}},
        {"/just/a/path", {"", "", "", "/just/a/path", {}, {}, {}}},
        {"user@host", {"", "", "host", "", "user", {}, {}}},
        {"ftp://a:b:c@host/", {"ftp", "://", "host", "/", "a", "b", {}}},
        // White space goes where a token starts, not inside one.
        {"  https://  ex ample.com /x", {"https", "://", "ex ample.com ", "/x", {}, {}, {}}},
        {"", {"", "", "", "", {}, {}, {}}},
        {"::::", {"", "", "", "::::", {}, {}, {}}},
        {std::string(100000, ':'), {"", "", "", std::string(100000, ':'), {}, {}, {}}},
        // Full-width letters fold under NFKC; the colon test reads the
        // original text at the folded position.
        {"\uFF48ttp://x", {"http", "://", "x", "", {}, {}, {}}},
    };
    const auto fields = [](const URLPartsDictionary& p) {
        return std::tie(p.scheme, p.delim, p.host, p.path, p.username, p.password, p.fragment);
    };
    for (const auto& c : cases) {
        const URLPartsDictionary parts = URLParts(c.url);
        EXPECT_EQ(fields(parts), fields(c.parts)) << c.url.substr(0, 40);
    }
}

TEST(URLParts, EncodeTable) {
    const std::pair<const char*, const char*> cases[] = {
        {"ftp://user:pw@bücher.example:8080/a b?q=1#frag",
         "ftp://user:pw@xn--bcher-kva.example:8080/a%20b?q=1#frag"},
        // User and password keep unreserved and sub-delimiters.
        {"http://a!$&'()*+,;=~b:p!$&'()*+,;=~w@h/", "http://a!$&'()*+,;=~b:p!$&'()*+,;=~w@h/"},
        {"http://us er:pa ss@h/", "http://us%20er:pa%20ss@h/"},
        {"http://u:@h/", "http://u:@h/"},
        {"http://us\u00E9r@h/", "http://us%C3%A9r@h/"},
        // The path keeps ":", "@", existing escapes and the query, but not ";".
        {"http://h/a:b@c;d%20e?f=g h", "http://h/a:b@c%3Bd%20e?f=g%20h"},
        {"http://h/[x]{y}|\\^`\"<>", "http://h/%5Bx%5D%7By%7D%7C%5C%5E%60%22%3C%3E"},
        // The fragment keeps "/", "?", ":", "@" and "%", but a second "#" is escaped.
        {"http://h/#a/b?c:d@e%41#f g", "http://h/#a/b?c:d@e%41%23f%20g"},
        {"http://h/#\u00E4", "http://h/#%C3%A4"},
    };
    for (const auto& [input, expected] : cases)
        EXPECT_EQ(encodedURLString(input), expected) << input;
}

TEST(URLParts, URLWithUnicodeStringTable) {
    const std::pair<const char*, std::optional<std::string>> unicode[] = {
        {"https://bücher.example/straße?q=ä#top",
         "https://xn--bcher-kva.example/stra%C3%9Fe?q=%C3%A4#top"},
        {"https://example.com/%zz", std::nullopt},  // the kept "%" makes a bad escape
        {"http://exa mple.com/", std::nullopt},
        {"", std::nullopt},
        {"relative/path", "relative/path"},
    };
    for (const auto& [input, expected] : unicode)
        EXPECT_EQ(URLWithUnicodeString(input), expected) << input;
}

}  // namespace
