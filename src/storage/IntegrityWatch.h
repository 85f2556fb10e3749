#pragma once

#include <cstdint>
#include <optional>
#include <string>

struct sqlite3;

namespace stonewall::storage_detail {

// Damage that SQLite meets only when a statement reads the damaged page: a
// write into such a file can succeed while the rest of it is garbage. The
// databases are checked with PRAGMA quick_check when opened and again before
// a write whenever their file changed since it was last found whole or last
// written by this connection (another program wrote it, or something that
// is not SQLite did). The check reads every page: 5 ms for a profile of
// 50,000 generated rules, 11 ms for EasyList's 49,000 (5.3 MB), against the
// hundreds of milliseconds of a reload (bench/storage: BM_QuickCheck).
class IntegrityWatch {
  public:
    enum class State {
        Whole,
        Damaged,
        Unknown,  // another program's lock kept the check from running
    };
    // The file's state: quick_check runs unless the file is as it was when
    // this watch last found it whole or noted a write.
    [[nodiscard]] State check(sqlite3* database, const std::string& path);
    // After a write of this connection was committed: the file as it is now
    // needs no new check.
    void noteWrite(const std::string& path);
    void forget() { known_.reset(); }

  private:
    struct Stamp {
        uint64_t device = 0, inode = 0, size = 0;
        int64_t modifiedNanoseconds = 0;
        bool operator==(const Stamp&) const = default;
    };
    static std::optional<Stamp> stampOf(const std::string& path);
    std::optional<Stamp> known_;
};

// PRAGMA quick_check on its own: Whole, Damaged, or Unknown on a lock.
[[nodiscard]] IntegrityWatch::State quickCheck(sqlite3* database);

}  // namespace stonewall::storage_detail
