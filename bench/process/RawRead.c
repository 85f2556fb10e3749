/* The floor of `stonewall compile --no-reload`: a process that reads the rows
 * of a profile database with the compiler's eight queries and plain
 * sqlite3_step, every column's text fetched (as any reader must), and
 * nothing else.
 *
 *   bench_raw_read DATABASE
 */

#include <sqlite3.h>
#include <stdio.h>

int main(int argc, char** argv) {
    static const int kActions[] = {5, 1, 4, 2, 3, 6, 7, 8};
    sqlite3* database = NULL;
    unsigned long long bytes = 0, rows = 0;
    if (argc != 2 || sqlite3_open_v2(argv[1], &database, SQLITE_OPEN_READONLY, NULL) != SQLITE_OK) {
        fprintf(stderr, "usage: %s DATABASE\n", argv[0]);
        return 1;
    }
    for (int i = 0; i < 8; ++i) {
        sqlite3_stmt* statement = NULL;
        if (sqlite3_prepare_v2(database,
                               "SELECT * FROM ProfileRules WHERE action=? ORDER BY filter", -1,
                               &statement, NULL) != SQLITE_OK) {
            return 1;
        }
        sqlite3_bind_int(statement, 1, kActions[i]);
        while (sqlite3_step(statement) == SQLITE_ROW) {
            ++rows;
            for (int column = 0; column < sqlite3_column_count(statement); ++column) {
                if (sqlite3_column_text(statement, column)) {
                    bytes += (unsigned long long)sqlite3_column_bytes(statement, column);
                }
            }
        }
        sqlite3_finalize(statement);
    }
    sqlite3_close_v2(database);
    printf("%llu rows, %llu bytes\n", rows, bytes);
    return 0;
}
