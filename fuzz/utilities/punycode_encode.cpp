#include <cstdint>
#include <cstdlib>
#include <string>

#include "utilities/PunycodeAdditions.h"

using namespace stonewall::PunycodeAdditions;

// Round trip: a label without ignored characters decodes back to itself
// whenever it encodes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string label(reinterpret_cast<const char*>(data), size);
    auto encoded = punycodeEncodedString(label);
    if (!encoded) return 0;
    if (stringByDeletingIgnoredCharacters(label) != label) return 0;
    // A label of basic code points only is written with a trailing delimiter.
    auto decoded = punycodeDecodedString(*encoded);
    if (!decoded || *decoded != label) std::abort();
    return 0;
}
