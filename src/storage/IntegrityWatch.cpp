#include "storage/IntegrityWatch.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <string_view>

#include "storage/SQLiteSupport.h"

namespace stonewall::storage_detail {

IntegrityWatch::State quickCheck(sqlite3* database) {
    if (!database) return IntegrityWatch::State::Unknown;
    sqlite3_stmt* statement = nullptr;
    armDeadline();
    if (sqlite3_prepare_v2(database, "PRAGMA quick_check", -1, &statement, nullptr) != SQLITE_OK) {
        const Statement finalised(statement);
        return failedOnLock(database) ? IntegrityWatch::State::Unknown
                                      : IntegrityWatch::State::Damaged;
    }
    const Statement finalised(statement);
    const int result = sqlite3_step(statement);
    if (result == SQLITE_ROW) {
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
        return text && std::string_view(text) == "ok" ? IntegrityWatch::State::Whole
                                                      : IntegrityWatch::State::Damaged;
    }
    return failedOnLock(database) ? IntegrityWatch::State::Unknown : IntegrityWatch::State::Damaged;
}

std::optional<IntegrityWatch::Stamp> IntegrityWatch::stampOf(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return std::nullopt;
    return Stamp{
        static_cast<uint64_t>(status.st_dev), static_cast<uint64_t>(status.st_ino),
        static_cast<uint64_t>(status.st_size),
        static_cast<int64_t>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec};
}

IntegrityWatch::State IntegrityWatch::check(sqlite3* database, const std::string& path) {
    const auto before = stampOf(path);
    if (before && known_ && *before == *known_) return State::Whole;
    const State state = quickCheck(database);
    // The stamp from before the check: a change during it is seen next time.
    known_ = state == State::Whole ? before : std::nullopt;
    return state;
}

void IntegrityWatch::noteWrite(const std::string& path) {
    // Only a file known whole stays known: a write does not make it whole.
    if (known_) known_ = stampOf(path);
}

}  // namespace stonewall::storage_detail
