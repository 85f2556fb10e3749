#include "storage/SQLiteSupport.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>
#include <vector>

#include "platform/Platform.h"
#include "utilities/Unicode.h"

namespace stonewall::storage_detail {

namespace {

using Clock = std::chrono::steady_clock;

// Thirty seconds: fifty thousand rules read or written take well under one.
constexpr auto kStatementTimeLimit = std::chrono::seconds(30);
// Virtual-machine steps between two looks at the clock.
constexpr int kProgressInterval = 4096;

thread_local Clock::time_point tDeadline = Clock::time_point::max();

std::atomic<int> gBusyTimeout{kBusyTimeoutMilliseconds};

int checkDeadline(void*) { return Clock::now() > tDeadline ? 1 : 0; }

}  // namespace

void configureConnection(sqlite3* database) {
    if (!database) return;
    sqlite3_busy_timeout(database, gBusyTimeout.load());
    sqlite3_db_config(database, SQLITE_DBCONFIG_DEFENSIVE, 1, static_cast<int*>(nullptr));
    sqlite3_db_config(database, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, static_cast<int*>(nullptr));
    sqlite3_progress_handler(database, kProgressInterval, checkDeadline, nullptr);
}

void setBusyTimeoutForTesting(int milliseconds) {
    gBusyTimeout = milliseconds < 0 ? kBusyTimeoutMilliseconds : milliseconds;
}

bool failedOnLock(sqlite3* database) {
    if (!database) return false;
    const int code = sqlite3_errcode(database) & 0xff;
    return code == SQLITE_BUSY || code == SQLITE_LOCKED;
}

void armDeadline() { tDeadline = Clock::now() + kStatementTimeLimit; }

void expireDeadlineForTesting() { tDeadline = Clock::time_point::min(); }

bool Statement::hasColumn(int column) const {
    return column >= 0 && column < sqlite3_data_count(statement_);
}

void Statement::columnStringInto(int column, NullableString& out) const {
    if (!hasColumn(column)) {
        out.reset();
        return;
    }
    // No sqlite3_column_type first: the text call answers null for SQL NULL
    // as for a failed conversion, both read as absent, and every call takes
    // the connection's mutex (six more per row of the compiler's read).
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    if (!text) {
        out.reset();
        return;
    }
    // sqlite3_column_bytes must follow sqlite3_column_text: the text call may
    // convert the value, and the length is that of the converted text.
    const int length = sqlite3_column_bytes(statement_, column);
    const std::string_view bytes(text, static_cast<size_t>(length));
    if (!unicode::isValidUTF8(bytes)) {
        out.reset();
        return;
    }
    if (out) {
        out->assign(bytes);
    } else {
        out.emplace(bytes);
    }
}

NullableString Statement::columnString(int column) const {
    NullableString value;
    columnStringInto(column, value);
    return value;
}

int64_t Statement::columnInt(int column) const {
    if (!hasColumn(column)) return 0;
    return static_cast<int64_t>(sqlite3_column_int(statement_, column));
}

double Statement::columnDouble(int column) const {
    if (!hasColumn(column)) return 0;
    return sqlite3_column_double(statement_, column);
}

void Statement::bind(int index, const NullableString& value) {
    if (!value) {
        sqlite3_bind_null(statement_, index);
        return;
    }
    sqlite3_bind_text64(statement_, index, value->data(), value->size(), SQLITE_TRANSIENT,
                        SQLITE_UTF8);
}

int Statement::step() {
    armDeadline();
    return sqlite3_step(statement_);
}

bool Statement::stepToDone(ErrorHook logError) {
    const bool done = step() == SQLITE_DONE;
    if (!done) logError(errorText(sqlite3_db_handle(statement_), sqlite3_sql(statement_)));
    reset();
    return done;
}

int truncateTimestampToInt32(double value) {
    if (!std::isfinite(value)) return 0;
    const double whole = std::trunc(value);
    // Beyond the 64-bit range the conversion itself would be undefined.
    if (whole >= 9.2e18 || whole <= -9.2e18) return 0;
    return truncateToInt32(static_cast<int64_t>(whole));
}

std::string errorText(sqlite3* database, std::string_view what) {
    std::string text(what);
    text.append(": ");
    text.append(database ? sqlite3_errmsg(database) : "no open database");
    return text;
}

std::optional<std::string> executeStatement(sqlite3* database, const char* sql) {
    if (!database) return std::string(sql) + ": no open database";
    armDeadline();
    if (sqlite3_exec(database, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        return errorText(database, sql);
    }
    return std::nullopt;
}

Statement prepareStatement(sqlite3* database, const char* sql, ErrorHook logError) {
    if (!database) {
        logError(std::string("no open database for: ") + sql);
        return {};
    }
    armDeadline();
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(database, sql, -1, &statement, nullptr) != SQLITE_OK) {
        logError(errorText(database, std::string("prepare ") + sql));
        sqlite3_finalize(statement);
        return {};
    }
    return Statement(statement);
}

bool executeStatement(sqlite3* database, const char* sql, ErrorHook logError) {
    const auto failure = executeStatement(database, sql);
    if (failure) logError(*failure);
    return !failure;
}

namespace {
constexpr char kRollbackSql[] = "ROLLBACK TRANSACTION";
}  // namespace

Transaction::Transaction(sqlite3* database, ErrorHook logError)
    : database_(database), logError_(logError) {
    begun_ = executeStatement(database_, kBeginSql, logError_);
}

bool Transaction::commit() {
    finished_ = executeStatement(database_, kCommitSql, logError_);
    return finished_;
}

Transaction::~Transaction() {
    // A COMMIT that failed (another program's lock) leaves the transaction
    // open too; only what this object began is undone.
    if (!begun_ || finished_ || !database_ || sqlite3_get_autocommit(database_)) return;
    if (const auto failure = executeStatement(database_, kRollbackSql)) logError_(*failure);
}

std::string templatePath(std::string_view name) {
    std::string path = platform::bundle().resourcePath();
    if (!path.empty() && path.back() != '/') path.push_back('/');
    path.append(name);
    return path;
}

int openConnection(const std::string& path, sqlite3*& database, ErrorHook logError) {
    const int result = sqlite3_open(path.c_str(), &database);
    if (result != SQLITE_OK) {
        logError(errorText(database, "open " + path));
        sqlite3_close_v2(database);
        database = nullptr;
        return result;
    }
    configureConnection(database);
    return result;
}

NullableString moveDatabaseAside(const FileHandler& handler, const std::string& name) {
    NullableString aside = handler.moveAside(name);
    if (!aside) return aside;
    for (const char* suffix : {"-journal", "-wal", "-shm"}) {
        const std::string sidecar = handler.getFilePath(name + suffix);
        if (::rename(sidecar.c_str(), (*aside + suffix).c_str()) != 0 && errno != ENOENT) {
            // A stale journal left next to the fresh file would be applied to
            // it on the next open: better no file than a wrong one.
            std::remove(sidecar.c_str());
        }
    }
    return aside;
}

namespace {

constexpr size_t kHeaderSize = 100;
constexpr size_t kSmallestPage = 512;
constexpr size_t kLargestPage = 65536;

// A rebuilt header's page size: two bytes, 1 meaning 65536.
void putPageSize(std::string& header, size_t pageSize) {
    const size_t stored = pageSize == kLargestPage ? 1 : pageSize;
    header[16] = static_cast<char>((stored >> 8) & 0xff);
    header[17] = static_cast<char>(stored & 0xff);
}

void putBigEndian32(std::string& header, size_t offset, uint32_t value) {
    for (int i = 0; i < 4; ++i) {
        header[offset + static_cast<size_t>(i)] = static_cast<char>((value >> (24 - 8 * i)) & 0xff);
    }
}

size_t pageSizeOf(std::string_view header) {
    const size_t stored =
        (static_cast<unsigned char>(header[16]) << 8) | static_cast<unsigned char>(header[17]);
    return stored == 1 ? kLargestPage : stored;
}

// Opens a file that may be damaged; null when SQLite cannot read its schema.
sqlite3* openReadable(const std::string& path) {
    sqlite3* database = nullptr;
    // Read-write without create: a hot journal beside it is rolled back.
    if (sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        sqlite3_close_v2(database);
        return nullptr;
    }
    configureConnection(database);
    armDeadline();
    if (sqlite3_exec(database, "SELECT count(*) FROM sqlite_schema", nullptr, nullptr, nullptr) !=
        SQLITE_OK) {
        sqlite3_close_v2(database);
        return nullptr;
    }
    return database;
}

}  // namespace

DamagedFile::DamagedFile(const std::string& damagedPath, sqlite3* wholeDatabase) {
    database_ = openReadable(damagedPath);
    if (database_ || !wholeDatabase) return;
    const char* wholePath = sqlite3_db_filename(wholeDatabase, "main");
    const auto bytes = FileHandler::readFromFilePath(damagedPath);
    const auto whole = wholePath ? FileHandler::readFromFilePath(wholePath) : std::nullopt;
    if (!bytes || !whole || bytes->size() < kSmallestPage || whole->size() < kHeaderSize) return;

    // The template's own page size first; a file made elsewhere may use
    // another one.
    std::string header = whole->substr(0, kHeaderSize);
    std::vector<size_t> pageSizes{pageSizeOf(header)};
    for (size_t size = kSmallestPage; size <= kLargestPage; size *= 2) {
        if (size != pageSizes.front()) pageSizes.push_back(size);
    }
    copyPath_ = damagedPath + ".recovering";
    for (const size_t pageSize : pageSizes) {
        if (pageSize < kSmallestPage || bytes->size() % pageSize != 0) continue;
        putPageSize(header, pageSize);
        // The page count in the header counts only when the change counter
        // (24) equals the "valid for" number (92); the free list is unknown.
        putBigEndian32(header, 24, 1);
        putBigEndian32(header, 28, static_cast<uint32_t>(bytes->size() / pageSize));
        putBigEndian32(header, 32, 0);
        putBigEndian32(header, 36, 0);
        putBigEndian32(header, 92, 1);
        std::string repaired = *bytes;
        repaired.replace(0, kHeaderSize, header);
        if (!FileHandler::writeToURL(copyPath_, repaired, false)) break;
        database_ = openReadable(copyPath_);
        if (database_) return;
    }
    std::remove(copyPath_.c_str());
    copyPath_.clear();
}

DamagedFile::~DamagedFile() {
    sqlite3_close_v2(database_);
    if (!copyPath_.empty()) {
        std::remove(copyPath_.c_str());
        std::remove((copyPath_ + "-journal").c_str());
    }
}

int64_t salvageRows(sqlite3* fresh, const DamagedFile& damaged, const char* table) {
    if (!fresh || !damaged.get()) return 0;
    // The salvage reports through its count alone: a damaged file is
    // expected to fail here and there.
    const ErrorHook quiet = [](std::string_view) {};
    const std::string select =
        std::string("SELECT rowid, * FROM ") + table + " WHERE rowid >= ? ORDER BY rowid";
    Statement reading = prepareStatement(damaged.get(), select.c_str(), quiet);
    const int columns = reading ? sqlite3_column_count(reading.get()) - 1 : 0;
    if (columns <= 0) return 0;
    std::string insert = std::string("INSERT INTO ") + table + " VALUES (";
    for (int i = 0; i < columns; ++i) insert += i == 0 ? "?" : ",?";
    insert += ")";
    Transaction transaction(fresh, quiet);
    Statement writing =
        transaction.begun() ? prepareStatement(fresh, insert.c_str(), quiet) : Statement();
    if (!writing) return 0;

    // The first step of a read from rowid `from` on.
    const auto seek = [&](int64_t from) {
        reading.reset();
        sqlite3_bind_int64(reading.get(), 1, from);
        return reading.step();
    };
    int64_t copied = 0;
    // The rowid of the last row this turn read, if it read one.
    int64_t last = 0;
    bool readAny = false;
    // Copies the rows from `from` on; the result of the step that ended the read.
    const auto readFrom = [&](int64_t from) {
        readAny = false;
        int result;
        for (result = seek(from); result == SQLITE_ROW; result = reading.step()) {
            last = sqlite3_column_int64(reading.get(), 0);
            readAny = true;
            for (int i = 0; i < columns; ++i) {
                sqlite3_bind_value(writing.get(), i + 1,
                                   sqlite3_column_value(reading.get(), i + 1));
            }
            if (writing.step() == SQLITE_DONE) ++copied;
            writing.reset();
        }
        return result;
    };
    // Whether a read from `from` gets past the damaged page (finds a row or
    // the table's end) without reading anything.
    const auto readable = [&](int64_t from) {
        const int result = seek(from);
        return result == SQLITE_ROW || result == SQLITE_DONE;
    };

    int64_t from = std::numeric_limits<int64_t>::min();
    // Each turn passes one damaged page, and a table has fewer pages than this.
    for (int turn = 0; turn < 1 << 20; ++turn) {
        if (readFrom(from) == SQLITE_DONE) break;
        // Seeking a rowid that the damaged page would hold fails; one past
        // its rows succeeds: find that point, probing by doubling steps and
        // then halving the interval.
        int64_t failed = readAny ? last : from;
        if (failed == std::numeric_limits<int64_t>::max()) break;
        int64_t step = 1;
        std::optional<int64_t> passes;
        while (!passes) {
            const int64_t probe = failed > std::numeric_limits<int64_t>::max() - step
                                      ? std::numeric_limits<int64_t>::max()
                                      : failed + step;
            if (readable(probe)) {
                passes = probe;
            } else if (probe == std::numeric_limits<int64_t>::max()) {
                break;
            } else {
                failed = probe;
                if (step < (int64_t{1} << 61)) step *= 2;
            }
        }
        if (!passes) break;
        while (*passes - failed > 1) {
            const int64_t middle = failed + (*passes - failed) / 2;
            if (readable(middle)) {
                passes = middle;
            } else {
                failed = middle;
            }
        }
        from = *passes;
    }
    reading.reset();
    if (!transaction.commit()) return 0;
    return copied;
}

}  // namespace stonewall::storage_detail
