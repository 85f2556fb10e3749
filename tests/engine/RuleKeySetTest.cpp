// The compiler's dedupe set must stay exact when hashes collide.

#include <gtest/gtest.h>

#include <set>
#include <string>

#include "engine/RuleKeySet.h"

namespace stonewall {
namespace {

uint64_t everythingCollides(std::string_view) { return 42; }
uint64_t fewBuckets(std::string_view key) { return key.size() % 3; }

TEST(RuleKeySet, ExactUnderAnyHash) {
    for (RuleKeySet::HashFunction hash :
         {static_cast<RuleKeySet::HashFunction>(nullptr), &everythingCollides, &fewBuckets}) {
        RuleKeySet set(0, hash);
        std::set<std::string> reference;
        // Keys that share prefixes, lengths and hashes; the empty key too.
        for (int i = 0; i < 600; ++i) {
            const std::string key = (i % 7 == 0) ? "" : "1-" + std::to_string(i % 250) + "-x";
            EXPECT_EQ(set.insert(key), reference.insert(key).second) << key;
        }
        EXPECT_EQ(set.size(), reference.size());
        for (const auto& key : reference) EXPECT_TRUE(set.contains(key));
        EXPECT_FALSE(set.contains("1-250-x"));
        EXPECT_FALSE(set.contains("1-1-"));
    }
}

TEST(RuleKeySet, KeysLargerThanABlockAndGrowth) {
    RuleKeySet set;
    const std::string huge(3u << 20, 'k');
    EXPECT_TRUE(set.insert(huge));
    EXPECT_TRUE(set.insert("small"));
    for (int i = 0; i < 100000; ++i) ASSERT_TRUE(set.insert("key" + std::to_string(i)));
    EXPECT_FALSE(set.insert(huge));
    EXPECT_FALSE(set.insert("small"));
    EXPECT_FALSE(set.insert("key99999"));
    EXPECT_TRUE(set.contains(huge));
    EXPECT_EQ(set.size(), 100002u);
}

}  // namespace
}  // namespace stonewall
