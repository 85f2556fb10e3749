#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "utilities/PunycodeAdditions.h"

using namespace stonewall::PunycodeAdditions;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    const URLPartsDictionary parts = URLParts(input);
    (void)encodedURLString(input);
    (void)decodedURLString(input);
    (void)URLWithUnicodeString(input);
    (void)schemeAndHostFromURL(input);
    // The host comes back in its ASCII form: the text is IDNA-encoded before
    // parsing, so only a percent escape can bring a byte above 0x7F back.
    if (auto host = hostFromURL(input); host && input.find('%') == std::string_view::npos) {
        for (unsigned char c : *host) {
            if (c >= 0x80) std::abort();
        }
    }
    (void)parts;
    return 0;
}
