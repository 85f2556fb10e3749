#pragma once

// The fixture of the command's tests: a fresh sandbox per test, the real
// binary, and direct access to the container's files (the SQLite databases
// and rule lists) to set up state and to check what a command stored.

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "StonewallRunner.h"

namespace stonewall::tool::testing {

using Row = std::vector<std::optional<std::string>>;

// A SQL literal: the quoted text, or NULL.
std::string sqlText(const std::optional<std::string>& text);
// One statement on one SQLite file, opened for the call; throws when it fails.
std::vector<Row> sqlQuery(const std::filesystem::path& database, const std::string& sql);
inline void sqlExec(const std::filesystem::path& database, const std::string& sql) {
    (void)sqlQuery(database, sql);
}

// Every file under a folder, by relative path, with its bytes.
std::map<std::string, std::string> snapshotFiles(const std::filesystem::path& folder);
void writeFile(const std::filesystem::path& path, const std::string& contents);

class ToolTest : public ::testing::Test {
  protected:
    ToolTest() : runner_(makeTemporaryFolder()) {}
    ~ToolTest() override {
        std::error_code ignored;
        std::filesystem::remove_all(runner_.root(), ignored);
    }

    StonewallRunner& runner() { return runner_; }
    std::filesystem::path container() const { return runner_.containerPath(); }
    std::filesystem::path sharedDatabase() const { return container() / ".Shared" / "shared_data"; }
    std::filesystem::path profileDatabase(const std::string& profile = "defaultProfile") const {
        return container() / ".Profiles" / ("profile_" + profile + "_data");
    }
    std::filesystem::path ruleFile(const std::string& profile = "defaultProfile") const {
        return container() / ".Profiles" / ("profile_" + profile + "_unarchive.json");
    }
    // A file in the sandbox, outside the container.
    std::filesystem::path scratch(const std::string& name) const { return runner_.root() / name; }

    RunResult run(const std::vector<std::string>& args, const std::string& input = {}) {
        return runner_.run(args, input);
    }
    // Runs with --json, expects exit code 0 and returns the one JSON object.
    nlohmann::json runJSON(std::vector<std::string> args, const std::string& input = {});
    // Runs and expects exit code 0; returns stdout.
    std::string runOK(const std::vector<std::string>& args, const std::string& input = {});

    // A container made by the program (first run), ready for direct edits.
    void createContainer() { runOK({"info"}); }
    // Adds a second profile "work" ("Work") to the shared record.
    void addWorkProfile() {
        sqlExec(sharedDatabase(),
                "UPDATE SharedData SET profileIDs='defaultProfile,work', "
                "profiles='Default Profile,Work'");
    }
    // Inserts a ProfileRules row into the profile's database.
    void addProfileRule(const std::string& profile, int blocker, int action,
                        const std::optional<std::string>& selector,
                        const std::optional<std::string>& filter,
                        const std::optional<std::string>& resources = std::nullopt);
    nlohmann::json ruleList(const std::string& profile = "defaultProfile") const {
        return nlohmann::json::parse(readFile(ruleFile(profile)), nullptr, false);
    }
    // The shared record's column, as text.
    std::optional<std::string> sharedValue(const std::string& column) const {
        return sqlQuery(sharedDatabase(), "SELECT " + column + " FROM SharedData").at(0).at(0);
    }
    int customRuleCount() const {
        return std::stoi(
            *sqlQuery(sharedDatabase(), "SELECT COUNT(*) FROM SharedCustomRules")[0][0]);
    }

  private:
    StonewallRunner runner_;
};

}  // namespace stonewall::tool::testing
