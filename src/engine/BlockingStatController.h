#pragma once

// Counts, per open page, the resource URLs that the content blocker blocked,
// for the toolbar badge. Memory only; nothing is stored.
//
// Threads: the browser reports from threads of its choosing and the popover
// resets from the main queue; the page table is guarded by a mutex of its own
// so that it stays intact, and nothing else is promised (a count read while
// URLs are being added may or may not include them). The removals that
// cleanupPages asks for happen later, in the pages' own answers, possibly
// after this object is gone (they are then dropped).

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/SFSafariPage.h"

namespace stonewall {

class BlockingStatController {
  public:
    using Page = std::shared_ptr<SFSafariPage>;
    using URLs = std::vector<std::string>;

    BlockingStatController();
    ~BlockingStatController();
    BlockingStatController(const BlockingStatController&) = delete;
    BlockingStatController& operator=(const BlockingStatController&) = delete;

    // The URLs kept per page; the count goes on past them.
    static constexpr size_t kMaximumKeptURLs = 1000;

    // Appends in arrival order, duplicates kept, up to kMaximumKeptURLs a
    // page; every URL counts. A null page is ignored.
    void addURLsForPage(const URLs& urls, const Page& page);
    // Empties a known page's list (it keeps its entry); unknown pages get none.
    void resetURLsForPage(const Page& page);
    void removeURLsForPage(const Page& page);
    void removeAllURLs();
    // 0 for an unknown or null page.
    int64_t URLsCountForPage(const Page& page) const;

    // Below 20 pages (blocking counter on) or 10 (off) does nothing; from
    // there on asks every page whether it still has a URL or a tab and drops
    // the ones that have neither, as their answers arrive.
    void cleanupPages(bool blockingCounter);

    // A snapshot of the table (the kept URLs), pages in the order they were
    // first seen.
    std::vector<std::pair<Page, URLs>> blockedRequests() const;
    size_t pageCount() const;

  private:
    struct Table;
    std::shared_ptr<Table> table_;
};

}  // namespace stonewall
