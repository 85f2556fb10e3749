// Styled text for the popover, on the platform-neutral AttributedString.

#include "utilities/StyledText.h"

#include <algorithm>

#include "utilities/Unicode.h"

namespace stonewall::PunycodeAdditions {

namespace {

// The palette's white, and the link colour.
constexpr Color kCurrentWhiteColor{1, 1, 1, 1};
constexpr Color kBlueColor{0, 0, 1, 1};

size_t utf16Length(std::string_view text) {
    size_t units = 0;
    for (char32_t c : unicode::decodeUTF8(text).value_or(std::u32string())) {
        units += unicode::utf16Length(c);
    }
    return units;
}

AttributedString withParagraph(std::string_view text, double lineHeightMultiple,
                               TextAlignment alignment) {
    AttributedString result;
    if (!unicode::isValidUTF8(text)) return result;
    result.string = std::string(text);
    TextAttributes attributes;
    attributes.paragraphStyle =
        ParagraphStyle{alignment, LineBreakMode::TruncatingTail, lineHeightMultiple};
    result.runs.push_back({0, utf16Length(text), attributes});
    return result;
}

}  // namespace

AttributedString messageAttributedString(std::string_view text, double lineHeightMultiple) {
    return withParagraph(text, lineHeightMultiple, TextAlignment::Center);
}

AttributedString formattedAttributedString(std::string_view text, double lineHeightMultiple) {
    return withParagraph(text, lineHeightMultiple, TextAlignment::Natural);
}

AttributedString buttonAttributedTitle(const AttributedString& title) {
    AttributedString result = title;
    const size_t length = utf16Length(title.string);
    // Colour over the whole length: every run gets it, and stretches of the
    // text that no run covered get a run of their own.
    std::vector<AttributeRun> runs;
    size_t covered = 0;
    for (AttributeRun run : result.runs) {
        if (run.location > covered) {
            TextAttributes gap;
            gap.foregroundColor = kCurrentWhiteColor;
            runs.push_back({covered, run.location - covered, gap});
        }
        run.attributes.foregroundColor = kCurrentWhiteColor;
        covered = std::max(covered, run.location + run.length);
        runs.push_back(run);
    }
    if (covered < length) {
        TextAttributes tail;
        tail.foregroundColor = kCurrentWhiteColor;
        runs.push_back({covered, length - covered, tail});
    }
    result.runs = std::move(runs);
    return result;
}

AttributedString createButtonAttributedString(std::string_view text, const Color& color,
                                              const Font& font) {
    AttributedString result;
    if (!unicode::isValidUTF8(text)) return result;
    result.string = std::string(text);
    TextAttributes attributes;
    attributes.foregroundColor = color;
    attributes.paragraphStyle = ParagraphStyle{};
    attributes.font = font;
    result.runs.push_back({0, utf16Length(text), attributes});
    return result;
}

AttributedString hyperlinkFromString(std::string_view text, std::string_view url) {
    AttributedString result;
    if (!unicode::isValidUTF8(text)) return result;
    result.string = std::string(text);
    TextAttributes attributes;
    attributes.link = std::string(url);
    attributes.foregroundColor = kBlueColor;
    attributes.underlineStyle = UnderlineStyle::Single;
    result.runs.push_back({0, utf16Length(text), attributes});
    return result;
}

}  // namespace stonewall::PunycodeAdditions
