#include <gtest/gtest.h>

#include "utilities/PunycodeAdditions.h"

using namespace stonewall;
using namespace stonewall::PunycodeAdditions;

namespace {

TEST(StringHelpers, EscapingAndTrimming) {
    // Escaping touches exactly . ? ^ + | and never doubles a backslash.
    const std::pair<const char*, const char*> escapes[] = {
        {"ads.example.com/*?x", "ads\\.example\\.com/*\\?x"},
        {"^a+b|c$[()]\\", "\\^a\\+b\\|c$[()]\\"},
        {"\\.", "\\\\."},
        {"bücher.de", "bücher\\.de"},
    };
    for (const auto& [input, expected] : escapes) EXPECT_EQ(escapeData(input), expected);
    EXPECT_EQ(trim(" \n a b \t"), "a b");
}

TEST(StringHelpers, InvalidUtf8GivesTheEmptyResult) {
    for (const std::string bad :
         {"\xFF", "a\xC3", "\xC0\xAF", "\xED\xA0\x80.com", "\xF4\x90\x80\x80", "ok.\xE2\x82"}) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(trim(bad), "");
        EXPECT_EQ(escapeData(bad), "");
        EXPECT_EQ(hostFromURL("https://" + bad), std::nullopt);
        EXPECT_EQ(schemeFromURL("https://" + bad), std::nullopt);
        EXPECT_EQ(schemeAndHostFromURL(bad), "(null)://(null)");
        EXPECT_EQ(IDNAEncodedString(bad), "");
        EXPECT_EQ(IDNADecodedString(bad), "");
        EXPECT_EQ(URLWithUnicodeString(bad), std::nullopt);
        EXPECT_EQ(punycodeEncodedString(bad), std::nullopt);
    }
}

TEST(StringHelpers, HostTable) {
    const std::pair<std::string, NullableString> cases[] = {
        {"https://www.bücher.example/path", "www.xn--bcher-kva.example"},
        // The whole text is IDNA-encoded before parsing, so a Unicode first
        // label takes the scheme into its Punycode.
        {"https://bücher.example/path", "bcher-4ob.example"},
        {"https://news.example.org:8080/a?b#c", "news.example.org"},
        {"example.com/path", std::nullopt},  // no authority
        {"http://exa mple.com/", std::nullopt},
        {"http://[::1]:8080/", "::1"},
        {"http://user:pw@ä.example/", "xn--4ca.example"},
        {"http://a%41b.example/", "aAb.example"},
        {"", std::nullopt},
        {"https://www.b\u00FCcher.example/" + std::string(1 << 20, 'p'),
         "www.xn--bcher-kva.example"},
    };
    for (const auto& [url, host] : cases) EXPECT_EQ(hostFromURL(url), host) << url.substr(0, 40);
    EXPECT_EQ(schemeFromURL("HTTPS://a.b/"), "HTTPS");
    EXPECT_EQ(schemeAndHostFromURL("https://cdn.example.com/x.png"), "https://cdn.example.com");
    EXPECT_EQ(schemeAndHostFromURL("not a url"), "(null)://(null)");
    EXPECT_EQ(schemeAndHostFromURL("mailto:someone@example.com"), "mailto://(null)");
}

}  // namespace
