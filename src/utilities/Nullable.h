#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace stonewall {

// Text that may be null. Null and empty are different values everywhere: a
// null selector writes no key, an empty one writes "".
using NullableString = std::optional<std::string>;

// How a null string reads inside a formatted text ("%@" of nil).
inline constexpr std::string_view kNullText = "(null)";

inline std::string textOrNull(const NullableString& s) { return s ? *s : std::string(kNullText); }

}  // namespace stonewall
