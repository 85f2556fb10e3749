#pragma once

// Styled text for the popover's messages, buttons and links.
//
// All functions take UTF-8 text.

#include <string_view>

#include "utilities/AttributedString.h"

namespace stonewall::PunycodeAdditions {

AttributedString messageAttributedString(std::string_view text, double lineHeightMultiple);
AttributedString formattedAttributedString(std::string_view text, double lineHeightMultiple);
AttributedString buttonAttributedTitle(const AttributedString& title);
AttributedString createButtonAttributedString(std::string_view text, const Color& color,
                                              const Font& font);
AttributedString hyperlinkFromString(std::string_view text, std::string_view url);

}  // namespace stonewall::PunycodeAdditions
