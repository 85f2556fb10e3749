// Nothing lost, nothing poisoned: several commands at once, damaged and
// misplaced files, a full disk, a killed command, a busy database and rules
// WebKit cannot compile, all against the real binary and real files.

#include <signal.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

#include "Report.h"
#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

// Runs the command through a shell that sets a limit first; an ignored
// SIGXFSZ stays ignored across exec, so a write past the limit fails with
// EFBIG as on a full disk instead of killing the process.
std::vector<std::string> shellWith(const std::string& setup) {
    return {"/bin/sh", "-c", setup + "; exec \"$@\"", "sh"};
}

// Files a repair moved aside, by the name they had.
std::vector<fs::path> movedAside(const fs::path& file) {
    std::vector<fs::path> found;
    for (const auto& entry : fs::directory_iterator(file.parent_path())) {
        if (entry.path().filename().string().rfind(file.filename().string() + ".damaged-", 0) ==
            0) {
            found.push_back(entry.path());
        }
    }
    return found;
}

class DataSafetyTest : public ToolTest {
  protected:
    // `count` distinct block rules, added straight to the profile's file.
    void addManyRules(int count) {
        sqlExec(profileDatabase(),
                "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                    std::to_string(count) +
                    ") INSERT INTO ProfileRules SELECT 'r' || i, 1, 1, NULL, "
                    "'ads' || i || '\\.example\\.com', NULL, NULL, -1, NULL, 0 FROM n");
    }
    std::set<std::string> profilesFolder() const {
        std::set<std::string> names;
        for (const auto& entry : fs::directory_iterator(container() / ".Profiles")) {
            names.insert(entry.path().filename().string());
        }
        return names;
    }
    // Whether a rule of that action lists the host among its domains.
    bool listed(int action, const std::string& host) {
        return !sqlQuery(profileDatabase(),
                         "SELECT 1 FROM ProfileRules WHERE action = " + std::to_string(action) +
                             " AND instr(',' || domains || ',', " + sqlText("," + host + ",") +
                             ") > 0")
                    .empty();
    }
};

TEST_F(DataSafetyTest, ConcurrentWebsiteCommandsOnAFreshContainerLoseNothing) {
    // The storage is under test, not WebKit: a host too old to reload.
    runner().setEnvironment("STONEWALL_APPKIT_VERSION", "1404.28");
    // Before commands took turns, four processes at once lost hosts within
    // their first few commands; 25 each also covers the later, rarer losses
    // (a database made from its template under a running command).
    constexpr int kProcesses = 4;
    constexpr int kCommands = 25;
    struct List {
        const char* command;
        int action;
    };
    const List lists[] = {{"block", 5}, {"secure", 7}, {"allow", 3}};
    std::vector<std::vector<RunResult>> results(kProcesses);
    std::vector<std::thread> workers;
    for (int process = 0; process < kProcesses; ++process) {
        workers.emplace_back([&, process] {
            for (int command = 0; command < kCommands; ++command) {
                results[process].push_back(runner().run(
                    {lists[command % 3].command, "https://h" + std::to_string(process) + "-" +
                                                     std::to_string(command) + ".example/"}));
            }
        });
    }
    for (auto& worker : workers) worker.join();

    for (int process = 0; process < kProcesses; ++process) {
        for (int command = 0; command < kCommands; ++command) {
            const std::string host =
                "h" + std::to_string(process) + "-" + std::to_string(command) + ".example";
            const RunResult& result = results[process][command];
            EXPECT_EQ(result.exitCode, 0) << host << ": " << result.err;
            EXPECT_TRUE(listed(lists[command % 3].action, host)) << host << " was lost";
        }
    }
}

TEST_F(DataSafetyTest, AFullDiskFailsTheWriteKeepsWhatWasThereAndSaysSo) {
    createContainer();
    runOK({"compile", "--no-reload"});
    const std::string before = readFile(ruleFile());
    const auto folder = profilesFolder();
    addManyRules(3000);  // a list of about 200 KB

    // 64 blocks are 32 or 64 KB depending on the shell: either way below the list.
    runner().setWrapper(shellWith("trap '' XFSZ; ulimit -f 64"));
    const RunResult result = run({"compile", "--no-reload"});
    EXPECT_EQ(result.exitCode, 3) << result.err;
    EXPECT_NE(result.err.find("could not be written"), std::string::npos) << result.err;
    EXPECT_EQ(readFile(ruleFile()), before);
    EXPECT_EQ(profilesFolder(), folder) << "files left behind";

    // No room at all and no rule list to write (a host too old to reload):
    // the database write fails and is not claimed.
    runner().setEnvironment("STONEWALL_APPKIT_VERSION", "1404.28");
    runner().setWrapper(shellWith("trap '' XFSZ; ulimit -f 0"));
    for (const std::string command : {"block", "secure"}) {
        const RunResult failed = run({command, "https://full.example/"});
        EXPECT_EQ(failed.exitCode, 3) << command << ": " << failed.err;
        EXPECT_EQ(failed.out.find(command + "ed"), std::string::npos) << failed.out;
    }
    runner().setWrapper({});
    EXPECT_FALSE(listed(5, "full.example"));
}

TEST_F(DataSafetyTest, AKilledCompileLeavesAWholeListAndNoTemporaryFile) {
    createContainer();
    addManyRules(20000);
    runOK({"compile", "--no-reload"});
    const std::string whole = readFile(ruleFile());
    const auto folder = profilesFolder();
    for (const auto delay : {30ms, 80ms, 150ms, 250ms, 400ms}) {
        BackgroundProcess compile = runner().start({"compile", "--no-reload"});
        std::this_thread::sleep_for(delay);
        compile.sendSignal(SIGKILL);
        (void)compile.wait(10s);
        EXPECT_EQ(readFile(ruleFile()), whole) << "killed after " << delay.count() << " ms";
    }
    // A kill between naming the new list privately and the rename leaves
    // that name; the next compile takes away those of processes that are gone.
    const std::string leftover = "." + ruleFile().filename().string() + ".";
    writeFile(ruleFile().parent_path() / (leftover + "999999999-1"), "old");
    auto expected = folder;
    // A live writer's name, and names that only look like leftovers, stay.
    for (const std::string& kept : {std::to_string(::getpid()) + "-1", std::string("999999999-"),
                                    std::string("-1-1"), std::string("999999999-1.bak")}) {
        writeFile(ruleFile().parent_path() / (leftover + kept), "not a leftover");
        expected.insert(leftover + kept);
    }
    runOK({"compile", "--no-reload"});
    EXPECT_EQ(profilesFolder(), expected);
}

TEST_F(DataSafetyTest, ABusyProfileDatabaseNeverProducesAList) {
    createContainer();
    runOK({"block", "https://a.example/"});
    const std::string before = readFile(ruleFile());

    sqlite3* holder = nullptr;
    ASSERT_EQ(sqlite3_open(profileDatabase().c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    const RunResult result = run({"compile"});
    sqlite3_exec(holder, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(holder);

    EXPECT_EQ(result.exitCode, 3) << result.err;
    EXPECT_NE(result.err.find("the profile database is busy"), std::string::npos) << result.err;
    EXPECT_EQ(readFile(ruleFile()), before);
    EXPECT_TRUE(movedAside(profileDatabase()).empty()) << "a lock is no damage";
    EXPECT_TRUE(listed(5, "a.example"));
}

TEST_F(DataSafetyTest, DamagedOrMisplacedFilesAreMovedAsideNeverDeleted) {
    struct Case {
        const char* name;
        bool ruleList;  // the rule file, else the profile database
        bool folder;    // a folder with a file in it, instead of damage
        size_t offset;
    };
    const Case cases[] = {
        {"profile database, garbage header", false, false, 0},
        {"profile database, garbage schema page", false, false, 100},
        {"profile database, folder in its place", false, true, 0},
        {"rule file, folder in its place", true, true, 0},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        createContainer();
        runOK({"compile", "--no-reload"});
        const fs::path file = test.ruleList ? ruleFile() : profileDatabase();
        std::string original;
        if (test.folder) {
            fs::remove(file);
            fs::create_directories(file);
            writeFile(file / "keep.txt", "the user's");
        } else {
            original = readFile(file);
            std::string damaged = original;
            for (size_t i = test.offset; i < test.offset + 400 && i < damaged.size(); ++i) {
                damaged[i] = static_cast<char>(0xA5 ^ i);
            }
            writeFile(file, damaged);
            original = damaged;
        }

        const RunResult result = run({"compile", "--no-reload"});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_TRUE(fs::is_regular_file(file));
        const auto aside = movedAside(file);
        ASSERT_EQ(aside.size(), 1u) << result.err;
        if (test.folder) {
            EXPECT_EQ(readFile(aside[0] / "keep.txt"), "the user's");
        } else {
            EXPECT_EQ(readFile(aside[0]), original);
        }
        EXPECT_NE(result.err.find("aside to " + aside[0].string()), std::string::npos)
            << result.err;
        fs::remove_all(container());
    }
}

TEST_F(DataSafetyTest, RowsStillReadableAreRecoveredFromADamagedDatabase) {
    createContainer();
    runOK({"block", "https://a.example/"});
    runOK({"allow", "https://b.example/"});
    // An unreadable index: the table's own rows stay readable, the file
    // fails SQLite's check.
    sqlExec(profileDatabase(), "CREATE INDEX byFilter ON ProfileRules(action, filter)");
    const auto pages =
        sqlQuery(profileDatabase(), "SELECT rootpage FROM sqlite_master WHERE name = 'byFilter'");
    ASSERT_EQ(pages.size(), 1u);
    const size_t page = std::stoul(*pages[0][0]);
    std::string bytes = readFile(profileDatabase());
    const size_t pageSize = std::stoul(*sqlQuery(profileDatabase(), "PRAGMA page_size")[0][0]);
    ASSERT_GE(bytes.size(), page * pageSize);
    std::fill(bytes.begin() + static_cast<long>((page - 1) * pageSize),
              bytes.begin() + static_cast<long>(page * pageSize), '\x5a');
    writeFile(profileDatabase(), bytes);

    const RunResult result = run({"compile", "--no-reload"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(movedAside(profileDatabase()).size(), 1u) << result.err;
    EXPECT_NE(result.err.find("recovered 2 rules"), std::string::npos) << result.err;
    EXPECT_TRUE(listed(5, "a.example"));
    EXPECT_TRUE(listed(3, "b.example"));
}

// Damage that no read of the command meets (a page of rows it never reads
// back, a header over intact pages) and a folder where the shared defaults
// file belongs: each is found before anything is written, moved aside, and
// every row still in a readable page comes back.
TEST_F(DataSafetyTest, DamageIsFoundBeforeAWriteAndEveryReadablePageRecovered) {
    constexpr int kRows = 400;
    const auto fillShared = [this] {
        sqlExec(sharedDatabase(),
                "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                    std::to_string(kRows) +
                    ") INSERT INTO SharedCustomRules SELECT 'c' || i, 1, 1, NULL, "
                    "'ads' || i || '\\.example\\.com', NULL, NULL, -1, 0, 'defaultProfile', "
                    "NULL, 0, 0, 1, 1, 1, NULL, 0, NULL FROM n");
    };
    // Garbles one page of `file`; pages from SQLite's own page list.
    const auto garblePage = [](const fs::path& file, size_t page) {
        const size_t pageSize = std::stoul(*sqlQuery(file, "PRAGMA page_size")[0][0]);
        std::string bytes = readFile(file);
        for (size_t i = (page - 1) * pageSize; i < page * pageSize && i < bytes.size(); ++i) {
            bytes[i] = static_cast<char>(0x5a ^ (i * 7));
        }
        writeFile(file, bytes);
    };
    // The rows that one leaf page in the middle of a table holds, and the page.
    const auto middleLeaf = [](const fs::path& file, const std::string& table) {
        const auto leaves =
            sqlQuery(file, "SELECT pageno, ncell FROM dbstat WHERE name = " + sqlText(table) +
                               " AND pagetype = 'leaf' ORDER BY pageno");
        EXPECT_GE(leaves.size(), 3u);
        const auto& leaf = leaves.at(leaves.size() / 2);
        return std::pair<size_t, int>(std::stoul(*leaf[0]), std::stoi(*leaf[1]));
    };
    struct Case {
        const char* name;
        std::function<std::string()> damage;  // returns the line the command must print
        std::vector<std::string> command;
    };
    const fs::path defaults =
        container() / "Library/Preferences/K7Q2XJ4M9P.com.mapleharbor.Stonewall.json";
    const std::vector<Case> cases = {
        {"a page of shared custom rules no read meets",
         [&] {
             fillShared();
             const auto [page, rows] = middleLeaf(sharedDatabase(), "SharedCustomRules");
             garblePage(sharedDatabase(), page);
             return "recovered the shared record and " + std::to_string(kRows - rows) +
                    " custom rules from the damaged shared_data";
         },
         {"block", "https://new.example/"}},
        {"shared database, garbage header over intact pages",
         [&] {
             fillShared();
             std::string bytes = readFile(sharedDatabase());
             std::fill_n(bytes.begin(), 100, '\xa5');
             writeFile(sharedDatabase(), bytes);
             return "recovered the shared record and " + std::to_string(kRows) +
                    " custom rules from the damaged shared_data";
         },
         {"block", "https://new.example/"}},
        {"profile database, garbage header over intact pages",
         [&] {
             addManyRules(kRows);
             std::string bytes = readFile(profileDatabase());
             std::fill_n(bytes.begin(), 100, '\xa5');
             writeFile(profileDatabase(), bytes);
             return "recovered " + std::to_string(kRows) + " rules from the damaged";
         },
         {"block", "https://new.example/"}},
        {"a page of profile rules, found before the write",
         [&] {
             addManyRules(kRows);
             const auto [page, rows] = middleLeaf(profileDatabase(), "ProfileRules");
             garblePage(profileDatabase(), page);
             return "recovered " + std::to_string(kRows - rows) + " rules from the damaged";
         },
         {"block", "https://new.example/"}},
        {"a folder where the shared defaults belong",
         [&] {
             fs::remove(defaults);
             fs::create_directories(defaults);
             writeFile(defaults / "keep.txt", "the user's");
             return "moved " + defaults.string() + " aside";
         },
         {"block", "https://new.example/"}},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        createContainer();
        const std::string expected = test.damage();
        const RunResult result = run(test.command);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_NE(result.err.find(expected), std::string::npos) << result.err;
        // The write landed in a whole file, in both databases.
        for (const fs::path& file : {sharedDatabase(), profileDatabase()}) {
            EXPECT_EQ(*sqlQuery(file, "PRAGMA quick_check")[0][0], "ok") << file;
        }
        EXPECT_TRUE(listed(5, "new.example"));
        EXPECT_EQ(sqlQuery(sharedDatabase(),
                           "SELECT 1 FROM SharedCustomRules WHERE domains = 'new.example'")
                      .size(),
                  1u);
        const RunResult again = run({"check", "https://new.example/"});
        EXPECT_EQ(again.exitCode, 0) << again.err;
        EXPECT_EQ(again.err, "");  // said once, not on every later command
        fs::remove_all(container());
    }
}

TEST_F(DataSafetyTest, UnusableProfileIdentifiersCanAlwaysBeRepaired) {
    for (const char* planted : {"..", ".", "a\\b"}) {
        SCOPED_TRACE(planted);
        createContainer();
        sqlExec(sharedDatabase(), std::string("UPDATE SharedData SET activeProfileID = ") +
                                      sqlText(planted) + ", profileIDs = 'defaultProfile,' || " +
                                      sqlText(planted));
        const RunResult list = run({"profile", "list"});
        EXPECT_EQ(list.exitCode, 0) << list.err;
        EXPECT_NE(list.out.find("Ignored the unusable profile identifier"), std::string::npos);
        const RunResult activate = run({"profile", "activate", "defaultProfile"});
        EXPECT_EQ(activate.exitCode, 0) << activate.err;
        EXPECT_NE(activate.err.find("cannot name a file"), std::string::npos) << activate.err;
        EXPECT_EQ(run({"compile", "--no-reload"}).exitCode, 0);
        fs::remove_all(container());
    }
}

TEST_F(DataSafetyTest, NewFilesHonourTheUmask) {
    runner().setWrapper(shellWith("umask 077"));
    runOK({"compile", "--no-reload"});
    for (const fs::path& file : {sharedDatabase(), profileDatabase(), ruleFile()}) {
        struct stat attributes {};
        ASSERT_EQ(::stat(file.c_str(), &attributes), 0) << file;
        EXPECT_EQ(attributes.st_mode & 077, 0u) << file << " is open to others";
    }
}

TEST(TableOutputTest, ControlCharactersFromOutsideAreEscaped) {
    const std::pair<std::string, std::string> cases[] = {
        {"a\x1b[2Jb", "a\\x1b[2Jb"},
        {"one\nstonewall: fake", "one\\nstonewall: fake"},
        {std::string("nul\0del\x7f", 8), "nul\\x00del\\x7f"},
        {"b\u00fccher", "b\u00fccher"},
    };
    for (const auto& [text, shown] : cases) EXPECT_EQ(withoutControls(text), shown) << shown;
}

}  // namespace
}  // namespace stonewall::tool::testing
