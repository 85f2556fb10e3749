#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/linux/FileUserDefaults.h"
#include "platform/testing/TestPlatform.h"

namespace stonewall::platform::gnulinux {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class FileUserDefaultsTest : public ::testing::Test {
  protected:
    testing::TestPlatform platform;  // for its temporary folder
    std::string path = platform.rootPath() + "/prefs/suite.json";

    void writeFile(const std::string& text) {
        fs::create_directories(fs::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << text;
    }
    json fileObject() const { return json::parse(std::ifstream(path)); }
};

TEST_F(FileUserDefaultsTest, ValuesRoundTripThroughTheFile) {
    {
        FileUserDefaults defaults(path);
        defaults.setObject("a1b2c3", "activeProfileID");
        defaults.setInteger(-9223372036854775807 - 1, "minimum");
        defaults.setInteger(2, "blockingStatus");
        defaults.setInteger(7, "removed");
        defaults.removeObjectForKey("removed");
        EXPECT_EQ(defaults.integerForKey("blockingStatus"), 2);  // before any synchronize
        ASSERT_TRUE(defaults.synchronize());
    }
    EXPECT_EQ(fileObject(), json::parse(R"({"activeProfileID":"a1b2c3","blockingStatus":2,
                                            "minimum":-9223372036854775808})"));
    FileUserDefaults reread(path);
    EXPECT_EQ(reread.stringForKey("activeProfileID"), "a1b2c3");
    EXPECT_EQ(reread.integerForKey("minimum"), INT64_MIN);
    // Text that is no UTF-8 is replaced, not refused.
    reread.setObject("bad \xff\xfe text", "key");
    reread.setInteger(1, "bad \xc3 key");
    ASSERT_TRUE(reread.synchronize());
    EXPECT_EQ(fileObject().size(), 5u);
    EXPECT_TRUE(FileUserDefaults(path).stringForKey("key").has_value());
}

TEST_F(FileUserDefaultsTest, OtherTypesReadAsAbsentAndSurviveASynchronize) {
    writeFile(R"({"flag":true,"list":[1,2],"real":1.5,"huge":18446744073709551615,
                  "number":5,"text":"5"})");
    FileUserDefaults defaults(path);
    struct Case {
        const char* key;
        std::optional<int64_t> integer;
        std::optional<std::string> string;
    };
    for (const Case& c : {Case{"real", {}, {}}, Case{"huge", {}, {}}, Case{"number", 5, {}},
                          Case{"text", {}, "5"}, Case{"missing", {}, {}}}) {
        SCOPED_TRACE(c.key);
        EXPECT_EQ(defaults.integerForKey(c.key), c.integer);
        EXPECT_EQ(defaults.stringForKey(c.key), c.string);
    }
    defaults.setInteger(1, "blockerReloadType");
    ASSERT_TRUE(defaults.synchronize());
    const json file = fileObject();
    EXPECT_EQ(file["flag"], true);
    EXPECT_EQ(file["list"], json::parse("[1,2]"));
    EXPECT_EQ(file["huge"], json(18446744073709551615ull));
    EXPECT_EQ(file["blockerReloadType"], 1);
}

TEST_F(FileUserDefaultsTest, SynchronizeMergesChangesOfBothSidesByKey) {
    FileUserDefaults first(path), second(path);
    first.setInteger(1, "onlyFirst");
    first.setObject("first", "contested");
    first.setInteger(5, "removedBySecond");
    ASSERT_TRUE(first.synchronize());

    ASSERT_TRUE(second.synchronize());  // takes in what first wrote
    EXPECT_EQ(second.integerForKey("onlyFirst"), 1);
    second.setInteger(2, "onlySecond");
    second.setObject("second", "contested");
    second.removeObjectForKey("removedBySecond");
    first.setObject("first again", "contested");  // changed since first's last synchronize
    ASSERT_TRUE(second.synchronize());

    // Not seen before first's own synchronize...
    EXPECT_EQ(first.integerForKey("onlySecond"), std::nullopt);
    EXPECT_EQ(first.integerForKey("removedBySecond"), 5);
    ASSERT_TRUE(first.synchronize());
    // ...then: its own change wins, every other key comes from the file.
    EXPECT_EQ(first.integerForKey("onlySecond"), 2);
    EXPECT_EQ(first.integerForKey("removedBySecond"), std::nullopt);
    EXPECT_EQ(first.stringForKey("contested"), "first again");
    ASSERT_TRUE(second.synchronize());
    EXPECT_EQ(second.stringForKey("contested"), "first again");
    EXPECT_EQ(fileObject(), json::parse(R"({"onlyFirst":1,"onlySecond":2,
                                            "contested":"first again"})"));
}

TEST_F(FileUserDefaultsTest, ADamagedFileReadsAsEmptyAndIsRewritten) {
    for (const std::string text : {"", "not json", "[1,2]"}) {
        SCOPED_TRACE(::testing::PrintToString(text));
        writeFile(text);
        FileUserDefaults defaults(path);
        EXPECT_EQ(defaults.integerForKey("a"), std::nullopt);
        ASSERT_TRUE(defaults.synchronize());  // nothing changed, still rewritten
        EXPECT_TRUE(fileObject().is_object());
        EXPECT_TRUE(fileObject().empty());
    }
}

TEST_F(FileUserDefaultsTest, AnUnwritableFileFailsAndKeepsTheValuesForLater) {
    fs::create_directories(platform.rootPath() + "/blocked");
    std::ofstream(platform.rootPath() + "/blocked/file") << "x";
    FileUserDefaults defaults(platform.rootPath() + "/blocked/file/suite.json");
    defaults.setInteger(3, "key");
    EXPECT_FALSE(defaults.synchronize());
    EXPECT_EQ(defaults.integerForKey("key"), 3);
}

TEST_F(FileUserDefaultsTest, ThreeProcessesWritingDifferentKeysLoseNone) {
    constexpr int kCount = 40;
    const auto writeKeys = [&](const std::string& prefix) {
        FileUserDefaults defaults(path);
        for (int i = 0; i < kCount; ++i) {
            defaults.setInteger(i, prefix + "-" + std::to_string(i));
            if (!defaults.synchronize()) return false;
        }
        return true;
    };
    std::vector<pid_t> children;
    for (const char* prefix : {"one", "two"}) {
        const pid_t child = fork();
        if (child == 0) _exit(writeKeys(prefix) ? 0 : 1);
        ASSERT_GT(child, 0);
        children.push_back(child);
    }
    EXPECT_TRUE(writeKeys("three"));  // and this process at the same time
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    FileUserDefaults all(path);
    for (const char* prefix : {"one", "two", "three"}) {
        for (int i = 0; i < kCount; ++i) {
            ASSERT_EQ(all.integerForKey(std::string(prefix) + "-" + std::to_string(i)), i)
                << prefix << " " << i;
        }
    }
    EXPECT_EQ(fileObject().size(), 3u * kCount);
    // The temporary files are all gone.
    size_t entries = 0;
    for ([[maybe_unused]] const auto& entry :
         fs::directory_iterator(fs::path(path).parent_path())) {
        ++entries;
    }
    EXPECT_EQ(entries, 2u);  // the suite and its lock file
}

TEST(FileUserDefaultsService, SuitesByName) {
    testing::TestPlatform platform;
    const std::string container = platform.rootPath() + "/group";
    FileUserDefaultsService service(
        [&](const std::string& group) -> std::optional<std::string> {
            if (group == "K7Q2XJ4M9P.com.mapleharbor.Stonewall") return container;
            return std::nullopt;
        },
        platform.rootPath() + "/prefs");
    EXPECT_EQ(service.pathForSuite("K7Q2XJ4M9P.com.mapleharbor.Stonewall"),
              container + "/Library/Preferences/K7Q2XJ4M9P.com.mapleharbor.Stonewall.json");
    EXPECT_EQ(service.pathForSuite("other"), platform.rootPath() + "/prefs/other.json");
    auto suite = service.suiteNamed("K7Q2XJ4M9P.com.mapleharbor.Stonewall");
    EXPECT_EQ(suite, service.suiteNamed("K7Q2XJ4M9P.com.mapleharbor.Stonewall"));
    suite->setInteger(1, "blockerReloadType");
    EXPECT_TRUE(suite->synchronize());
    EXPECT_TRUE(fs::exists(service.pathForSuite("K7Q2XJ4M9P.com.mapleharbor.Stonewall")));

    for (const char* bad : {"", ".", "..", "a/b"}) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(service.pathForSuite(bad), "");
        auto memoryOnly = service.suiteNamed(bad);
        memoryOnly->setObject("kept", "key");
        EXPECT_EQ(memoryOnly->stringForKey("key"), "kept");
        EXPECT_FALSE(memoryOnly->synchronize());
    }
}

}  // namespace
}  // namespace stonewall::platform::gnulinux
