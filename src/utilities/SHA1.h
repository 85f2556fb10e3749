#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace stonewall {

// The SHA-1 digest of bytes (FIPS 180-4). Identifiers are cut from it; it is
// not used where an attacker could choose colliding inputs. Kept here rather
// than taken from a cryptography library, whose loading alone cost every
// command a fifth of its start-up.
std::array<uint8_t, 20> sha1(std::string_view bytes);

}  // namespace stonewall
