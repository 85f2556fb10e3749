#include <gtest/gtest.h>

#include <functional>

#include "model/SharedData.h"
#include "utilities/Version.h"

namespace stonewall {
namespace {

TEST(SharedData, NarrowEquality) {
    using Change = std::function<void(SharedData&)>;
    const std::tuple<const char*, Change, bool> cases[] = {
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
    for (const auto& [name, change, equal] : cases) {
        SharedData changed;
        change(changed);
        EXPECT_EQ(SharedData{}.isEqual(changed), equal) << name;
        EXPECT_EQ(changed.isEqual(SharedData{}), equal) << name;
    }
    // Empty and null lists count as equal.
    for (auto field : {&SharedData::timestamps, &SharedData::profiles, &SharedData::profileIDs}) {
        SharedData a, b;
        a.*field = std::nullopt;
        b.*field = "";
        EXPECT_TRUE(a.isEqual(b) && b.isEqual(a));
    }
    // Two null profile identifiers are not equal: the receiver's must be set.
    SharedData noProfile;
    noProfile.activeProfileID = std::nullopt;
    EXPECT_FALSE(noProfile.isEqual(noProfile));
}

TEST(SharedData, CopyLeavesDomainStatusAndReloadAtDefaults) {
    SharedData data;
    data.activeProfileID = "abcdef0123";
    data.addDate = 1700000000.5;
    data.extVersion = std::nullopt;
    data.domainStatus = "1,-1,-1";
    data.reload = 1;
    SharedData expected = data;
    expected.domainStatus = "-1,-1,-1";
    expected.reload = 0;
    const SharedData copy = data.copy();
    EXPECT_EQ(copy.description(), expected.description());
    EXPECT_EQ(copy.addDate, data.addDate);  // the one field the description leaves out
    const std::string version(kShortVersionString);
    EXPECT_EQ(SharedData{}.description(),
              "activeProfileID: defaultProfile - timestamps: 0,0 - profiles: Default Profile - "
              "profileIDs: defaultProfile - profileUpdates: 0 - status: 1 - domainStatus: "
              "-1,-1,-1, reload: 0, appVersion: " +
                  version + ", extVersion: " + version);
}

}  // namespace
}  // namespace stonewall
