// Blocked-request counts per page.

#include <gtest/gtest.h>

#include <mutex>
#include <thread>

#include "engine/BlockingStatController.h"

namespace stonewall {

class SFSafariTab {};

namespace {

// A page that answers its two questions when the test says so. Two handles
// with the same id are the same page.
class FakePage : public SFSafariPage {
  public:
    FakePage(int id, std::optional<std::string> url, bool hasTab)
        : id_(id), url_(std::move(url)), hasTab_(hasTab) {}

    bool isEqual(const SFSafariPage& other) const override {
        auto* page = dynamic_cast<const FakePage*>(&other);
        return page && page->id_ == id_;
    }
    void getPagePropertiesWithCompletionHandler(PropertiesHandler handler) override {
        std::lock_guard lock(mutex_);
        ++propertyQueries;
        pendingProperties_.push_back(std::move(handler));
    }
    void getContainingTabWithCompletionHandler(TabHandler handler) override {
        std::lock_guard lock(mutex_);
        ++tabQueries;
        pendingTabs_.push_back(std::move(handler));
    }
    void dispatchMessageToScriptWithName(const std::string&, const nlohmann::json&) override {}
    void reload() override {}

    // Answers every question asked so far (and the ones those answers ask).
    void answer() {
        while (true) {
            std::vector<PropertiesHandler> properties;
            std::vector<TabHandler> tabs;
            {
                std::lock_guard lock(mutex_);
                properties.swap(pendingProperties_);
                tabs.swap(pendingTabs_);
            }
            if (properties.empty() && tabs.empty()) return;
            for (auto& handler : properties) handler(SFSafariPageProperties{url_, true});
            for (auto& handler : tabs) handler(hasTab_ ? std::make_shared<SFSafariTab>() : nullptr);
        }
    }

    int propertyQueries = 0;
    int tabQueries = 0;

  private:
    int id_;
    std::optional<std::string> url_;
    bool hasTab_;
    std::mutex mutex_;
    std::vector<PropertiesHandler> pendingProperties_;
    std::vector<TabHandler> pendingTabs_;
};

std::shared_ptr<FakePage> page(int id, std::optional<std::string> url = std::nullopt,
                               bool hasTab = false) {
    return std::make_shared<FakePage>(id, std::move(url), hasTab);
}

TEST(BlockingStatController, CountsPerPageWithDuplicatesUntilResetOrRemoved) {
    BlockingStatController stats;
    auto first = page(1);
    stats.addURLsForPage({"https://a/x.js"}, first);
    stats.addURLsForPage({"https://a/x.js", "https://b/y.gif"}, page(1));  // same page, new handle
    stats.addURLsForPage({"https://c/z"}, page(2));
    EXPECT_EQ(stats.URLsCountForPage(first), 3);
    EXPECT_EQ(stats.URLsCountForPage(page(2)), 1);
    EXPECT_EQ(stats.URLsCountForPage(page(3)), 0);
    EXPECT_EQ(stats.URLsCountForPage(nullptr), 0);
    stats.addURLsForPage({"ignored"}, nullptr);
    EXPECT_EQ(stats.pageCount(), 2u);

    stats.resetURLsForPage(page(1));
    EXPECT_EQ(stats.URLsCountForPage(page(1)), 0);
    EXPECT_EQ(stats.pageCount(), 2u) << "a reset page keeps its entry";

    stats.resetURLsForPage(page(9));
    stats.removeURLsForPage(page(9));
    EXPECT_EQ(stats.pageCount(), 2u) << "unknown pages get no entry";

    stats.removeURLsForPage(page(1));
    EXPECT_EQ(stats.pageCount(), 1u);
    EXPECT_EQ(stats.URLsCountForPage(page(2)), 1);
}

TEST(BlockingStatController, APageThatBlocksWithoutEndKeepsItsCountButNotEveryURL) {
    BlockingStatController stats;
    constexpr size_t kept = BlockingStatController::kMaximumKeptURLs;
    stats.addURLsForPage(BlockingStatController::URLs(kept - 1, "https://a/x"), page(1));
    stats.addURLsForPage({"https://a/last", "https://a/past"}, page(1));
    for (int i = 0; i < 100; ++i) {
        stats.addURLsForPage(BlockingStatController::URLs(1000, std::string(8192, 'u')), page(1));
    }
    EXPECT_EQ(stats.URLsCountForPage(page(1)), static_cast<int64_t>(kept + 1 + 100000));
    const auto requests = stats.blockedRequests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].second.size(), kept);
    EXPECT_EQ(requests[0].second.back(), "https://a/last");
    stats.resetURLsForPage(page(1));
    EXPECT_EQ(stats.URLsCountForPage(page(1)), 0);
    stats.addURLsForPage({"https://a/again"}, page(1));
    EXPECT_EQ(stats.URLsCountForPage(page(1)), 1);
}

TEST(BlockingStatController, CleanupStartsAtItsThreshold) {
    struct Case {
        int pages;
        bool blockingCounter;
        bool asks;
    };
    for (const Case& c : {Case{9, false, false}, Case{10, false, true}, Case{19, true, false},
                          Case{20, true, true}}) {
        SCOPED_TRACE(std::to_string(c.pages) + (c.blockingCounter ? " counter" : ""));
        BlockingStatController stats;
        std::vector<std::shared_ptr<FakePage>> pages;
        for (int i = 0; i < c.pages; ++i) {
            pages.push_back(page(i));
            stats.addURLsForPage({"u"}, pages.back());
        }
        stats.cleanupPages(c.blockingCounter);
        EXPECT_EQ(stats.pageCount(), static_cast<size_t>(c.pages)) << "the call removes nothing";
        for (auto& p : pages) p->answer();
        int asked = 0;
        for (auto& p : pages) asked += p->propertyQueries;
        EXPECT_EQ(asked, c.asks ? c.pages : 0);
        EXPECT_EQ(stats.pageCount(), c.asks ? 0u : static_cast<size_t>(c.pages));
    }
}

TEST(BlockingStatController, CleanupKeepsPagesWithAURLOrATab) {
    BlockingStatController stats;
    auto withURL = page(1, "https://kept.example/", /*hasTab=*/false);
    auto withTab = page(2, std::nullopt, /*hasTab=*/true);
    auto closed = page(3, std::nullopt, /*hasTab=*/false);
    std::vector<std::shared_ptr<FakePage>> pages = {withURL, withTab, closed};
    for (int i = 4; i < 11; ++i)
        pages.push_back(page(i, "https://open.example/" + std::to_string(i)));
    for (auto& p : pages) stats.addURLsForPage({"u"}, p);

    stats.cleanupPages(false);
    for (auto& p : pages) p->answer();

    EXPECT_EQ(withURL->tabQueries, 0) << "a page with a URL is not asked for its tab";
    EXPECT_EQ(withTab->tabQueries, 1);
    EXPECT_EQ(stats.pageCount(), 9u);
    EXPECT_EQ(stats.URLsCountForPage(closed), 0);
}

TEST(BlockingStatController, AnswersAfterTheControllerIsGoneAreDropped) {
    std::vector<std::shared_ptr<FakePage>> pages;
    {
        BlockingStatController stats;
        for (int i = 0; i < 10; ++i) {
            pages.push_back(page(i));
            stats.addURLsForPage({"u"}, pages.back());
        }
        stats.cleanupPages(false);
    }
    for (auto& p : pages) p->answer();  // must not touch freed memory
}

TEST(BlockingStatController, ConcurrentReportsKeepTheTableIntact) {
    BlockingStatController stats;
    constexpr int kThreads = 4;
    constexpr int kReports = 500;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&stats, t] {
            for (int i = 0; i < kReports; ++i) {
                stats.addURLsForPage({"u"}, page(i % 5));
                (void)stats.URLsCountForPage(page(t));
                if (i % 100 == 99) stats.cleanupPages(true);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    int64_t total = 0;
    for (int i = 0; i < 5; ++i) total += stats.URLsCountForPage(page(i));
    EXPECT_EQ(total, kThreads * kReports);
}

}  // namespace
}  // namespace stonewall
