#pragma once

// Shared pieces of the storage tests: a fixture over a fresh temporary
// container, and a plain SQLite connection for looking at (and damaging) the
// files behind the classes under test.

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>

#include "platform/testing/TestPlatform.h"
#include "storage/ExtensionState.h"
#include "storage/SharedDatabase.h"

namespace stonewall::testing {

// A direct connection to a database file, for setting up and checking rows
// without going through the code under test.
class RawDatabase {
  public:
    explicit RawDatabase(const std::string& path) {
        if (sqlite3_open(path.c_str(), &database_) != SQLITE_OK) {
            ADD_FAILURE() << "cannot open " << path;
        }
        sqlite3_busy_timeout(database_, 5000);
    }
    ~RawDatabase() { sqlite3_close_v2(database_); }
    RawDatabase(const RawDatabase&) = delete;
    RawDatabase& operator=(const RawDatabase&) = delete;

    // Runs SQL that must succeed.
    void exec(const std::string& sql) {
        char* error = nullptr;
        if (sqlite3_exec(database_, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
            ADD_FAILURE() << "SQL failed: " << sql << ": " << (error ? error : "?");
        }
        sqlite3_free(error);
    }

    // The first column of the first row as an integer; nullopt when the
    // statement fails or has no row.
    std::optional<int64_t> integer(const std::string& sql) {
        sqlite3_stmt* statement = nullptr;
        std::optional<int64_t> value;
        if (sqlite3_prepare_v2(database_, sql.c_str(), -1, &statement, nullptr) == SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW) {
            value = sqlite3_column_int64(statement, 0);
        }
        sqlite3_finalize(statement);
        return value;
    }

  private:
    sqlite3* database_ = nullptr;
};

inline void writeBytes(const std::string& path, const std::string& bytes) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// Runs `body` in a child process and returns its exit status (the body's
// result: 0 for success). The child leaves through _exit, so the parent's
// fixture (and its temporary folder) is not torn down twice.
inline int runInChild(const std::function<int()>& body) {
    const pid_t child = fork();
    if (child == 0) _exit(body());
    if (child < 0) return -1;
    int status = 0;
    if (waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Every storage test runs over its own temporary container, with no process
// instance left over from another test.
class StorageTest : public ::testing::Test {
  protected:
    StorageTest() {
        SharedDatabase::resetSharedInstanceForTesting();
        ExtensionState::resetSharedInstanceForTesting();
    }
    ~StorageTest() override {
        SharedDatabase::resetSharedInstanceForTesting();
        ExtensionState::resetSharedInstanceForTesting();
    }

    std::string profilesFolder() const { return platform.containerPath() + "/.Profiles"; }
    std::string profilePath(const std::string& identifier) const {
        return profilesFolder() + "/profile_" + identifier + "_data";
    }
    std::string sharedPath() const { return platform.containerPath() + "/.Shared/shared_data"; }

    platform::testing::TestPlatform platform;
};

}  // namespace stonewall::testing
