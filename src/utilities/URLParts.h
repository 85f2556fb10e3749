#pragma once

// URLs: splitting them into parts, writing them with the host in its IDNA or
// Unicode form, and taking out their host and scheme.
//
// All functions take UTF-8 text. Text that is not valid UTF-8 gives the
// nil/empty result of the function (std::nullopt, ""): it is treated like a
// string that could not be made at all.

#include <optional>
#include <string>
#include <string_view>

#include "utilities/Nullable.h"

namespace stonewall::PunycodeAdditions {

// The parts of a URL; username, password and fragment only when found.
struct URLPartsDictionary {
    std::string scheme;
    std::string delim;
    std::string host;
    std::string path;
    NullableString username;
    NullableString password;
    NullableString fragment;

    bool operator==(const URLPartsDictionary&) const = default;
};
URLPartsDictionary URLParts(std::string_view url);
std::string encodedURLString(std::string_view url);
std::string decodedURLString(std::string_view url);

// The URL that encodedURLString of the text parses to (its absolute string),
// or std::nullopt when it does not parse as a URL.
std::optional<std::string> URLWithUnicodeString(std::string_view text);

// Host and scheme of the text taken as a URL (after IDNA encoding, so the
// host comes back in its "xn--" form); std::nullopt when it does not parse.
NullableString hostFromURL(std::string_view url);
NullableString schemeFromURL(std::string_view url);
// "%@://%@" of scheme and host, a missing part written as "(null)".
std::string schemeAndHostFromURL(std::string_view url);

}  // namespace stonewall::PunycodeAdditions
