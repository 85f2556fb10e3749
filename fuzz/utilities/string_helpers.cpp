#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "utilities/PunycodeAdditions.h"

using namespace stonewall::PunycodeAdditions;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::string cleansed = cleansedString(input);
    // Cut to at most 1001 UTF-16 units, so never more than 4004 bytes.
    if (cleansed.size() > 4004) std::abort();
    (void)trim(input);
    (void)removeCommas(input);
    (void)checkInvalidRegularExpression(input);
    (void)checkHasSpaces(input);
    (void)checkAscii(input);
    (void)checkValidDomain(input);
    (void)escapeData(input);
    (void)normalizeString(input);
    (void)buttonAttributedTitle(hyperlinkFromString(input, "https://example.com"));
    return 0;
}
