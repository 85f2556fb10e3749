// Identifiers cut from a SHA-1 digest of a seed text.

#include "utilities/Generator.h"

#include <cstdio>
#include <exception>
#include <random>

#include "utilities/Custom.h"
#include "utilities/SHA1.h"

namespace stonewall {

namespace {

uint32_t strongRandom32() {
    // The system's non-deterministic source (the CPU's generator or the
    // kernel's); without one the seed keeps its time stamp to stay apart.
    try {
        std::random_device device;
        return device();
    } catch (const std::exception&) {
        return 0;
    }
}

// "%06x" of 24 random bits, "." and "%f" of the current time.
std::string randomSeedTail() {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%06x.%f", strongRandom32() & 0xFFFFFFu,
                  Custom::currentTimestamp());
    return buffer;
}

std::string digestHex(const std::string& seed, size_t byteCount) {
    const auto digest = sha1(seed);
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(byteCount * 2);
    for (size_t i = 0; i < byteCount && i < digest.size(); ++i) {
        out.push_back(kHex[digest[i] >> 4]);
        out.push_back(kHex[digest[i] & 0xF]);
    }
    return out;
}

}  // namespace

std::string Generator::profileID() { return digestHex("Profile." + randomSeedTail(), 5); }

std::string Generator::customRuleID() { return digestHex("CustomRule." + randomSeedTail(), 5); }

std::string Generator::customRuleID(int64_t ruleType, const NullableString& blockerProfileID) {
    const char* listName = nullptr;
    switch (ruleType) {
        case 7:
            listName = "SecureWebsites";
            break;
        case 5:
            listName = "BlockWebsites";
            break;
        case 3:
            listName = "WhitelistWebsites";
            break;
        default:
            break;
    }
    const std::string seed =
        listName ? std::string("CustomRule.") + listName + "." + textOrNull(blockerProfileID)
                 : "CustomRule." + randomSeedTail();
    // Digest bytes by type - 3: the three website lists get the whole digest.
    static constexpr size_t kBytesByType[] = {20, 5, 20, 5, 20};
    const size_t bytes = (ruleType >= 3 && ruleType <= 7) ? kBytesByType[ruleType - 3] : 5;
    return digestHex(seed, bytes);
}

}  // namespace stonewall
