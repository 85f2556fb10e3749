#include "ToolTestSupport.h"

#include <sqlite3.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace stonewall::tool::testing {
namespace fs = std::filesystem;

std::string sqlText(const std::optional<std::string>& text) {
    if (!text) return "NULL";
    std::string quoted = "'";
    for (char c : *text) {
        if (c == '\'') quoted += '\'';
        quoted += c;
    }
    return quoted + "'";
}

namespace {

struct Connection {
    sqlite3* handle = nullptr;
    explicit Connection(const fs::path& path) {
        if (sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
            std::string message = handle ? sqlite3_errmsg(handle) : "out of memory";
            sqlite3_close(handle);
            throw std::runtime_error("cannot open " + path.string() + ": " + message);
        }
        sqlite3_busy_timeout(handle, 5000);
    }
    ~Connection() { sqlite3_close(handle); }
};

}  // namespace

void sqlExec(const fs::path& database, const std::string& sql) {
    Connection connection(database);
    char* error = nullptr;
    if (sqlite3_exec(connection.handle, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        std::string message = error ? error : "unknown error";
        sqlite3_free(error);
        throw std::runtime_error(sql + ": " + message);
    }
}

std::vector<Row> sqlQuery(const fs::path& database, const std::string& sql) {
    Connection connection(database);
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(connection.handle, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
        throw std::runtime_error(sql + ": " + sqlite3_errmsg(connection.handle));
    }
    std::vector<Row> rows;
    while (sqlite3_step(statement) == SQLITE_ROW) {
        Row row;
        for (int column = 0; column < sqlite3_column_count(statement); ++column) {
            const auto* text = sqlite3_column_text(statement, column);
            row.push_back(text ? std::optional<std::string>(reinterpret_cast<const char*>(text))
                               : std::nullopt);
        }
        rows.push_back(std::move(row));
    }
    sqlite3_finalize(statement);
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

std::string readFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

void writeFile(const fs::path& path, const std::string& contents) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << contents;
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

void ToolTest::createContainer() {
    runOK({"info"});
    ASSERT_TRUE(fs::exists(sharedDatabase()));
    ASSERT_TRUE(fs::exists(profileDatabase()));
}

void ToolTest::addWorkProfile() {
    sqlExec(sharedDatabase(),
            "UPDATE SharedData SET profileIDs='defaultProfile,work', "
            "profiles='Default Profile,Work'");
}

void ToolTest::addProfileRule(const std::string& profile, int blocker, int action,
                              const std::optional<std::string>& selector,
                              const std::optional<std::string>& filter,
                              const std::optional<std::string>& resources,
                              const std::optional<std::string>& domains, int domainType) {
    static int next = 0;
    sqlExec(profileDatabase(profile),
            "INSERT INTO ProfileRules VALUES ('rule" + std::to_string(++next) + "', " +
                std::to_string(blocker) + ", " + std::to_string(action) + ", " + sqlText(selector) +
                ", " + sqlText(filter) + ", " + sqlText(resources) + ", NULL, " +
                std::to_string(domainType) + ", " + sqlText(domains) + ", 0)");
}

nlohmann::json ToolTest::ruleList(const std::string& profile) const {
    return nlohmann::json::parse(readFile(ruleFile(profile)), nullptr,
                                 /*allow_exceptions=*/false);
}

std::optional<std::string> ToolTest::sharedValue(const std::string& column) const {
    const auto rows = sqlQuery(sharedDatabase(), "SELECT " + column + " FROM SharedData");
    if (rows.empty() || rows.front().empty()) return std::nullopt;
    return rows.front().front();
}

int ToolTest::customRuleCount() const {
    const auto rows = sqlQuery(sharedDatabase(), "SELECT COUNT(*) FROM SharedCustomRules");
    return std::stoi(*rows.at(0).at(0));
}

}  // namespace stonewall::tool::testing
