#pragma once

// Helpers shared by the two database classes; not part of the storage
// interface: the statement that owns its binds and column reads, the one
// transaction (RAII), opening, moving aside and salvaging a damaged file.

#include <sqlite3.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "storage/FileHandler.h"
#include "utilities/Nullable.h"

namespace stonewall::storage_detail {

// Every connection waits this long for another process's lock (the main
// application and the content-blocker extension open the same files) before
// a statement gives up with SQLITE_BUSY.
inline constexpr int kBusyTimeoutMilliseconds = 5000;

// Tests: another busy timeout for connections opened from now on (a
// negative value restores the default).
void setBusyTimeoutForTesting(int milliseconds);

// True when the connection's last failure was another connection's lock
// (SQLITE_BUSY or SQLITE_LOCKED) rather than a fault of the file. A file
// that merely could not be read in time must not be replaced by a template.
[[nodiscard]] bool failedOnLock(sqlite3* database);

// Sets up a freshly opened connection: the busy timeout, and the defences
// for a file that any program of the user could have written (no trust in
// functions named by its schema, no writable schema, and the time guard of
// armDeadline).
void configureConnection(sqlite3* database);

// A database file is outside input: a view or trigger in it could make a
// statement run for ever. Work of this thread on any connection is
// interrupted once it runs past the deadline set here (now plus a limit far
// above any real statement). Preparing, executing and Statement::step set
// it; other calls into SQLite set it themselves.
void armDeadline();
// Tests: puts this thread's deadline in the past.
void expireDeadlineForTesting();

// Integers are stored as 32-bit values: the low 32 bits are kept.
inline int truncateToInt32(int64_t value) {
    return static_cast<int>(static_cast<uint32_t>(static_cast<uint64_t>(value)));
}

// A double cut to its integer part and then to 32 bits; NaN and infinities,
// which have no integer part, give 0.
int truncateTimestampToInt32(double value);

// Where a failure goes: the owning class's log (its logError).
using ErrorHook = void (*)(std::string_view message);

// A prepared statement that finalises itself, and the one way to bind its
// parameters and read its rows. Empty when preparing failed.
//
// Binding (1-based) and reading (0-based) follow the tables' conventions:
// integers through the 32-bit calls (the low 32 bits are kept), text as
// UTF-8 with a transient copy, a null string as SQL NULL. A column the row
// does not have reads as null or 0, and so does text that is not valid UTF-8
// (the platform's UTF-8 string constructor gives no string for it).
class Statement {
  public:
    Statement() = default;
    explicit Statement(sqlite3_stmt* statement) : statement_(statement) {}
    ~Statement() { sqlite3_finalize(statement_); }
    Statement(Statement&& other) noexcept : statement_(other.release()) {}
    Statement& operator=(Statement&& other) noexcept {
        if (this != &other) {
            sqlite3_finalize(statement_);
            statement_ = other.release();
        }
        return *this;
    }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    sqlite3_stmt* get() const { return statement_; }
    explicit operator bool() const { return statement_ != nullptr; }
    // Hands the statement over to a caller that finalises it itself.
    [[nodiscard]] sqlite3_stmt* release() {
        sqlite3_stmt* statement = statement_;
        statement_ = nullptr;
        return statement;
    }

    void bind(int index, const NullableString& value);
    void bind(int index, int64_t value) {
        sqlite3_bind_int(statement_, index, truncateToInt32(value));
    }
    void bindDouble(int index, double value) { sqlite3_bind_double(statement_, index, value); }

    NullableString columnString(int column) const;
    // Fills `out` in place so that a reused record keeps its buffers.
    void columnStringInto(int column, NullableString& out) const;
    // The column as a 32-bit integer sign-extended to 64 bits.
    int64_t columnInt(int column) const;
    double columnDouble(int column) const;

    // One step under the statement deadline: SQLITE_ROW, SQLITE_DONE or an
    // error code.
    int step();
    // Steps a statement that returns no rows and resets it for the next
    // bindings; false after reporting the failure (with the statement's SQL)
    // to `logError`.
    bool stepToDone(ErrorHook logError);
    void reset() { sqlite3_reset(statement_); }

  private:
    bool hasColumn(int column) const;

    sqlite3_stmt* statement_ = nullptr;
};

// Prepares `sql` under the statement deadline. Empty (after telling
// `logError`) when there is no connection or the statement does not compile.
[[nodiscard]] Statement prepareStatement(sqlite3* database, const char* sql, ErrorHook logError);

// A transaction that is rolled back unless commit() succeeds: a batch that
// stops early (a statement that does not compile, an exception) must not
// leave the connection inside a transaction, where the next BEGIN fails and a
// later COMMIT would write half a batch, and where the file stays locked
// against the other programs that share it.
class Transaction {
  public:
    Transaction(sqlite3* database, ErrorHook logError);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    bool begun() const { return begun_; }
    // Commits even when BEGIN failed, as every writer of these files does:
    // the failure is then only logged. False when COMMIT failed.
    [[nodiscard]] bool commit();

  private:
    sqlite3* database_;
    ErrorHook logError_;
    bool begun_ = false;
    bool finished_ = false;
};

// The bundle's template database of that name.
std::string templatePath(std::string_view name);

// Opens (creating when missing) the database at `path` and configures it.
// On failure `database` is left null, so that every later call sees "no open
// database" instead of a misuse error on a handle that serves nothing.
int openConnection(const std::string& path, sqlite3*& database, ErrorHook logError);

// The connection's last error, for the log.
std::string errorText(sqlite3* database, std::string_view what);

// Runs one statement that returns no rows (transaction control) under the
// statement deadline. Empty on success, else the text for the error hook.
[[nodiscard]] std::optional<std::string> executeStatement(sqlite3* database, const char* sql);
// The same, reporting a failure through `logError`; false when it failed.
bool executeStatement(sqlite3* database, const char* sql, ErrorHook logError);

// Plain BEGIN and COMMIT for callers that pair them themselves (the
// Transaction below pairs them for everyone else).
inline constexpr char kBeginSql[] = "BEGIN TRANSACTION";
inline constexpr char kCommitSql[] = "COMMIT TRANSACTION";

// Moves a damaged database file aside (with its journal, so that a stale
// journal is never applied to the fresh file that takes its place) and
// returns where it went; null when nothing was moved.
[[nodiscard]] NullableString moveDatabaseAside(const FileHandler& handler, const std::string& name);

// A damaged database file opened for reading what is left of it. When
// SQLite cannot read the file's schema at all (its 100-byte header is
// garbage, though its pages may be intact), the rows are read from a copy
// whose header is rebuilt from that of `wholeDatabase` (a fresh copy of the
// same template: same page size and encoding), trying the other page sizes
// where that one does not fit; the copy is removed again.
class DamagedFile {
  public:
    DamagedFile(const std::string& damagedPath, sqlite3* wholeDatabase);
    ~DamagedFile();
    DamagedFile(const DamagedFile&) = delete;
    DamagedFile& operator=(const DamagedFile&) = delete;

    // Null when nothing of the file can be read.
    sqlite3* get() const { return database_; }
    // Whether the header had to be rebuilt.
    bool headerRebuilt() const { return !copyPath_.empty(); }

  private:
    sqlite3* database_ = nullptr;
    std::string copyPath_;
};

// Copies the rows of `table` that SQLite can still read from `damaged` into
// the same table of `fresh`, in one transaction. Rows are read in rowid
// order; where a damaged page stops the read, the read goes on after the
// rows that page held (found by seeking), so one bad page costs only its own
// rows. Returns the number of rows copied.
[[nodiscard]] int64_t salvageRows(sqlite3* fresh, const DamagedFile& damaged, const char* table);

}  // namespace stonewall::storage_detail
