#include "ToolTestSupport.h"

#include <sqlite3.h>

#include <fstream>
#include <memory>
#include <stdexcept>

namespace stonewall::tool::testing {
namespace fs = std::filesystem;

std::string sqlText(const std::optional<std::string>& text) {
    if (!text) return "NULL";
    std::string quoted = "'";
    for (char c : *text) quoted += c == '\'' ? std::string("''") : std::string(1, c);
    return quoted + "'";
}

std::vector<Row> sqlQuery(const fs::path& database, const std::string& sql) {
    sqlite3* handle = nullptr;
    const int opened = sqlite3_open_v2(database.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> connection(handle, sqlite3_close);
    if (opened != SQLITE_OK) throw std::runtime_error("cannot open " + database.string());
    sqlite3_busy_timeout(handle, 5000);
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(handle, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        throw std::runtime_error(sql + ": " + sqlite3_errmsg(handle));
    }
    std::vector<Row> rows;
    int step = SQLITE_ROW;
    while ((step = sqlite3_step(statement)) == SQLITE_ROW) {
        Row& row = rows.emplace_back();
        for (int column = 0; column < sqlite3_column_count(statement); ++column) {
            const auto* text = sqlite3_column_text(statement, column);
            row.push_back(text ? std::optional<std::string>(reinterpret_cast<const char*>(text))
                               : std::nullopt);
        }
    }
    sqlite3_finalize(statement);
    if (step != SQLITE_DONE) throw std::runtime_error(sql + ": " + sqlite3_errmsg(handle));
    return rows;
}

std::map<std::string, std::string> snapshotFiles(const fs::path& folder) {
    std::map<std::string, std::string> files;
    std::error_code error;
    for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
        if (it->is_regular_file()) {
            files[fs::relative(it->path(), folder).string()] = readFile(it->path());
        }
    }
    return files;
}

void writeFile(const fs::path& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

nlohmann::json ToolTest::runJSON(std::vector<std::string> args, const std::string& input) {
    args.push_back("--json");
    const RunResult result = runner_.run(args, input);
    EXPECT_EQ(result.exitCode, 0) << describe(args, result);
    const auto json = nlohmann::json::parse(result.out, nullptr, /*allow_exceptions=*/false);
    EXPECT_TRUE(json.is_object()) << describe(args, result);
    return json;
}

std::string ToolTest::runOK(const std::vector<std::string>& args, const std::string& input) {
    const RunResult result = runner_.run(args, input);
    EXPECT_EQ(result.exitCode, 0) << describe(args, result);
    return result.out;
}

void ToolTest::addProfileRule(const std::string& profile, int blocker, int action,
                              const std::optional<std::string>& selector,
                              const std::optional<std::string>& filter,
                              const std::optional<std::string>& resources) {
    static int next = 0;
    sqlExec(profileDatabase(profile),
            "INSERT INTO ProfileRules VALUES ('rule" + std::to_string(++next) + "', " +
                std::to_string(blocker) + ", " + std::to_string(action) + ", " + sqlText(selector) +
                ", " + sqlText(filter) + ", " + sqlText(resources) + ", NULL, -1, NULL, 0)");
}

}  // namespace stonewall::tool::testing
