#include <string_view>

#include "utilities/PunycodeAdditions.h"

using namespace stonewall::PunycodeAdditions;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    (void)URLParts(input);
    (void)encodedURLString(input);
    (void)decodedURLString(input);
    (void)hostFromURL(input);
    (void)schemeAndHostFromURL(input);
    (void)cleansedString(input);
    (void)checkValidDomain(input);
    return 0;
}
