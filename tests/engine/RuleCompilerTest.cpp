// The compiler: order, dedupe, cap, placeholder and the rule file; then the
// two-phase reload.

#include <filesystem>

#include "EngineTestSupport.h"
#include "ProfileGenerator.h"

namespace stonewall::testing {
namespace {

using platform::testing::DefaultsWrite;
using ::testing::ElementsAre;
using namespace std::chrono_literals;

std::vector<std::string> urlFilters(const Json& list) {
    std::vector<std::string> filters;
    for (const auto& rule : list) filters.push_back(rule["trigger"].value("url-filter", "<none>"));
    return filters;
}

class RuleCompilerTest : public EngineTest {
  protected:
    // Compiles `profileID` from a fresh database holding `rules`.
    CompileReport compile(const std::string& profileID, const std::vector<ProfileRule>& rules) {
        auto database = openProfile(profileID);
        database->addProfileRules(rules);
        CompileReport report;
        CompanionController::writeProfileRules(profileID, database, &report);
        return report;
    }
};

TEST_F(RuleCompilerTest, FirstOccurrenceWinsAndOnlyTheKeyFieldsCount) {
    ProfileRule hide = makeRule(2, ".*", BlockerCode::kList1, "h1");
    hide.selector = "div.ad";
    ProfileRule sameHideOtherList = hide;  // other list, other id, case-sensitive
    sameHideOtherList.blocker = BlockerCode::kList3;
    sameHideOtherList.ruleID = "h2";
    sameHideOtherList.filterSensitive = 1;
    ProfileRule emptySelector = makeRule(6, "x", BlockerCode::kList6);
    emptySelector.selector = "";  // null and empty make the same key
    // The same block rule as a website-list rule and as a plain block rule:
    // the action is part of the key, so both stay, the website one first.
    const CompileReport report = compile(
        "dupes", {makeRule(1, "same", BlockerCode::kList2), hide, sameHideOtherList,
                  makeRule(6, "x"), emptySelector, makeRule(5, "same", BlockerCode::kCustom)});

    const Json list = ruleFile("dupes");
    ASSERT_EQ(list.size(), 4u);
    EXPECT_THAT(urlFilters(list), ElementsAre("same", "same", ".*", "x"));
    EXPECT_FALSE(list[2]["trigger"].contains("url-filter-is-case-sensitive"))
        << "the first of the duplicates must be the one kept";
    EXPECT_EQ(report.duplicatesDropped, 2);
}

TEST_F(RuleCompilerTest, OverTheCapTheLastInListOrderGoAndStillCountAsDuplicates) {
    auto rules = ProfileGenerator::distinctRules(kMaximumRuleCount - 1, 1, "b");
    const auto firstBlock = rules.front().filter, lastBlock = rules.back().filter;
    // One distinct rule too many: the late upgrade is refused, and its twin
    // from another list is still a duplicate of it.
    rules.push_back(makeRule(8, "late", BlockerCode::kList1));
    rules.push_back(makeRule(8, "late", BlockerCode::kList3));
    rules.push_back(makeRule(5, "website-first"));
    const CompileReport report = compile("cap", rules);

    const Json list = ruleFile("cap");
    ASSERT_EQ(list.size(), kMaximumRuleCount);
    EXPECT_EQ(list.front()["trigger"]["url-filter"], "website-first");
    EXPECT_EQ(list[1]["trigger"]["url-filter"], firstBlock);
    EXPECT_EQ(list.back()["trigger"]["url-filter"], lastBlock);
    EXPECT_EQ(report.rulesDroppedByCap, 1);
    EXPECT_EQ(report.duplicatesDropped, 1);
}

// An independent oracle: the array queries in the list's action order,
// computeHash, convertToSafariData2 and the first 50000 distinct keys, over a
// realistic profile whose rows are stored in no particular order.
TEST_F(RuleCompilerTest, GeneratedProfileMatchesTheArrayOracleAndReadProfileRules) {
    auto database = openProfile("generated");
    ProfileGenerator generator;
    generator.fillDatabase(*database, 56000);

    std::vector<ContentBlockerRule> expected;
    std::unordered_set<std::string> keys;
    size_t distinct = 0;
    for (int64_t action : {5, 1, 4, 2, 3, 6, 7, 8}) {
        for (const ProfileRule& rule : database->getProfileRulesByAction(action)) {
            if (!keys.insert(rule.computeHash()).second) continue;
            ++distinct;
            if (expected.size() < kMaximumRuleCount)
                expected.push_back(rule.convertToSafariData2());
        }
    }
    ASSERT_GT(distinct, kMaximumRuleCount) << "the generator must overflow the cap";
    ASSERT_LT(distinct, 56000u) << "the generator must make duplicates";

    CompileReport report;
    CompanionController::writeProfileRules(std::string("generated"), database, &report);
    const std::string text = readText(ruleFilePath("generated"));
    std::string expectedText;
    ContentBlockerRuleListWriter writer(expectedText);
    for (const auto& rule : expected) writer.add(rule);
    writer.finish();
    // The same writer on both sides: the text itself must match.
    EXPECT_TRUE(text == expectedText) << "compiled list differs from the oracle";
    EXPECT_EQ(CompanionController::readProfileRules(std::string("generated"), database), expected);
    EXPECT_EQ(report.rulesDroppedByCap, static_cast<int64_t>(distinct - kMaximumRuleCount));
    EXPECT_EQ(report.duplicatesDropped, static_cast<int64_t>(56000 - distinct));
}

// The empty profile's placeholder is what a first compile writes; here the
// calls without a database, and an identifier that would leave the folder.
TEST_F(RuleCompilerTest, NoDatabaseGivesThePlaceholderAndABadIdentifierNoFile) {
    CompanionController::writeProfileRules(std::string("nodb"), nullptr);
    EXPECT_EQ(ruleFile("nodb"),
              Json::parse(R"([{"action":{"type":"block"},"trigger":{"url-filter":"ockit.svg"}}])"));
    EXPECT_EQ(CompanionController::readProfileRules(std::string("nodb"), nullptr).size(), 1u);
    CompileReport escape;
    CompanionController::writeProfileRules(std::string("../escape"), nullptr, &escape);
    EXPECT_FALSE(escape.fileWritten);
    EXPECT_FALSE(std::filesystem::exists(profilesFolder() + "/../escape_unarchive.json"));
}

// --- Reload ------------------------------------------------------------------

struct Completion {
    int calls = 0;
    std::optional<Error> error;
    bool onMainQueue = false;

    CompletionHandler handler(platform::testing::ManualClockDispatch& dispatch) {
        return [this, &dispatch](std::optional<Error> received) {
            ++calls;
            error = std::move(received);
            onMainQueue = dispatch.mainQueue().isCurrent() &&
                          !dispatch.globalQueue(platform::QueuePriority::High).isCurrent();
        };
    }
};

using ReloadTest = EngineTest;

TEST_F(ReloadTest, WithAProfileAndNoDatabaseOpensItByIdentifierBeforeTheFirstLoad) {
    openProfile("p1")->addProfileRules({makeRule(1, "a"), makeRule(2, ".*"), makeRule(1, "a")});
    std::vector<std::string> seenAtReload;
    platform.contentBlocker->onReload = [&](const std::string&) {
        seenAtReload.push_back(
            std::to_string(std::filesystem::exists(ruleFilePath("p1"))) + "/" +
            std::to_string(suite()->integerForKey("blockerReloadType").value_or(0)) + "/" +
            std::to_string(suite()->synchronizeCount()));
    };
    CompileReport report;
    Completion completion;
    CompanionController::reloadBlockerRules(std::string("p1"), nullptr,
                                            completion.handler(*platform.dispatch), &report);
    platform.dispatch->advanceBy(10s);
    EXPECT_EQ(completion.calls, 1);
    EXPECT_THAT(urlFilters(ruleFile("p1")), ElementsAre("a", ".*"));
    EXPECT_EQ(suite()->writes(), (std::vector<DefaultsWrite>{{"activeProfileID", std::string("p1")},
                                                             {"blockerReloadType", int64_t{1}},
                                                             {"blockerReloadType", int64_t{2}}}));
    // Each phase sees its own value, synchronised before the load.
    EXPECT_THAT(seenAtReload, ElementsAre("1/1/1", "1/2/2"));
    EXPECT_EQ(report.profileID, "p1");
    EXPECT_TRUE(report.fileWritten);
}

TEST_F(ReloadTest, OldToolkitCompletesAtOnceAndDoesNothing) {
    for (const auto& [appKit, reloads] : {std::pair{1503.99, false}, {1504.0, true}}) {
        SCOPED_TRACE(appKit);
        platform.host->setAppKitVersionNumber(appKit);
        suite()->clearWrites();
        const size_t callsBefore = platform.contentBlocker->calls().size();
        Completion completion;
        CompanionController::reloadBlockerRules(std::string("old"), nullptr,
                                                completion.handler(*platform.dispatch));
        if (!reloads) {
            EXPECT_EQ(completion.calls, 1) << "completes before returning";
            EXPECT_FALSE(completion.error);
            EXPECT_TRUE(suite()->writes().empty());
            EXPECT_FALSE(std::filesystem::exists(ruleFilePath("old")));
        }
        platform.dispatch->runUntilIdle();
        EXPECT_EQ(completion.calls, 1);
        EXPECT_EQ(platform.contentBlocker->calls().size() - callsBefore, reloads ? 2u : 0u);
    }
}

TEST_F(ReloadTest, APhaseErrorEndsTheRequestOnTheMainQueue) {
    const Error failure{"WKErrorDomain", 6, "compile failed"};
    struct Case {
        std::vector<std::optional<Error>> results;
        size_t loads;
        int64_t lastReloadType;
    };
    for (const Case& c : {Case{{failure}, 1, 1}, Case{{std::nullopt, failure}, 2, 2}}) {
        SCOPED_TRACE(c.loads);
        platform.contentBlocker->scriptResults(c.results);
        const size_t before = platform.contentBlocker->calls().size();
        Completion completion;
        CompanionController::reloadBlockerRules(std::nullopt, nullptr,
                                                completion.handler(*platform.dispatch));
        EXPECT_EQ(completion.calls, 0) << "the handler is called from the main queue only";
        platform.dispatch->advanceBy(10s);
        EXPECT_EQ(completion.calls, 1);
        EXPECT_EQ(completion.error, failure);
        EXPECT_TRUE(completion.onMainQueue);
        EXPECT_EQ(platform.contentBlocker->calls().size() - before, c.loads);
        EXPECT_EQ(suite()->integerForKey("blockerReloadType"), c.lastReloadType);
    }
}

TEST_F(ReloadTest, SuccessComesOnceOnTheMainQueueAfterTheHostsSettleDelay) {
    using std::chrono::nanoseconds;
    const std::pair<platform::OperatingSystemVersion, nanoseconds> cases[] = {
        {{10, 13, 4}, 3s}, {{10, 13, 3}, 2s}, {{11, 0, 0}, 0s}};
    for (const auto& [os, delay] : cases) {
        SCOPED_TRACE(std::to_string(os.majorVersion) + "." + std::to_string(os.minorVersion) + "." +
                     std::to_string(os.patchVersion));
        platform.host->setOperatingSystemVersion(os);
        std::vector<bool> fromHighQueue;
        platform.contentBlocker->onReload = [&](const std::string&) {
            fromHighQueue.push_back(
                platform.dispatch->globalQueue(platform::QueuePriority::High).isCurrent());
        };
        Completion completion;
        CompanionController::reloadBlockerRules(std::nullopt, nullptr,
                                                completion.handler(*platform.dispatch));
        if (delay > 0s) {
            platform.dispatch->runUntilIdle();
            platform.dispatch->advanceBy(delay - nanoseconds(1));
            EXPECT_EQ(fromHighQueue.size(), 1u) << "second phase before the delay";
            EXPECT_EQ(completion.calls, 0);
        }
        platform.dispatch->advanceBy(nanoseconds(1));
        platform.dispatch->runUntilIdle();
        EXPECT_EQ(fromHighQueue, (std::vector<bool>{false, true}));
        EXPECT_EQ(completion.calls, 1);
        EXPECT_FALSE(completion.error);
        EXPECT_TRUE(completion.onMainQueue);
        platform.dispatch->advanceBy(10s);
        EXPECT_EQ(completion.calls, 1);
    }
}

}  // namespace
}  // namespace stonewall::testing
