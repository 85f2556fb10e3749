// stonewall info: where everything is and what state it is in.

#include <cstdlib>
#include <filesystem>

#include "ToolTestSupport.h"

namespace stonewall::tool::testing {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;

class InfoCommandTest : public ToolTest {};

TEST_F(InfoCommandTest, ShowsLocationsVersionsStateAndFileSizes) {
    runJSON({"block", "https://example.com/"});
    const json info = runJSON({"info"});
    EXPECT_EQ(info["container"], container().string());
    if (const char* resources = std::getenv("STONEWALL_RESOURCES")) {
        EXPECT_EQ(info["resources"], resources);
    }
    EXPECT_EQ(info["version"], STONEWALL_VERSION);
    EXPECT_EQ(info["host"]["operatingSystemVersion"], "14.4.0");
    EXPECT_EQ(info["host"]["safariServicesAvailable"], true);
    EXPECT_EQ(info["activeProfileID"], "defaultProfile");
    EXPECT_EQ(info["blocking"], "on");
    EXPECT_EQ(info["defaults"]["blockingStatus"], nullptr);

    std::map<std::string, int64_t> sizes;
    for (const auto& file : info["files"]) sizes[file["path"]] = file["bytes"];
    for (const fs::path& path : {sharedDatabase(), profileDatabase(), ruleFile()}) {
        const std::string relative = fs::relative(path, container()).string();
        ASSERT_TRUE(sizes.count(relative)) << relative << " missing from " << info.dump();
        EXPECT_EQ(sizes[relative], static_cast<int64_t>(fs::file_size(path))) << relative;
    }

    const std::string human = runOK({"info"});
    const std::string ruleFileRow =
        "rule file         .Profiles/profile_defaultProfile_unarchive.json, " +
        std::to_string(fs::file_size(ruleFile())) + " bytes\n";
    for (const std::string& row :
         {"container         " + container().string() + "\n",
          std::string("active profile    defaultProfile (Default Profile)\n"),
          std::string("shared database   .Shared/shared_data, "), ruleFileRow}) {
        EXPECT_NE(human.find(row), std::string::npos) << row << "missing in\n" << human;
    }
}

TEST_F(InfoCommandTest, AnOldHostIsShownAndGetsNoReload) {
    runner().setEnvironment("STONEWALL_APPKIT_VERSION", "1404.28");
    runner().setEnvironment("STONEWALL_OS_VERSION", "10.11.6");
    const json info = runJSON({"info"});
    EXPECT_EQ(info["host"]["appKitVersion"], 1404.28);
    EXPECT_EQ(info["host"]["operatingSystemVersion"], "10.11.6");

    // Such a host asks for no reloads: the compile does nothing, as the
    // extension does there, and says so.
    const json compile = runJSON({"compile"});
    EXPECT_EQ(compile["reload"], "skipped");
    EXPECT_FALSE(fs::exists(ruleFile()));
}

}  // namespace
}  // namespace stonewall::tool::testing
