#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/linux/DBusNotificationCenter.h"
#include "platform/linux/LinuxDispatch.h"
#include "platform/testing/TestPlatform.h"
#include "support/MainLoopWatchdog.h"
#include "support/PrivateBus.h"

namespace stonewall::platform::gnulinux {
namespace {

using namespace std::chrono_literals;

constexpr auto kWatchdog = 10s;

// Another program on the bus, sending signals of any shape on our member.
void emitFromAnotherProgram(const std::string& address, const std::string& arguments) {
    const std::string command = std::string("dbus-send --bus=") + address + " --type=signal " +
                                DBusNotificationCenter::kObjectPath + " " +
                                DBusNotificationCenter::kInterface + "." +
                                DBusNotificationCenter::kMember + " " + arguments;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

class DBusNotificationCenterTest : public ::testing::Test {
  protected:
    testing::TestPlatform platform;  // temporary folder and a capturing log
    test_support::PrivateBus bus{platform.rootPath() + "/bus"};
    std::shared_ptr<LinuxDispatch> dispatch = std::make_shared<LinuxDispatch>();

    void SetUp() override { ASSERT_FALSE(bus.address().empty()) << "dbus-daemon did not start"; }

    std::unique_ptr<DBusNotificationCenter> makeCenter() {
        return std::make_unique<DBusNotificationCenter>(dispatch, platform.log, bus.address());
    }

    void runMainUntilStopped() {
        EXPECT_TRUE(test_support::runMainWithWatchdog(*dispatch, kWatchdog))
            << "no notification arrived in time";
    }
};

TEST_F(DBusNotificationCenterTest, ObserversGetTheirNameOnTheMainQueueUntilTheTokenGoes) {
    auto observing = makeCenter();
    auto posting = makeCenter();  // another connection, as another process would have
    std::vector<std::string> updates, others;
    bool onMainQueue = true;
    // Posts from different connections arrive in no set order: the loop
    // stops once everything awaited has come, or the watchdog stops it.
    size_t awaitedOthers = 1;
    auto stopWhenAllArrived = [&] {
        if (updates.size() >= 2 && others.size() >= awaitedOthers) dispatch->stopMain();
    };
    auto updateToken = observing->addObserver(
        "extensionUpdate", [&](const std::string& name, const std::string& object) {
            onMainQueue = onMainQueue && dispatch->mainQueue().isCurrent();
            updates.push_back(name + "/" + object);
            stopWhenAllArrived();
        });
    auto stopToken =
        observing->addObserver("stop", [&](const std::string&, const std::string& object) {
            others.push_back(object);
            stopWhenAllArrived();
        });
    ASSERT_NE(updateToken, nullptr);
    ASSERT_NE(stopToken, nullptr);

    posting->postNotificationName("unrelated", "x");
    posting->postNotificationName("extensionUpdate", "StonewallExtension");
    observing->postNotificationName("extensionUpdate", "own process");
    // Signals of another shape on the same member are not ours to take.
    emitFromAnotherProgram(bus.address(), "string:extensionUpdate string:a string:b");
    emitFromAnotherProgram(bus.address(), "string:stop string:first");
    runMainUntilStopped();
    EXPECT_TRUE(onMainQueue);
    std::sort(updates.begin(), updates.end());
    EXPECT_EQ(updates, (std::vector<std::string>{"extensionUpdate/StonewallExtension",
                                                 "extensionUpdate/own process"}));

    updateToken.reset();
    awaitedOthers = 2;
    posting->postNotificationName("extensionUpdate", "after the token");
    emitFromAnotherProgram(bus.address(), "string:stop string:second");
    runMainUntilStopped();
    EXPECT_EQ(updates.size(), 2u);
    EXPECT_EQ(others, (std::vector<std::string>{"first", "second"}));
}

}  // namespace
}  // namespace stonewall::platform::gnulinux
