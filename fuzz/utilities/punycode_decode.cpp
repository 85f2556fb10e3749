#include <cstdint>
#include <string_view>

#include "utilities/PunycodeAdditions.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    auto decoded = stonewall::PunycodeAdditions::punycodeDecodedString(input);
    // Whatever decodes must encode again without failing.
    if (decoded && !decoded->empty())
        (void)stonewall::PunycodeAdditions::punycodeEncodedString(*decoded);
    return 0;
}
