#include "engine/BlockingStatController.h"

#include <algorithm>
#include <iterator>
#include <mutex>

namespace stonewall {

// Pages compare by the browser's notion of the same page, not by object, and
// have no hash; a badge table holds a handful of pages, so a list searched
// linearly serves.
struct BlockingStatController::Table {
    struct Entry {
        Page first;
        URLs second;    // the first kMaximumKeptURLs of them
        int64_t count;  // all of them
    };
    mutable std::mutex mutex;
    std::vector<Entry> entries;

    // Call with the mutex held.
    std::vector<Entry>::iterator find(const SFSafariPage& page) {
        return std::find_if(entries.begin(), entries.end(),
                            [&](const auto& entry) { return entry.first->isEqual(page); });
    }

    void remove(const Page& page) {
        if (!page) return;
        std::lock_guard lock(mutex);
        auto it = find(*page);
        if (it != entries.end()) entries.erase(it);
    }
};

namespace {
constexpr size_t kCleanupThresholdWithCounter = 20;
constexpr size_t kCleanupThresholdWithoutCounter = 10;
}  // namespace

BlockingStatController::BlockingStatController() : table_(std::make_shared<Table>()) {}

BlockingStatController::~BlockingStatController() = default;

void BlockingStatController::addURLsForPage(const URLs& urls, const Page& page) {
    if (!page) return;
    std::lock_guard lock(table_->mutex);
    auto it = table_->find(*page);
    if (it == table_->entries.end()) {
        table_->entries.push_back({page, {}, 0});
        it = std::prev(table_->entries.end());
    }
    // A page can block loads without end; past the kept ones only the count
    // grows, so a page's entry stays small whatever it asks for.
    const size_t room = kMaximumKeptURLs - std::min(kMaximumKeptURLs, it->second.size());
    it->second.insert(it->second.end(), urls.begin(),
                      urls.begin() + static_cast<std::ptrdiff_t>(std::min(room, urls.size())));
    it->count += static_cast<int64_t>(urls.size());
}

void BlockingStatController::resetURLsForPage(const Page& page) {
    if (!page) return;
    std::lock_guard lock(table_->mutex);
    auto it = table_->find(*page);
    if (it != table_->entries.end()) {
        it->second.clear();
        it->count = 0;
    }
}

void BlockingStatController::removeURLsForPage(const Page& page) { table_->remove(page); }

void BlockingStatController::removeAllURLs() {
    std::lock_guard lock(table_->mutex);
    table_->entries.clear();
}

int64_t BlockingStatController::URLsCountForPage(const Page& page) const {
    if (!page) return 0;
    // A page object whose comparison fails counts as having no entry: the
    // badge then shows nothing rather than taking the handler down.
    try {
        std::lock_guard lock(table_->mutex);
        auto it = table_->find(*page);
        return it == table_->entries.end() ? 0 : it->count;
    } catch (...) {
        return 0;
    }
}

void BlockingStatController::cleanupPages(bool blockingCounter) {
    const size_t threshold =
        blockingCounter ? kCleanupThresholdWithCounter : kCleanupThresholdWithoutCounter;
    std::vector<Page> pages;
    {
        std::lock_guard lock(table_->mutex);
        if (table_->entries.size() < threshold) return;
        pages.reserve(table_->entries.size());
        for (const auto& entry : table_->entries) pages.push_back(entry.first);
    }
    // The pages answer on the browser's threads, maybe after this object is
    // gone: the answers hold the table weakly and touch it under its mutex.
    std::weak_ptr<Table> weakTable = table_;
    for (const Page& page : pages) {
        page->getPagePropertiesWithCompletionHandler(
            [weakTable, page](std::optional<SFSafariPageProperties> properties) {
                if (properties && properties->url) return;
                page->getContainingTabWithCompletionHandler(
                    [weakTable, page](std::shared_ptr<SFSafariTab> tab) {
                        if (tab) return;
                        if (auto table = weakTable.lock()) table->remove(page);
                    });
            });
    }
}

std::vector<std::pair<BlockingStatController::Page, BlockingStatController::URLs>>
BlockingStatController::blockedRequests() const {
    std::lock_guard lock(table_->mutex);
    std::vector<std::pair<Page, URLs>> requests;
    requests.reserve(table_->entries.size());
    for (const auto& entry : table_->entries) requests.emplace_back(entry.first, entry.second);
    return requests;
}

size_t BlockingStatController::pageCount() const {
    std::lock_guard lock(table_->mutex);
    return table_->entries.size();
}

}  // namespace stonewall
