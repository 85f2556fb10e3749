#pragma once

// Dates: timestamps (seconds since 1970, with fractions) and RFC 3339 parsing.

#include <functional>
#include <optional>
#include <string>

#include "utilities/Nullable.h"

namespace stonewall::Custom {

using Timestamp = double;

Timestamp currentTimestamp();

// True when now - offset > timestamp, i.e. timestamp + offset lies strictly
// in the past.
bool checkTimestampPassed(Timestamp timestamp, double offset);

// The parsed date as seconds since 1970, or std::nullopt.
std::optional<Timestamp> dateFromRFC3339String(const NullableString& text);

// Tests replace the clock behind currentTimestamp(); an empty function
// restores the system clock.
void setClockForTesting(std::function<Timestamp()> clock);

}  // namespace stonewall::Custom
