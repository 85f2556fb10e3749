#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
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

// A plain GDBus client that sends signals of any shape on our member.
class Stranger {
  public:
    explicit Stranger(const std::string& address) {
        GError* error = nullptr;
        connection_ = g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
        if (error) {
            ADD_FAILURE() << error->message;
            g_error_free(error);
        }
    }
    ~Stranger() {
        if (connection_) g_object_unref(connection_);
    }

    void emit(GVariant* parameters) {
        if (!connection_) return;
        g_dbus_connection_emit_signal(connection_, nullptr, DBusNotificationCenter::kObjectPath,
                                      DBusNotificationCenter::kInterface,
                                      DBusNotificationCenter::kMember, parameters, nullptr);
        g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
    }

  private:
    GDBusConnection* connection_ = nullptr;
};

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
    Stranger stranger(bus.address());
    stranger.emit(g_variant_new("(sss)", "extensionUpdate", "a", "b"));
    stranger.emit(g_variant_new("(ss)", "stop", "first"));
    runMainUntilStopped();
    EXPECT_TRUE(onMainQueue);
    std::sort(updates.begin(), updates.end());
    EXPECT_EQ(updates, (std::vector<std::string>{"extensionUpdate/StonewallExtension",
                                                 "extensionUpdate/own process"}));

    updateToken.reset();
    awaitedOthers = 2;
    posting->postNotificationName("extensionUpdate", "after the token");
    stranger.emit(g_variant_new("(ss)", "stop", "second"));
    runMainUntilStopped();
    EXPECT_EQ(updates.size(), 2u);
    EXPECT_EQ(others, (std::vector<std::string>{"first", "second"}));
}

}  // namespace
}  // namespace stonewall::platform::gnulinux
