#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "utilities/PunycodeAdditions.h"

using namespace stonewall::PunycodeAdditions;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::string encoded = IDNAEncodedString(input);
    // Every label with a byte outside ASCII is written in Punycode.
    for (unsigned char c : encoded) {
        if (c >= 0x80) std::abort();
    }
    (void)IDNADecodedString(encoded);
    (void)IDNADecodedString(input);
    return 0;
}
