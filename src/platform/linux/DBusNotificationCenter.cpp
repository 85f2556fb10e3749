#include "platform/linux/DBusNotificationCenter.h"

#include <gio/gio.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/linux/GLibThread.h"

namespace stonewall::platform::gnulinux {

namespace {

struct Subscription {
    std::string name;
    DistributedNotificationCenter::Observer observer;
    std::shared_ptr<Dispatch> dispatch;
    std::atomic<bool> alive{true};
    // Bus thread only:
    GDBusConnection* connection = nullptr;
    guint id = 0;
};

void onSignal(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
              GVariant* parameters, gpointer data) {
    const auto& subscription = *static_cast<std::shared_ptr<Subscription>*>(data);
    // Anyone on the bus may send this signal: take only the shape we send.
    if (!g_variant_is_of_type(parameters, G_VARIANT_TYPE("(ss)"))) return;
    const gchar* name = nullptr;
    const gchar* object = nullptr;
    g_variant_get(parameters, "(&s&s)", &name, &object);
    if (!subscription->alive.load() || !subscription->dispatch) return;
    subscription->dispatch->mainQueue().async(
        [subscription, name = std::string(name), object = std::string(object)] {
            if (subscription->alive.load() && subscription->observer) {
                subscription->observer(name, object);
            }
        });
}

}  // namespace

struct DBusNotificationCenter::Bus : std::enable_shared_from_this<Bus> {
    Bus(std::shared_ptr<Dispatch> dispatch, std::shared_ptr<Log> log,
        std::optional<std::string> address, std::chrono::milliseconds timeout)
        : dispatch(std::move(dispatch)),
          log(std::move(log)),
          address(std::move(address)),
          timeout(timeout) {}

    ~Bus() {
        if (connection) g_object_unref(connection);
    }

    const std::shared_ptr<Dispatch> dispatch;
    const std::shared_ptr<Log> log;
    const std::optional<std::string> address;
    const std::chrono::milliseconds timeout;

    std::once_flag startOnce;
    std::unique_ptr<GLibThread> thread;

    // Bus thread only:
    GDBusConnection* connection = nullptr;
    GCancellable* connecting = nullptr;
    GSource* connectTimer = nullptr;
    std::vector<std::function<void(bool connected)>> waiting;

    GLibThread& loop() {
        std::call_once(startOnce, [&] { thread = std::make_unique<GLibThread>("stonewall-dbus"); });
        return *thread;
    }

    bool started() {
        // Only asked from the destructor, after every other user is gone.
        bool wasStarted = true;
        std::call_once(startOnce, [&] { wasStarted = false; });
        return wasStarted;
    }

    void debug(const std::string& message) const {
        if (log) log->write(LogLevel::Debug, message);
    }

    // Runs `then` once a connection is up (true) or could not be made
    // (false), in the order asked.
    void whenConnected(std::function<void(bool)> then) {
        if (connection && g_dbus_connection_is_closed(connection)) {
            debug("the D-Bus connection was closed; connecting again");
            g_object_unref(std::exchange(connection, nullptr));
        }
        if (connection) {
            then(true);
            return;
        }
        waiting.push_back(std::move(then));
        if (connecting) return;

        const std::optional<std::string> target = address ? address : sessionBusAddress();
        if (!target || target->empty()) {
            finishConnecting(nullptr, "no D-Bus session bus address");
            return;
        }
        connecting = g_cancellable_new();
        connectTimer = g_timeout_source_new(static_cast<guint>(timeout.count()));
        g_source_set_callback(
            connectTimer,
            [](gpointer cancellable) -> gboolean {
                g_cancellable_cancel(static_cast<GCancellable*>(cancellable));
                return G_SOURCE_REMOVE;
            },
            g_object_ref(connecting), g_object_unref);
        g_source_attach(connectTimer, thread->context());
        g_dbus_connection_new_for_address(
            target->c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, connecting, &Bus::onConnected, new std::shared_ptr<Bus>(shared_from_this()));
    }

    static void onConnected(GObject*, GAsyncResult* result, gpointer data) {
        std::unique_ptr<std::shared_ptr<Bus>> self(static_cast<std::shared_ptr<Bus>*>(data));
        GError* error = nullptr;
        GDBusConnection* made = g_dbus_connection_new_for_address_finish(result, &error);
        std::string reason = error ? error->message : "";
        if (error) g_error_free(error);
        (*self)->finishConnecting(made, reason);
    }

    void finishConnecting(GDBusConnection* made, const std::string& reason) {
        if (connectTimer) {
            g_source_destroy(connectTimer);
            g_source_unref(std::exchange(connectTimer, nullptr));
        }
        if (connecting) g_object_unref(std::exchange(connecting, nullptr));
        if (made) {
            // Losing the bus must never end the program.
            g_dbus_connection_set_exit_on_close(made, FALSE);
            connection = made;
        } else {
            debug("cannot connect to the D-Bus session bus: " + reason);
        }
        auto callbacks = std::move(waiting);
        waiting.clear();
        for (auto& callback : callbacks) callback(made != nullptr);
    }

    void emit(const std::string& name, const std::string& object) {
        GError* error = nullptr;
        if (!g_dbus_connection_emit_signal(connection, nullptr, kObjectPath, kInterface, kMember,
                                           g_variant_new("(ss)", name.c_str(), object.c_str()),
                                           &error)) {
            debug("dropped the notification " + name + ": " + error->message);
            g_error_free(error);
        }
    }
};

DBusNotificationCenter::DBusNotificationCenter(std::shared_ptr<Dispatch> dispatch,
                                               std::shared_ptr<Log> log,
                                               std::optional<std::string> address,
                                               std::chrono::milliseconds connectTimeout)
    : bus_(std::make_shared<Bus>(std::move(dispatch), std::move(log), std::move(address),
                                 connectTimeout)) {}

DBusNotificationCenter::~DBusNotificationCenter() {
    if (!bus_->started()) return;
    // Signals are written by GDBus's own worker; without a flush a post made
    // just before the program ends could be lost.
    auto flushed = std::make_shared<std::promise<void>>();
    auto done = flushed->get_future();
    bus_->thread->invoke([bus = bus_, flushed] {
        auto flush = [bus, flushed](bool connected) {
            if (connected && bus->connection) {
                g_dbus_connection_flush_sync(bus->connection, nullptr, nullptr);
            }
            flushed->set_value();
        };
        if (bus->connecting) {
            bus->waiting.push_back(std::move(flush));
        } else {
            flush(bus->connection != nullptr);
        }
    });
    done.wait_for(bus_->timeout + std::chrono::seconds(1));
}

std::optional<std::string> DBusNotificationCenter::sessionBusAddress() {
    if (const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS"); address && *address) {
        return std::string(address);
    }
    // The per-user bus of systemd systems, without autolaunching anything.
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && *runtime) {
        const std::filesystem::path socket = std::filesystem::path(runtime) / "bus";
        std::error_code error;
        if (std::filesystem::is_socket(socket, error)) return "unix:path=" + socket.string();
    }
    return std::nullopt;
}

void DBusNotificationCenter::postNotificationName(const std::string& name,
                                                  const std::string& object) {
    // D-Bus strings are UTF-8 without NUL; anything else cannot be sent.
    if (!g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr) ||
        !g_utf8_validate(object.data(), static_cast<gssize>(object.size()), nullptr)) {
        bus_->debug("dropped a notification whose name or object is not valid UTF-8");
        return;
    }
    bus_->loop().invoke([bus = bus_, name, object] {
        bus->whenConnected([bus, name, object](bool connected) {
            if (!connected) {
                bus->debug("dropped the notification " + name + ": no D-Bus session bus");
                return;
            }
            bus->emit(name, object);
        });
    });
}

std::shared_ptr<void> DBusNotificationCenter::addObserver(const std::string& name,
                                                          Observer observer) {
    if (!g_utf8_validate(name.data(), static_cast<gssize>(name.size()), nullptr)) return nullptr;
    auto subscription = std::make_shared<Subscription>();
    subscription->name = name;
    subscription->observer = std::move(observer);
    subscription->dispatch = bus_->dispatch;

    auto subscribed = std::make_shared<std::promise<bool>>();
    auto ready = subscribed->get_future();
    bus_->loop().invoke([bus = bus_, subscription, subscribed] {
        bus->whenConnected([bus, subscription, subscribed](bool connected) {
            if (!connected) {
                subscribed->set_value(false);
                return;
            }
            subscription->connection = G_DBUS_CONNECTION(g_object_ref(bus->connection));
            subscription->id = g_dbus_connection_signal_subscribe(
                bus->connection, nullptr, kInterface, kMember, kObjectPath,
                subscription->name.c_str(), G_DBUS_SIGNAL_FLAGS_NONE, onSignal,
                new std::shared_ptr<Subscription>(subscription),
                [](gpointer data) { delete static_cast<std::shared_ptr<Subscription>*>(data); });
            // AddMatch goes out without a reply; a round trip to the bus
            // after it means the bus has applied it.
            g_dbus_connection_call(
                bus->connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus", "GetId", nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE,
                static_cast<gint>(bus->timeout.count()), nullptr,
                [](GObject* source, GAsyncResult* result, gpointer data) {
                    std::unique_ptr<std::shared_ptr<std::promise<bool>>> promise(
                        static_cast<std::shared_ptr<std::promise<bool>>*>(data));
                    GVariant* reply =
                        g_dbus_connection_call_finish(G_DBUS_CONNECTION(source), result, nullptr);
                    if (reply) g_variant_unref(reply);
                    (*promise)->set_value(reply != nullptr);
                },
                new std::shared_ptr<std::promise<bool>>(subscribed));
        });
    });

    auto unsubscribe = [bus = bus_, subscription] {
        subscription->alive.store(false);
        bus->thread->invoke([subscription] {
            if (subscription->connection) {
                if (subscription->id != 0) {
                    g_dbus_connection_signal_unsubscribe(subscription->connection,
                                                         subscription->id);
                }
                g_object_unref(std::exchange(subscription->connection, nullptr));
            }
        });
    };
    const bool inPlace =
        ready.wait_for(bus_->timeout * 2 + std::chrono::seconds(1)) == std::future_status::ready &&
        ready.get();
    if (!inPlace) {
        unsubscribe();  // a late subscription is taken back
        return nullptr;
    }
    struct Token {
        std::function<void()> release;
        ~Token() {
            if (release) release();
        }
    };
    auto token = std::make_shared<Token>();
    token->release = std::move(unsubscribe);
    return token;
}

}  // namespace stonewall::platform::gnulinux
