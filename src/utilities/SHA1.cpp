#include "utilities/SHA1.h"

#include <bit>
#include <cstring>

namespace stonewall {

namespace {

uint32_t loadBigEndian(const unsigned char* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
}

void compress(std::array<uint32_t, 5>& state, const unsigned char* block) {
    uint32_t w[80];
    for (int i = 0; i < 16; ++i) w[i] = loadBigEndian(block + 4 * i);
    for (int i = 16; i < 80; ++i) w[i] = std::rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
    uint32_t a = state[0], b = state[1], c = state[2], d = state[3], e = state[4];
    for (int i = 0; i < 80; ++i) {
        uint32_t f, k;
        if (i < 20) {
            f = (b & c) | (~b & d);
            k = 0x5A827999;
        } else if (i < 40) {
            f = b ^ c ^ d;
            k = 0x6ED9EBA1;
        } else if (i < 60) {
            f = (b & c) | (b & d) | (c & d);
            k = 0x8F1BBCDC;
        } else {
            f = b ^ c ^ d;
            k = 0xCA62C1D6;
        }
        const uint32_t next = std::rotl(a, 5) + f + e + k + w[i];
        e = d;
        d = c;
        c = std::rotl(b, 30);
        b = a;
        a = next;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
    state[4] += e;
}

}  // namespace

std::array<uint8_t, 20> sha1(std::string_view bytes) {
    std::array<uint32_t, 5> state = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    const size_t whole = bytes.size() / 64 * 64;
    for (size_t offset = 0; offset < whole; offset += 64) compress(state, data + offset);

    // The tail, the 0x80 marker and the bit length fill one or two blocks.
    unsigned char tail[128] = {};
    const size_t rest = bytes.size() - whole;
    if (rest > 0) std::memcpy(tail, data + whole, rest);
    tail[rest] = 0x80;
    const size_t tailSize = rest < 56 ? 64 : 128;
    const uint64_t bits = static_cast<uint64_t>(bytes.size()) * 8;
    for (int i = 0; i < 8; ++i)
        tail[tailSize - 1 - i] = static_cast<unsigned char>(bits >> (8 * i));
    for (size_t offset = 0; offset < tailSize; offset += 64) compress(state, tail + offset);

    std::array<uint8_t, 20> digest{};
    for (size_t i = 0; i < 20; ++i)
        digest[i] = static_cast<uint8_t>(state[i / 4] >> (24 - 8 * (i % 4)));
    return digest;
}

}  // namespace stonewall
