#include <cstdint>
#include <string>

#include "utilities/Custom.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    (void)stonewall::Custom::dateFromRFC3339String(
        std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
