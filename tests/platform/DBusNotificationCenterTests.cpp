#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
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

// A plain GDBus client on the test thread, with a context of its own.
class Subscriber {
  public:
    explicit Subscriber(const std::string& address) : context_(g_main_context_new()) {
        g_main_context_push_thread_default(context_);
        GError* error = nullptr;
        connection_ = g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &error);
        if (error) {
            ADD_FAILURE() << error->message;
            g_error_free(error);
            return;
        }
        id_ = g_dbus_connection_signal_subscribe(
            connection_, nullptr, DBusNotificationCenter::kInterface,
            DBusNotificationCenter::kMember, DBusNotificationCenter::kObjectPath, nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE,
            [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
               GVariant* parameters, gpointer data) {
                static_cast<Subscriber*>(data)->received_.push_back(
                    g_variant_print(parameters, FALSE));
            },
            this, nullptr);
        roundTrip();
    }
    ~Subscriber() {
        if (connection_) {
            g_dbus_connection_signal_unsubscribe(connection_, id_);
            g_object_unref(connection_);
        }
        g_main_context_pop_thread_default(context_);
        g_main_context_unref(context_);
    }

    // Makes sure the bus has applied our match before anyone posts.
    void roundTrip() {
        GVariant* reply = g_dbus_connection_call_sync(
            connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        if (reply) g_variant_unref(reply);
    }

    void emit(GVariant* parameters) {
        g_dbus_connection_emit_signal(connection_, nullptr, DBusNotificationCenter::kObjectPath,
                                      DBusNotificationCenter::kInterface,
                                      DBusNotificationCenter::kMember, parameters, nullptr);
        g_dbus_connection_flush_sync(connection_, nullptr, nullptr);
    }

    // Iterates until `count` signals came, or the watchdog fails the test.
    std::vector<std::string> waitFor(size_t count) {
        const auto deadline = std::chrono::steady_clock::now() + kWatchdog;
        while (received_.size() < count && std::chrono::steady_clock::now() < deadline) {
            g_main_context_iteration(context_, FALSE);
            std::this_thread::sleep_for(1ms);
        }
        EXPECT_GE(received_.size(), count) << "signal not received in time";
        std::vector<std::string> result;
        for (char* text : received_) {
            result.emplace_back(text);
            g_free(text);
        }
        received_.clear();
        return result;
    }

  private:
    GMainContext* context_;
    GDBusConnection* connection_ = nullptr;
    guint id_ = 0;
    std::vector<char*> received_;
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

TEST_F(DBusNotificationCenterTest, APostReachesAnotherConnectionAsTheDocumentedSignal) {
    Subscriber subscriber(bus.address());
    auto center = makeCenter();
    center->postNotificationName("extensionUpdate", "StonewallExtension");
    center->postNotificationName("bad \xff", "x");  // not UTF-8: dropped, not sent
    center->postNotificationName("second", "");
    // A post just before the center goes is still sent.
    makeCenter()->postNotificationName("last", "x");
    // The last came over another connection: its place in the order is not certain.
    auto received = subscriber.waitFor(3);
    std::sort(received.begin(), received.end());
    EXPECT_EQ(received, (std::vector<std::string>{"('extensionUpdate', 'StonewallExtension')",
                                                  "('last', 'x')", "('second', '')"}));
    EXPECT_TRUE(platform.log->contains("not valid UTF-8"));
}

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
    Subscriber stranger(bus.address());
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

TEST_F(DBusNotificationCenterTest, WithoutABusPostsAreDroppedQuietlyAndObservingIsRefused) {
    DBusNotificationCenter center(dispatch, platform.log,
                                  "unix:path=" + platform.rootPath() + "/none",
                                  std::chrono::milliseconds(500));
    const auto start = std::chrono::steady_clock::now();
    center.postNotificationName("extensionUpdate", "StonewallExtension");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s) << "a post must not wait for the bus";
    EXPECT_EQ(center.addObserver("extensionUpdate", [](const auto&, const auto&) {}), nullptr);
    const auto deadline = std::chrono::steady_clock::now() + kWatchdog;
    while (!platform.log->contains("dropped the notification extensionUpdate") &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(5ms);
    }
    EXPECT_TRUE(platform.log->contains("dropped the notification extensionUpdate"));
    for (const auto& line : platform.log->lines()) EXPECT_EQ(line.level, LogLevel::Debug);
}

}  // namespace
}  // namespace stonewall::platform::gnulinux
