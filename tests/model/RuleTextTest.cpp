#include <gtest/gtest.h>

#include <limits>

#include "model/RuleText.h"

namespace stonewall {
namespace {

TEST(RuleText, ComponentsKeepEmptyPiecesAndNeverTrim) {
    using Pieces = std::vector<std::string>;
    const std::pair<std::string_view, Pieces> cases[] = {
        {"", {""}},
        {",", {"", ""}},
        {"image,", {"image", ""}},
        {",image", {"", "image"}},
        {"a,,b", {"a", "", "b"}},
        {" a , b ", {" a ", " b "}},
        {std::string_view("a\0b,c", 5), {std::string("a\0b", 3), "c"}},
    };
    for (const auto& [text, pieces] : cases) {
        EXPECT_EQ(RuleText::components(text), pieces) << text;
        // Joining gives the text back: nothing is lost by a split.
        EXPECT_EQ(RuleText::joinComponents(RuleText::components(text)), text);
    }
    EXPECT_EQ(RuleText::joinComponents({}), "");
}

TEST(RuleText, IntegerValueReadsLikeTheOtherPrograms) {
    constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
    constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
    const std::pair<std::string_view, int64_t> cases[] = {
        {"", 0},
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
    for (const auto& [text, value] : cases)
        EXPECT_EQ(RuleText::integerValue(text), value) << '"' << text << '"';
    // Writing covers the whole range and reads back.
    for (int64_t value : {int64_t{0}, int64_t{-10}, int64_t{1234567890}, kMax, kMin}) {
        std::string out = "x";
        RuleText::appendInteger(out, value);
        EXPECT_EQ(out, "x" + std::to_string(value));
        EXPECT_EQ(RuleText::integerValue(out.substr(1)), value);
    }
}

TEST(RuleText, MergeDomains) {
    const std::tuple<NullableString, NullableString, std::string> cases[] = {
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
    for (const auto& [own, other, merged] : cases)
        EXPECT_EQ(RuleText::mergeDomains(own, other), merged)
            << textOrNull(own) << " <- " << textOrNull(other);
}

}  // namespace
}  // namespace stonewall
