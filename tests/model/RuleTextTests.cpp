#include "model/RuleText.h"

#include <gtest/gtest.h>

#include <limits>

namespace stonewall {
namespace {

using Pieces = std::vector<std::string>;

TEST(RuleText, ComponentsKeepEmptyPiecesAndNeverTrim)
{
    struct Case {
        std::string_view text;
        Pieces pieces;
    };
    const Case cases[] = {
        {"", {""}},
        {",", {"", ""}},
        {"image,", {"image", ""}},
        {",image", {"", "image"}},
        {"a,,b", {"a", "", "b"}},
        {" a , b ", {" a ", " b "}},
        {"single", {"single"}},
        {std::string_view("a\0b,c", 5), {std::string("a\0b", 3), "c"}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(RuleText::components(c.text), c.pieces) << c.text;
        // Joining gives the text back: nothing is lost by a split.
        EXPECT_EQ(RuleText::joinComponents(RuleText::components(c.text)), c.text);
    }
    EXPECT_EQ(RuleText::joinComponents({}), "");
}

TEST(RuleText, IntegerValueReadsLikeTheOtherPrograms)
{
    constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
    constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
    struct Case {
        std::string_view text;
        int64_t value;
    };
    const Case cases[] = {
        {"", 0},
        {"0", 0},
        {"7", 7},
        {"-1", -1},
        {"+4", 4},
        {"  \t\n\r\v\f12", 12},
        {"12abc", 12},
        {"1.9", 1},
        {"abc", 0},
        {"- 5", 0},
        {"--5", 0},
        {"0x10", 0},
        {" ", 0},
        {"-", 0},
        {"007", 7},
        {"9223372036854775807", kMax},
        {"9223372036854775808", kMax},
        {"99999999999999999999999", kMax},
        {"-9223372036854775808", kMin},
        {"-9223372036854775809", kMin},
        {"-99999999999999999999999", kMin},
    };
    for (const auto& c : cases)
        EXPECT_EQ(RuleText::integerValue(c.text), c.value) << '"' << c.text << '"';
}

TEST(RuleText, AppendIntegerCoversTheWholeRange)
{
    const int64_t values[] = {0, 1, -1, 10, -10, 1234567890, std::numeric_limits<int64_t>::max(),
                              std::numeric_limits<int64_t>::min()};
    for (int64_t value : values) {
        std::string out = "x";
        RuleText::appendInteger(out, value);
        EXPECT_EQ(out, "x" + std::to_string(value));
    }
}

TEST(RuleText, MergeDomains)
{
    struct Case {
        NullableString own;
        NullableString other;
        std::string merged;
    };
    const Case cases[] = {
        {"b.test,c.test", "a.test,b.test,b.test", "a.test,b.test,c.test"},
        // Repeats within the other list are kept: the set is not updated.
        {"c.test", "d.test,d.test", "d.test,d.test,c.test"},
        {std::nullopt, std::nullopt, ""},
        {std::nullopt, "x.test", "x.test"},
        {"x.test", std::nullopt, "x.test"},
        // "" is one empty piece, unlike null.
        {"", "x.test", "x.test,"},
        {"x.test", "", ",x.test"},
        {"", "", ""},
        {"*.a.test,a.test", "a.test,*.a.test", "*.a.test,a.test"},
        // Case matters: hosts are compared as stored.
        {"A.test", "a.test", "a.test,A.test"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(RuleText::mergeDomains(c.own, c.other), c.merged)
            << textOrNull(c.own) << " <- " << textOrNull(c.other);
    }
}

}  // namespace
}  // namespace stonewall
