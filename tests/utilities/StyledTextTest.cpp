#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "utilities/PunycodeAdditions.h"

using namespace stonewall;
using namespace stonewall::PunycodeAdditions;

namespace {

TEST(StyledText, BuildersCoverTheWholeTextInUtf16Units) {
    const auto link = hyperlinkFromString("a\U0001F600", "https://example.com");
    ASSERT_EQ(link.runs.size(), 1u);
    EXPECT_EQ(link.runs[0].length, 3u);
    EXPECT_EQ(link.runs[0].attributes.link, "https://example.com");
    EXPECT_EQ(link.runs[0].attributes.underlineStyle, UnderlineStyle::Single);
    EXPECT_EQ(hyperlinkFromString("", "https://x").runs.at(0).length, 0u);

    for (const double multiple : {0.0, 1.35}) {
        const auto message = messageAttributedString("Ünïcode \U0001F600", multiple);
        const auto formatted = formattedAttributedString("Ünïcode \U0001F600", multiple);
        for (const auto* text : {&message, &formatted}) {
            ASSERT_EQ(text->runs.size(), 1u);
            EXPECT_EQ(text->runs[0].location, 0u);
            EXPECT_EQ(text->runs[0].length, 10u);  // 8 letters and blank, 2 for the emoji
            EXPECT_EQ(text->runs[0].attributes.paragraphStyle->lineHeightMultiple, multiple);
        }
        EXPECT_EQ(message.runs[0].attributes.paragraphStyle->alignment, TextAlignment::Center);
        EXPECT_EQ(message.runs[0].attributes.paragraphStyle->lineBreakMode,
                  LineBreakMode::TruncatingTail);
        EXPECT_EQ(formatted.runs[0].attributes.paragraphStyle->alignment, TextAlignment::Natural);
    }
    const auto button =
        createButtonAttributedString("Go", Color{0.2, 0.4, 0.6, 1}, Font{"", 12, 600});
    ASSERT_EQ(button.runs.size(), 1u);
    EXPECT_EQ(button.runs[0].attributes.foregroundColor, (Color{0.2, 0.4, 0.6, 1}));
    EXPECT_EQ(button.runs[0].attributes.font, (Font{"", 12, 600}));
}

TEST(StyledText, ButtonTitleColoursEveryUnit) {
    // Whatever runs the title has, the result is white from the first unit
    // to the last, and the other attributes stay where they were.
    TextAttributes bold;
    bold.font = Font{"", 13, 600};
    struct Case {
        std::vector<AttributeRun> runs;
        std::vector<std::pair<size_t, size_t>> expected;  // (location, length)
    };
    const Case cases[] = {
        {{}, {{0, 6}}},
        {{{0, 6, bold}}, {{0, 6}}},
        {{{2, 2, bold}}, {{0, 2}, {2, 2}, {4, 2}}},
        {{{0, 2, bold}, {4, 2, bold}}, {{0, 2}, {2, 2}, {4, 2}}},
    };
    for (const auto& c : cases) {
        const AttributedString white = buttonAttributedTitle(AttributedString{"Button", c.runs});
        EXPECT_EQ(white.string, "Button");
        ASSERT_EQ(white.runs.size(), c.expected.size());
        for (size_t i = 0; i < c.expected.size(); ++i) {
            EXPECT_EQ(std::pair(white.runs[i].location, white.runs[i].length), c.expected[i]);
            EXPECT_EQ(white.runs[i].attributes.foregroundColor, (Color{1, 1, 1, 1}));
        }
        for (const auto& run : c.runs) {
            const auto kept = std::find_if(white.runs.begin(), white.runs.end(), [&](auto& r) {
                return r.location == run.location && r.length == run.length;
            });
            ASSERT_NE(kept, white.runs.end());
            EXPECT_EQ(kept->attributes.font, run.attributes.font);
        }
    }
}

}  // namespace
