// The compiler: order, dedupe, cap, placeholder and the rule file.

#include <filesystem>

#include "EngineTestSupport.h"
#include "ProfileGenerator.h"

namespace stonewall::testing {
namespace {

using ::testing::ElementsAre;

std::vector<std::string> urlFilters(const Json& list) {
    std::vector<std::string> filters;
    for (const auto& rule : list) filters.push_back(rule["trigger"].value("url-filter", "<none>"));
    return filters;
}

class RuleCompilerTest : public EngineTest {};

TEST_F(RuleCompilerTest, CompilesTheActionsInListOrderWhateverTheRowOrder) {
    auto database = openProfile("order");
    std::vector<ProfileRule> rules;
    for (int64_t action : {8, 7, 6, 5, 4, 3, 2, 1}) {
        ProfileRule rule = makeRule(action, "f" + std::to_string(action));
        if (action == ActionCode::kHide) rule.selector = ".ad";
        rules.push_back(rule);
    }
    database->addProfileRules(rules);

    CompanionController::writeProfileRules(std::string("order"), database);

    const Json list = ruleFile("order");
    EXPECT_THAT(urlFilters(list), ElementsAre("f5", "f1", "f4", "f2", "f3", "f6", "f7", "f8"));
    std::vector<std::string> types;
    for (const auto& rule : list) types.push_back(rule["action"].value("type", ""));
    EXPECT_THAT(types, ElementsAre("block", "block", "block-cookies", "css-display-none",
                                   "ignore-previous-rules", "ignore-previous-rules", "make-https",
                                   "make-https"));
}

TEST_F(RuleCompilerTest, WithinAnActionRowsFollowTheirFilterOrder) {
    auto database = openProfile("sorted");
    database->addProfileRules({makeRule(1, "c"), makeRule(1, "a"), makeRule(1, "b")});
    CompanionController::writeProfileRules(std::string("sorted"), database);
    EXPECT_THAT(urlFilters(ruleFile("sorted")), ElementsAre("a", "b", "c"));
}

TEST_F(RuleCompilerTest, FirstOccurrenceWinsAndOnlyTheKeyFieldsCount) {
    auto database = openProfile("dupes");
    ProfileRule hide = makeRule(2, ".*", BlockerCode::kList1, "h1");
    hide.selector = "div.ad";
    ProfileRule sameHideOtherList = hide;  // other list, other id, case-sensitive
    sameHideOtherList.blocker = BlockerCode::kList3;
    sameHideOtherList.ruleID = "h2";
    sameHideOtherList.filterSensitive = 1;
    ProfileRule nullSelector = makeRule(6, "x");
    ProfileRule emptySelector = makeRule(6, "x", BlockerCode::kList6);
    emptySelector.selector = "";  // null and empty make the same key
    // The same block rule as a website-list rule and as a plain block rule:
    // the action is part of the key, so both stay, the website one first.
    ProfileRule website = makeRule(5, "same", BlockerCode::kCustom);
    ProfileRule block = makeRule(1, "same", BlockerCode::kList2);
    database->addProfileRules(
        {block, hide, sameHideOtherList, nullSelector, emptySelector, website});

    CompileReport report;
    CompanionController::writeProfileRules(std::string("dupes"), database, &report);

    const Json list = ruleFile("dupes");
    ASSERT_EQ(list.size(), 4u);
    EXPECT_THAT(urlFilters(list), ElementsAre("same", "same", ".*", "x"));
    EXPECT_FALSE(list[2]["trigger"].contains("url-filter-is-case-sensitive"))
        << "the first of the duplicates must be the one kept";
    EXPECT_EQ(report.duplicatesDropped, 2);
    EXPECT_EQ(report.rulesRead(), 6);
    EXPECT_EQ(report.rulesReadByAction[5], 1);
    EXPECT_EQ(report.rulesReadByAction[6], 2);
}

TEST_F(RuleCompilerTest, AddUniqueRuleKeepsTheFirstAndRecordsKeysPastTheCap) {
    std::vector<ContentBlockerRule> list(kMaximumRuleCount - 1);
    CompanionController::UniqueRules keys;
    const ProfileRule first = makeRule(1, "a");
    const ProfileRule refused = makeRule(1, "b");
    CompanionController::addUniqueRule(first, list, keys);
    CompanionController::addUniqueRule(first, list, keys);
    ASSERT_EQ(list.size(), kMaximumRuleCount);
    CompanionController::addUniqueRule(refused, list, keys);
    EXPECT_EQ(list.size(), kMaximumRuleCount);
    EXPECT_EQ(list.back(), first.convertToSafariData2());
    EXPECT_TRUE(keys.contains(refused.computeHash()));
    EXPECT_EQ(keys.size(), 2u);
}

TEST_F(RuleCompilerTest, OneDistinctRuleOverTheCapDropsTheLastInListOrder) {
    auto database = openProfile("cap");
    const auto blocks = ProfileGenerator::distinctRules(kMaximumRuleCount - 1, 1, "b");
    database->addProfileRules(blocks);
    database->addProfileRules({makeRule(8, "upgrade-last"), makeRule(5, "website-first")});

    CompileReport report;
    CompanionController::writeProfileRules(std::string("cap"), database, &report);

    const Json list = ruleFile("cap");
    ASSERT_EQ(list.size(), kMaximumRuleCount);
    EXPECT_EQ(list.front()["trigger"]["url-filter"], "website-first");
    EXPECT_EQ(list[1]["trigger"]["url-filter"], blocks.front().filter);
    EXPECT_EQ(list.back()["trigger"]["url-filter"], blocks.back().filter);
    EXPECT_EQ(report.rulesDroppedByCap, 1);
    EXPECT_EQ(report.rulesWritten, static_cast<int64_t>(kMaximumRuleCount));
}

TEST_F(RuleCompilerTest, ARefusedRuleStillCountsForLaterDuplicates) {
    auto database = openProfile("capdupe");
    database->addProfileRules(ProfileGenerator::distinctRules(kMaximumRuleCount, 1, "b"));
    database->addProfileRules(
        {makeRule(8, "late", BlockerCode::kList1), makeRule(8, "late", BlockerCode::kList3)});
    CompileReport report;
    CompanionController::writeProfileRules(std::string("capdupe"), database, &report);
    EXPECT_EQ(report.rulesDroppedByCap, 1);
    EXPECT_EQ(report.duplicatesDropped, 1);
}

// An independent oracle: the array queries, computeHash, convertToSafariData2
// and the first 50000 distinct keys, over a realistic profile.
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
    EXPECT_FALSE(Json::parse(text, nullptr, false).is_discarded());

    const auto read = CompanionController::readProfileRules(std::string("generated"), database);
    EXPECT_EQ(read, expected);
    EXPECT_EQ(report.rulesDroppedByCap, static_cast<int64_t>(distinct - kMaximumRuleCount));
    EXPECT_EQ(report.duplicatesDropped, static_cast<int64_t>(56000 - distinct));
    EXPECT_EQ(report.bytesWritten, static_cast<int64_t>(text.size()));
}

TEST_F(RuleCompilerTest, AnEmptyProfileOrNoDatabaseGivesThePlaceholder) {
    const Json placeholder =
        Json::parse(R"([{"action":{"type":"block"},"trigger":{"url-filter":"ockit.svg"}}])");
    CompileReport report;
    CompanionController::writeProfileRules(std::string("empty"), openProfile("empty"), &report);
    EXPECT_EQ(ruleFile("empty"), placeholder);
    EXPECT_TRUE(report.placeholderUsed);
    EXPECT_EQ(report.rulesWritten, 1);

    CompanionController::writeProfileRules(std::string("nodb"), nullptr);
    EXPECT_EQ(ruleFile("nodb"), placeholder);
    EXPECT_EQ(CompanionController::readProfileRules(std::string("nodb"), nullptr).size(), 1u);
}

TEST_F(RuleCompilerTest, WritesOnlyTheNamedFileAndReplacesAnOldOne) {
    auto database = openProfile("named");
    database->addProfileRules({makeRule(1, "one")});
    CompileReport report;
    CompanionController::writeProfileRules(std::string("named"), database, &report);
    database->addProfileRules({makeRule(1, "two")});
    CompanionController::writeProfileRules(std::string("named"), database, &report);

    EXPECT_EQ(report.outputPath, ruleFilePath("named"));
    EXPECT_TRUE(report.fileWritten);
    EXPECT_THAT(urlFilters(ruleFile("named")), ElementsAre("one", "two"));
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(profilesFolder())) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    EXPECT_THAT(names, ElementsAre("profile_named_data", "profile_named_unarchive.json"));
}

TEST_F(RuleCompilerTest, WithoutAProfileTheSharedRecordNamesTheFile) {
    storeSharedData(sharedDataWith("fromShared"));
    auto database = openProfile("fromShared");
    database->addProfileRules({makeRule(1, "shared")});
    CompanionController::writeProfileRules(std::nullopt, database);
    EXPECT_THAT(urlFilters(ruleFile("fromShared")), ElementsAre("shared"));
}

TEST_F(RuleCompilerTest, AProfileIdentifierWithAPathSeparatorWritesNothing) {
    CompileReport report;
    CompanionController::writeProfileRules(std::string("../escape"), nullptr, &report);
    EXPECT_FALSE(report.fileWritten);
    EXPECT_FALSE(std::filesystem::exists(platform.containerPath() + "/profile_._unarchive.json"));
    EXPECT_FALSE(
        std::filesystem::exists(platform.containerPath() + "/.Profiles/../escape_unarchive.json"));
}

TEST_F(RuleCompilerTest, ReadWebsitesRulesSplitsOnlyTheFirstRule) {
    auto database = openProfile("sites");
    EXPECT_TRUE(CompanionController::readWebsitesRules(std::nullopt, 5, database).empty());
    EXPECT_TRUE(CompanionController::readWebsitesRules(std::nullopt, 5, nullptr).empty());

    ProfileRule first = makeRule(5, "a-first", BlockerCode::kCustom);
    first.domains = "a.com,*b.com";
    ProfileRule second = makeRule(5, "b-second", BlockerCode::kCustom);
    second.domains = "c.com";
    database->addProfileRules({second, first});
    EXPECT_THAT(CompanionController::readWebsitesRules(std::nullopt, 5, database),
                ElementsAre("a.com", "*b.com"));
    EXPECT_TRUE(CompanionController::readWebsitesRules(std::nullopt, 7, database).empty());
}

// --- Reload ------------------------------------------------------------------

using platform::testing::DefaultsWrite;

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

class ReloadTest : public EngineTest {
  protected:
    std::vector<DefaultsWrite> writes() const { return suite()->writes(); }
};

TEST_F(ReloadTest, WithoutAProfileWritesNoFileKeepsTheActiveProfileAndReloadsTwice) {
    suite()->setObject("kept", "activeProfileID");
    suite()->clearWrites();
    Completion completion;
    CompanionController::reloadBlockerRules(std::nullopt, nullptr,
                                            completion.handler(*platform.dispatch));
    platform.dispatch->runUntilIdle();

    EXPECT_EQ(platform.contentBlocker->calls(),
              std::vector<std::string>(2, std::string(kContentBlockerIdentifier)));
    EXPECT_EQ(writes(), (std::vector<DefaultsWrite>{{"blockerReloadType", int64_t{1}},
                                                    {"blockerReloadType", int64_t{2}}}));
    EXPECT_EQ(suite()->stringForKey("activeProfileID"), "kept");
    EXPECT_FALSE(std::filesystem::exists(profilesFolder()) &&
                 !std::filesystem::is_empty(profilesFolder()));
    EXPECT_EQ(completion.calls, 1);
    EXPECT_FALSE(completion.error);
}

TEST_F(ReloadTest, WithAProfileAndNoDatabaseOpensItByIdentifierBeforeTheFirstLoad) {
    openProfile("p1")->addProfileRules({makeRule(1, "from-p1")});
    std::vector<std::string> seenAtReload;
    platform.contentBlocker->onReload = [&](const std::string&) {
        seenAtReload.push_back(
            std::to_string(ruleFileExists("p1")) + "/" +
            std::to_string(suite()->integerForKey("blockerReloadType").value_or(0)) + "/" +
            std::to_string(suite()->synchronizeCount()));
    };
    Completion completion;
    CompanionController::reloadBlockerRules(std::string("p1"), nullptr,
                                            completion.handler(*platform.dispatch));
    platform.dispatch->runUntilIdle();

    EXPECT_THAT(urlFilters(ruleFile("p1")), ElementsAre("from-p1"));
    EXPECT_EQ(writes(), (std::vector<DefaultsWrite>{{"activeProfileID", std::string("p1")},
                                                    {"blockerReloadType", int64_t{1}},
                                                    {"blockerReloadType", int64_t{2}}}));
    // Each phase sees its own value, synchronised before the load.
    EXPECT_THAT(seenAtReload, ElementsAre("1/1/1", "1/2/2"));
    EXPECT_EQ(completion.calls, 1);
}

TEST_F(ReloadTest, OldToolkitCompletesAtOnceAndDoesNothing) {
    struct Case {
        double appKit;
        bool reloads;
    };
    for (const Case& c : {Case{1503.99, false}, Case{1404.0, false}, Case{1504.0, true}}) {
        SCOPED_TRACE(c.appKit);
        platform.host->setAppKitVersionNumber(c.appKit);
        suite()->clearWrites();
        const size_t callsBefore = platform.contentBlocker->calls().size();
        Completion completion;
        CompanionController::reloadBlockerRules(std::string("old"), nullptr,
                                                completion.handler(*platform.dispatch));
        if (!c.reloads) {
            EXPECT_EQ(completion.calls, 1) << "completes before returning";
            EXPECT_FALSE(completion.error);
            EXPECT_TRUE(writes().empty());
            EXPECT_FALSE(ruleFileExists("old"));
        }
        platform.dispatch->runUntilIdle();
        EXPECT_EQ(completion.calls, 1);
        EXPECT_EQ(platform.contentBlocker->calls().size() - callsBefore, c.reloads ? 2u : 0u);
    }
}

TEST_F(ReloadTest, AFirstPhaseErrorEndsTheRequest) {
    const Error failure{"WKErrorDomain", 6, "compile failed"};
    platform.contentBlocker->scriptResults({failure});
    Completion completion;
    CompanionController::reloadBlockerRules(std::nullopt, nullptr,
                                            completion.handler(*platform.dispatch));
    EXPECT_EQ(completion.calls, 0) << "the handler is called from the main queue only";
    platform.dispatch->advanceBy(std::chrono::seconds(10));

    EXPECT_EQ(completion.calls, 1);
    EXPECT_EQ(completion.error, failure);
    EXPECT_TRUE(completion.onMainQueue);
    EXPECT_EQ(platform.contentBlocker->calls().size(), 1u);
    EXPECT_EQ(suite()->integerForKey("blockerReloadType"), 1);
}

TEST_F(ReloadTest, ASecondPhaseErrorReachesTheHandler) {
    const Error failure{"WKErrorDomain", 2, "second"};
    platform.contentBlocker->scriptResults({std::nullopt, failure});
    Completion completion;
    CompanionController::reloadBlockerRules(std::nullopt, nullptr,
                                            completion.handler(*platform.dispatch));
    platform.dispatch->advanceBy(std::chrono::seconds(10));
    EXPECT_EQ(completion.calls, 1);
    EXPECT_EQ(completion.error, failure);
    EXPECT_EQ(suite()->integerForKey("blockerReloadType"), 2);
}

TEST_F(ReloadTest, SuccessComesOnceOnTheMainQueueAfterTheHostsSettleDelay) {
    using std::chrono::nanoseconds;
    using std::chrono::seconds;
    struct Case {
        platform::OperatingSystemVersion os;
        nanoseconds delay;
    };
    const Case cases[] = {
        {{10, 15, 7}, seconds(3)}, {{10, 13, 4}, seconds(3)}, {{10, 13, 3}, seconds(2)},
        {{10, 12, 0}, seconds(2)}, {{11, 0, 0}, seconds(0)},  {{14, 4, 0}, seconds(0)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.os.majorVersion) + "." + std::to_string(c.os.minorVersion) +
                     "." + std::to_string(c.os.patchVersion));
        platform.host->setOperatingSystemVersion(c.os);
        EXPECT_EQ(CompanionController::settleDelay(), c.delay);

        std::vector<bool> fromHighQueue;
        platform.contentBlocker->onReload = [&](const std::string&) {
            fromHighQueue.push_back(
                platform.dispatch->globalQueue(platform::QueuePriority::High).isCurrent());
        };
        Completion completion;
        CompanionController::reloadBlockerRules(std::nullopt, nullptr,
                                                completion.handler(*platform.dispatch));
        if (c.delay > nanoseconds(0)) {
            platform.dispatch->runUntilIdle();
            platform.dispatch->advanceBy(c.delay - nanoseconds(1));
            EXPECT_EQ(fromHighQueue.size(), 1u) << "second phase before the delay";
            EXPECT_EQ(completion.calls, 0);
        }
        platform.dispatch->advanceBy(nanoseconds(1));
        platform.dispatch->runUntilIdle();
        EXPECT_EQ(fromHighQueue, (std::vector<bool>{false, true}));
        EXPECT_EQ(completion.calls, 1);
        EXPECT_FALSE(completion.error);
        EXPECT_TRUE(completion.onMainQueue);
        platform.dispatch->advanceBy(seconds(10));
        EXPECT_EQ(completion.calls, 1);
    }
}

TEST_F(ReloadTest, AbsentHandlerStillReloads) {
    CompanionController::reloadBlockerRules(std::string("quiet"), nullptr, nullptr);
    platform.dispatch->advanceBy(std::chrono::seconds(5));
    EXPECT_EQ(platform.contentBlocker->calls().size(), 2u);
    EXPECT_TRUE(ruleFileExists("quiet"));
}

TEST_F(ReloadTest, TheReportOverloadFillsTheReportAndDoesTheSame) {
    openProfile("rep")->addProfileRules({makeRule(1, "a"), makeRule(2, ".*"), makeRule(1, "a")});
    CompileReport report;
    Completion completion;
    CompanionController::reloadBlockerRules(std::string("rep"), nullptr,
                                            completion.handler(*platform.dispatch), &report);
    platform.dispatch->advanceBy(std::chrono::seconds(5));
    EXPECT_EQ(report.rulesReadByAction[1], 2);
    EXPECT_EQ(report.rulesReadByAction[2], 1);
    EXPECT_EQ(report.duplicatesDropped, 1);
    EXPECT_EQ(report.rulesWritten, 2);
    EXPECT_EQ(report.profileID, "rep");
    EXPECT_TRUE(report.fileWritten);
    EXPECT_EQ(completion.calls, 1);
}

}  // namespace
}  // namespace stonewall::testing
