#include <string_view>

#include "utilities/PunycodeAdditions.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    auto encoded = stonewall::PunycodeAdditions::IDNAEncodedString(input);
    (void)stonewall::PunycodeAdditions::IDNADecodedString(encoded);
    (void)stonewall::PunycodeAdditions::IDNADecodedString(input);
    return 0;
}
