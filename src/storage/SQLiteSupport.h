#pragma once

// Helpers shared by the two database classes; not part of the storage
// interface. Binding and reading follow the tables' conventions: integers
// through the 32-bit calls, text as UTF-8 with a transient copy, a null
// string as SQL NULL.

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
bool failedOnLock(sqlite3* database);

// Sets up a freshly opened connection: the busy timeout, and the defences
// for a file that any program of the user could have written (no trust in
// functions named by its schema, no writable schema, and the time guard of
// armDeadline).
void configureConnection(sqlite3* database);

// A database file is outside input: a view or trigger in it could make a
// statement run for ever. Work of this thread on any connection is
// interrupted once it runs past the deadline set here (now plus a limit far
// above any real statement). Call it before each prepare and exec, and
// before each step of a write; a read is covered from its prepare to its
// last row.
void armDeadline();
// Tests: puts this thread's deadline in the past.
void expireDeadlineForTesting();

// True when the bytes are well-formed UTF-8 (no overlong forms, surrogates or
// code points above U+10FFFF).
bool isValidUTF8(std::string_view bytes);

// The column's text, or null for SQL NULL, for text that is not valid UTF-8
// (the platform's UTF-8 string constructor gives no string for it), and for
// a column the row does not have.
NullableString columnString(sqlite3_stmt* statement, int column);

// Fills `out` in place so that a reused record keeps its buffers.
void columnStringInto(sqlite3_stmt* statement, int column, NullableString& out);

// The column as a 32-bit integer sign-extended to 64 bits; 0 for a column the
// row does not have.
int64_t columnInt(sqlite3_stmt* statement, int column);
double columnDouble(sqlite3_stmt* statement, int column);

// Wraps like the 32-bit binding call of the original: the low 32 bits.
inline int truncateToInt32(int64_t value) {
    return static_cast<int>(static_cast<uint32_t>(static_cast<uint64_t>(value)));
}

// A double cut to its integer part and then to 32 bits; NaN and infinities,
// which have no integer part, give 0.
int truncateTimestampToInt32(double value);

int bindString(sqlite3_stmt* statement, int index, const NullableString& value);
inline int bindInt(sqlite3_stmt* statement, int index, int64_t value) {
    return sqlite3_bind_int(statement, index, truncateToInt32(value));
}

// The connection's last error, for the log.
std::string errorText(sqlite3* database, std::string_view what);

// Runs one statement that returns no rows (transaction control) under the
// statement deadline. Empty on success, else the text for the error hook.
std::optional<std::string> executeStatement(sqlite3* database, const char* sql);

// Moves a damaged database file aside (with its journal, so that a stale
// journal is never applied to the fresh file that takes its place) and
// returns where it went; null when nothing was moved.
NullableString moveDatabaseAside(const FileHandler& handler, const std::string& name);

// Copies the rows of `table` that SQLite can still read from the damaged
// file at `damagedPath` into the same table of `fresh`, in one transaction,
// stopping at the first unreadable page. Returns the number of rows copied.
int64_t salvageRows(sqlite3* fresh, const std::string& damagedPath, const char* table);

}  // namespace stonewall::storage_detail
