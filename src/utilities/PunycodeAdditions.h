#pragma once

// The string and URL operations of the PunycodeAdditions group, all in
// namespace stonewall::PunycodeAdditions, one header per source file:
//
//   Punycode.h       Punycode and IDNA conversion of labels and host names
//   URLParts.h       URL parts, encoded and decoded URLs, host and scheme
//   StringHelpers.h  cleaning, validation, transliteration, escaping
//   StyledText.h     styled text for the popover
//
// Code that needs one of them includes that header; this one is for code
// that uses the group as a whole.

#include "utilities/Punycode.h"
#include "utilities/StringHelpers.h"
#include "utilities/StyledText.h"
#include "utilities/URLParts.h"
