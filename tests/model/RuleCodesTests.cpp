#include "model/RuleCodes.h"

#include <gtest/gtest.h>

#include <limits>

namespace stonewall {
namespace {

TEST(RuleCodes, ReloadTypeTags)
{
    struct Case {
        int64_t reloadType;
        std::optional<std::string_view> tag;
    };
    const Case cases[] = {
        {std::numeric_limits<int64_t>::min(), std::nullopt},
        {-2, std::nullopt},
        {0, std::nullopt},
        {1, std::nullopt},
        {2, "ad"},
        {3, "ad"},
        {4, "tr"},
        {5, "sm"},
        {6, "sm"},
        {7, "wr_images"},
        {8, "wr_media"},
        {9, "wr_scripts"},
        {10, "wr_stylesheets"},
        {11, "wr_svgs"},
        {12, std::nullopt},
        {13, "bn"},
        {14, "bn"},
        {15, std::nullopt},
        {std::numeric_limits<int64_t>::max(), std::nullopt},
    };
    for (const auto& c : cases)
        EXPECT_EQ(ruleIDForReloadType(c.reloadType), c.tag) << "reload type " << c.reloadType;
}

}  // namespace
}  // namespace stonewall
