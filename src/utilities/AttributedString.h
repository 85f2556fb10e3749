#pragma once

// Platform-neutral styled text: the text with runs of attributes, ranges
// counted in UTF-16 units as the toolkit counts them.

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace stonewall {

struct Color {
    double red = 0, green = 0, blue = 0, alpha = 1;
    bool operator==(const Color&) const = default;
};

struct Font {
    std::string family;  // empty: the system font
    double pointSize = 13;
    int weight = 400;  // CSS-style weight: 400 regular, 600 semibold
    bool operator==(const Font&) const = default;
};

enum class TextAlignment { Natural, Left, Center, Right, Justified };
enum class LineBreakMode { WordWrapping, TruncatingTail };

struct ParagraphStyle {
    TextAlignment alignment = TextAlignment::Natural;
    LineBreakMode lineBreakMode = LineBreakMode::WordWrapping;
    double lineHeightMultiple = 0;  // 0: the font's natural line height
    bool operator==(const ParagraphStyle&) const = default;
};

enum class UnderlineStyle { None, Single };

struct TextAttributes {
    std::optional<Color> foregroundColor;
    std::optional<Font> font;
    std::optional<ParagraphStyle> paragraphStyle;
    std::optional<std::string> link;
    std::optional<UnderlineStyle> underlineStyle;
    bool operator==(const TextAttributes&) const = default;
};

struct AttributeRun {
    size_t location = 0;  // UTF-16 units
    size_t length = 0;    // UTF-16 units
    TextAttributes attributes;
    bool operator==(const AttributeRun&) const = default;
};

struct AttributedString {
    std::string string;  // UTF-8
    std::vector<AttributeRun> runs;
    bool operator==(const AttributedString&) const = default;
};

}  // namespace stonewall
