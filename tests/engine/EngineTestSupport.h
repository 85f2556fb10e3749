#pragma once

// Shared pieces of the engine tests: a fixture over a fresh temporary
// container with the test doubles installed, and readers for what the engine
// leaves behind (rule files, rows, defaults).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "engine/CompanionController.h"
#include "model/ProfileRule.h"
#include "model/RuleCodes.h"
#include "platform/testing/TestPlatform.h"
#include "storage/ProfileDatabase.h"
#include "storage/SharedDatabase.h"
#include "support/ProfileRules.h"

namespace stonewall::testing {

using Json = nlohmann::json;

inline std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class EngineTest : public ::testing::Test {
  protected:
    EngineTest() { SharedDatabase::resetSharedInstanceForTesting(); }
    ~EngineTest() override { SharedDatabase::resetSharedInstanceForTesting(); }

    std::string profilesFolder() const { return platform.containerPath() + "/.Profiles"; }
    std::string ruleFilePath(const std::string& profileID) const {
        return profilesFolder() + "/profile_" + profileID + "_unarchive.json";
    }
    // The rule file parsed; a JSON parse failure fails the test.
    Json ruleFile(const std::string& profileID) const {
        const std::string text = readText(ruleFilePath(profileID));
        Json parsed = Json::parse(text, nullptr, /*allow_exceptions=*/false);
        EXPECT_FALSE(parsed.is_discarded()) << "not JSON: " << text.substr(0, 200);
        return parsed;
    }

    std::shared_ptr<ProfileDatabase> openProfile(const std::string& profileID) const {
        return ProfileDatabase::initWithBlockerProfileID(profileID);
    }

    std::shared_ptr<platform::testing::InMemoryUserDefaults> suite() const {
        return platform.defaults->suite(platform::testing::kTestApplicationGroup);
    }

    // Stores a shared record (the template's row is replaced in place).
    void storeSharedData(const SharedData& data) const {
        SharedDatabase::sharedInstance().updateSharedDataDetails(data);
    }
    SharedData sharedDataWith(const std::string& activeProfileID,
                              const std::string& domainStatus = "-1,-1,-1",
                              int64_t status = 1) const {
        SharedData data;
        data.activeProfileID = activeProfileID;
        data.domainStatus = domainStatus;
        data.status = status;
        return data;
    }

    size_t updateNotificationCount() const {
        size_t count = 0;
        for (const auto& posted : platform.notifications->posted()) {
            if (posted.name == "extensionUpdate" && posted.object == "StonewallExtension") ++count;
        }
        return count;
    }

    platform::testing::TestPlatform platform;
};

}  // namespace stonewall::testing
