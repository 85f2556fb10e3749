#include "model/SharedData.h"

#include <gtest/gtest.h>

#include <functional>

#include "utilities/Version.h"

namespace stonewall {
namespace {

TEST(SharedData, InitDefaults)
{
    const SharedData data;
    EXPECT_EQ(data.activeProfileID, "defaultProfile");
    EXPECT_EQ(data.timestamps, "0,0");
    EXPECT_EQ(data.profiles, "Default Profile");
    EXPECT_EQ(data.profileIDs, "defaultProfile");
    EXPECT_EQ(data.profileUpdates, "0");
    EXPECT_EQ(data.status, 1);
    EXPECT_EQ(data.addDate, 0);
    EXPECT_EQ(data.appVersion, std::string(kShortVersionString));
    EXPECT_EQ(data.extVersion, std::string(kShortVersionString));
    EXPECT_EQ(data.domainStatus, "-1,-1,-1");
    EXPECT_EQ(data.reload, 0);
    EXPECT_FALSE(SharedData::bundleShortVersionString().empty());
}

TEST(SharedData, NarrowEquality)
{
    struct Case {
        const char* change;
        std::function<void(SharedData&)> apply;
        bool equal;
    };
    const Case cases[] = {
        {"nothing", [](SharedData&) {}, true},
        {"domainStatus", [](SharedData& d) { d.domainStatus = "1,-1,-1"; }, true},
        {"reload", [](SharedData& d) { d.reload = 1; }, true},
        {"profileUpdates", [](SharedData& d) { d.profileUpdates = "1"; }, true},
        {"appVersion", [](SharedData& d) { d.appVersion = "9.9"; }, true},
        {"extVersion", [](SharedData& d) { d.extVersion = std::nullopt; }, true},
        {"addDate", [](SharedData& d) { d.addDate = 5; }, true},
        {"activeProfileID", [](SharedData& d) { d.activeProfileID = "other"; }, false},
        {"activeProfileID null", [](SharedData& d) { d.activeProfileID = std::nullopt; }, false},
        {"timestamps", [](SharedData& d) { d.timestamps = "0,1"; }, false},
        {"timestamps empty", [](SharedData& d) { d.timestamps = ""; }, false},
        {"profiles", [](SharedData& d) { d.profiles = "Default Profile,Work"; }, false},
        {"profileIDs", [](SharedData& d) { d.profileIDs = std::nullopt; }, false},
        {"status", [](SharedData& d) { d.status = 0; }, false},
    };
    for (const auto& c : cases) {
        SharedData changed;
        c.apply(changed);
        EXPECT_EQ(SharedData{}.isEqual(changed), c.equal) << c.change;
        EXPECT_EQ(changed.isEqual(SharedData{}), c.equal) << c.change;
    }
}

TEST(SharedData, EmptyAndNullListsCountAsEqual)
{
    using Field = NullableString SharedData::*;
    for (Field field : {&SharedData::timestamps, &SharedData::profiles, &SharedData::profileIDs}) {
        SharedData a, b;
        a.*field = std::nullopt;
        b.*field = "";
        EXPECT_TRUE(a.isEqual(b));
        EXPECT_TRUE(b.isEqual(a));
        a.*field = "x";
        EXPECT_FALSE(a.isEqual(b));
    }
    // Two null profile identifiers are not equal: the receiver's must be set.
    SharedData a, b;
    a.activeProfileID = b.activeProfileID = std::nullopt;
    EXPECT_FALSE(a.isEqual(b));
}

TEST(SharedData, CopyLeavesDomainStatusAndReloadAtDefaults)
{
    SharedData data;
    data.activeProfileID = "abcdef0123";
    data.timestamps = "1,2";
    data.profiles = "Default Profile,Work";
    data.profileIDs = "defaultProfile,abcdef0123";
    data.profileUpdates = "3";
    data.status = 0;
    data.addDate = 1700000000.5;
    data.appVersion = "2.0";
    data.extVersion = std::nullopt;
    data.domainStatus = "1,-1,-1";
    data.reload = 1;

    const SharedData copy = data.copy();
    EXPECT_EQ(copy.activeProfileID, data.activeProfileID);
    EXPECT_EQ(copy.timestamps, data.timestamps);
    EXPECT_EQ(copy.profiles, data.profiles);
    EXPECT_EQ(copy.profileIDs, data.profileIDs);
    EXPECT_EQ(copy.profileUpdates, data.profileUpdates);
    EXPECT_EQ(copy.status, data.status);
    EXPECT_EQ(copy.addDate, data.addDate);
    EXPECT_EQ(copy.appVersion, data.appVersion);
    EXPECT_EQ(copy.extVersion, data.extVersion);
    EXPECT_EQ(copy.domainStatus, "-1,-1,-1");
    EXPECT_EQ(copy.reload, 0);
    EXPECT_TRUE(copy.isEqual(data));
}

TEST(SharedData, Description)
{
    const std::string version(kShortVersionString);
    EXPECT_EQ(SharedData{}.description(),
              "activeProfileID: defaultProfile - timestamps: 0,0 - profiles: Default Profile - "
              "profileIDs: defaultProfile - profileUpdates: 0 - status: 1 - domainStatus: "
              "-1,-1,-1, reload: 0, appVersion: " + version + ", extVersion: " + version);

    SharedData data;
    data.activeProfileID = std::nullopt;
    data.status = -1;
    data.reload = 1;
    data.appVersion = "1.2";
    data.extVersion = "1.2";
    const std::string text = data.description();
    EXPECT_TRUE(text.starts_with("activeProfileID: (null) - "));
    EXPECT_NE(text.find(" - status: -1 - "), std::string::npos);
    EXPECT_TRUE(text.ends_with(", reload: 1, appVersion: 1.2, extVersion: 1.2"));
}

}  // namespace
}  // namespace stonewall
