#pragma once

// Controllable doubles of every platform service, for tests. Each double is
// thread-safe, so code under test may call it from real threads too; nothing
// runs on a thread of its own, so every interleaving is chosen by the test.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "platform/Platform.h"

namespace stonewall::platform::testing {

// --- Dispatch under a manual clock -------------------------------------------

// Nothing runs until the test says so. Every queue's async items wait in one
// list and run on the thread that calls runUntilIdle()/advanceBy(), in
// submission order (delayed items in the order they fall due). sync() on any
// queue runs the work inline on the calling thread, marking that queue as
// current while it runs, so synchronous submissions from real threads work
// too; a serial queue (and the main queue) still runs one item at a time.
//
// The thread that creates the object plays the main thread: mainQueue()
// .isCurrent() is true there while no item of another queue runs on it, and on
// any thread while one of its items runs.
//
// sync() onto a serial queue or the main queue that is current on the
// calling thread (the main queue from the test thread included) could never
// return on a real dispatch; here it aborts, in every build, with a message
// naming the queue, so a test finds the mistake instead of hiding it.
// A queue that outlives its dispatch drops async work; its sync() still runs.
class ManualClockDispatch : public Dispatch {
  public:
    ManualClockDispatch();
    ~ManualClockDispatch() override;
    ManualClockDispatch(const ManualClockDispatch&) = delete;
    ManualClockDispatch& operator=(const ManualClockDispatch&) = delete;

    Queue& mainQueue() override;
    Queue& globalQueue(QueuePriority priority) override;
    std::shared_ptr<Queue> createSerialQueue(const std::string& label) override;

    // Runs due items until none is left or stopMain() is called.
    void runMain() override;
    void stopMain() override;

    // Runs every due item, including the ones they submit, until none is left.
    // Returns how many ran.
    std::size_t runUntilIdle();
    // Moves the clock forward, running each delayed item at its due time (the
    // clock reads that time while it runs), then everything due at the end.
    std::size_t advanceBy(Nanoseconds delta);

    // Time since the object was made, as the manual clock tells it.
    Nanoseconds now() const;
    // Items waiting, due or not.
    std::size_t pendingCount() const;

    struct State;

  private:
    std::shared_ptr<State> state_;
};

// --- User defaults in memory -------------------------------------------------

// One write as the suite saw it; std::monostate stands for a removal.
struct DefaultsWrite {
    std::string key;
    std::variant<int64_t, std::string, std::monostate> value;

    bool operator==(const DefaultsWrite&) const = default;
};

class InMemoryUserDefaults : public UserDefaults {
  public:
    std::optional<int64_t> integerForKey(const std::string& key) override;
    std::optional<std::string> stringForKey(const std::string& key) override;
    void setInteger(int64_t value, const std::string& key) override;
    void setObject(const std::string& value, const std::string& key) override;
    void removeObjectForKey(const std::string& key) override;
    bool synchronize() override;

    // Every write and removal so far, in order.
    std::vector<DefaultsWrite> writes() const;
    int synchronizeCount() const;
    // What synchronize() answers from now on (default: true).
    void setSynchronizeResultForTesting(bool result);
    // Forgets the recorded writes; the values stay.
    void clearWrites();

  private:
    mutable std::mutex mutex_;
    std::map<std::string, std::variant<int64_t, std::string>> values_;
    std::vector<DefaultsWrite> writes_;
    int synchronizeCount_ = 0;
    bool synchronizeResult_ = true;
};

class InMemoryUserDefaultsService : public UserDefaultsService {
  public:
    std::shared_ptr<UserDefaults> suiteNamed(const std::string& suiteName) override;
    // The same suite, typed for inspection.
    std::shared_ptr<InMemoryUserDefaults> suite(const std::string& suiteName);

  private:
    std::mutex mutex_;
    std::map<std::string, std::shared_ptr<InMemoryUserDefaults>> suites_;
};

// --- Notifications -----------------------------------------------------------

struct PostedNotification {
    std::string name;
    std::string object;

    bool operator==(const PostedNotification&) const = default;
};

// Records every post and calls the observers of that name synchronously,
// on the posting thread, in the order they were added.
class RecordingNotificationCenter : public DistributedNotificationCenter {
  public:
    void postNotificationName(const std::string& name, const std::string& object) override;
    std::shared_ptr<void> addObserver(const std::string& name, Observer observer) override;

    std::vector<PostedNotification> posted() const;
    std::size_t observerCount() const;
    // When false, addObserver() answers a null token, as a host without
    // distributed notifications would.
    void setObservableForTesting(bool observable);

  private:
    struct Registration {
        std::string name;
        Observer observer;
    };
    mutable std::mutex mutex_;
    std::vector<PostedNotification> posted_;
    std::vector<std::weak_ptr<Registration>> observers_;
    bool observable_ = true;
};

// --- Content-blocker reloads -------------------------------------------------

// Records each request and completes it with the next scripted result
// (success once the script is used up), either at once on the calling thread
// or, when holding, when the test calls completePending().
class ScriptedContentBlockerManager : public ContentBlockerManager {
  public:
    void reloadContentBlockerWithIdentifier(const std::string& identifier,
                                            CompletionHandler completionHandler) override;

    // Called at the moment of each request, before it completes.
    std::function<void(const std::string&)> onReload;

    std::vector<std::string> calls() const;
    void scriptResults(std::vector<std::optional<Error>> results);
    void setHoldCompletions(bool hold);
    // Completes every held request in request order; returns how many.
    std::size_t completePending();
    std::size_t pendingCount() const;

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
    std::vector<std::optional<Error>> script_;
    std::size_t nextResult_ = 0;
    bool hold_ = false;
    std::vector<std::pair<CompletionHandler, std::optional<Error>>> held_;
};

// --- Host ----------------------------------------------------------------------

// A current host by default (14.4.0, toolkit 2487.0, services version 6,
// services available), with every folder under `root`: home "home",
// Documents "data", Caches "cache", Application Support "config" and the
// Stonewall group's container "container". No folder is created.
class FakeHost : public Host {
  public:
    explicit FakeHost(std::string root);

    OperatingSystemVersion operatingSystemVersion() const override;
    double appKitVersionNumber() const override;
    std::optional<int64_t> safariServicesVersion() const override;
    bool safariServicesAvailable() const override;
    std::string homeDirectory() const override;
    std::optional<std::string> userDirectory(SearchPathDirectory directory) const override;
    std::optional<std::string> containerPathForApplicationGroup(
        const std::string& groupIdentifier) const override;

    void setOperatingSystemVersion(OperatingSystemVersion version);
    void setAppKitVersionNumber(double version);
    void setSafariServicesVersion(std::optional<int64_t> version);
    void setSafariServicesAvailable(bool available);
    void setHomeDirectory(std::string path);
    void setUserDirectory(SearchPathDirectory directory, std::optional<std::string> path);
    // An absent path makes the group have no container.
    void setContainerPath(const std::string& groupIdentifier, std::optional<std::string> path);

  private:
    mutable std::mutex mutex_;
    OperatingSystemVersion osVersion_{14, 4, 0};
    double appKitVersion_ = 2487.0;
    std::optional<int64_t> servicesVersion_ = 6;
    bool servicesAvailable_ = true;
    std::string home_;
    std::map<SearchPathDirectory, std::optional<std::string>> directories_;
    std::map<std::string, std::optional<std::string>> containers_;
};

// --- Bundle --------------------------------------------------------------------

// Resources from the given folder (by default $STONEWALL_RESOURCES), the
// build's version, and no translations: every key is its own text.
class FakeBundle : public Bundle {
  public:
    FakeBundle();
    explicit FakeBundle(std::string resourcePath);

    std::string resourcePath() const override;
    std::string shortVersionString() const override;
    std::string localizedString(const std::string& key) const override;

    void setResourcePath(std::string path);
    // Makes localizedString() answer `text` for `key`.
    void setTranslation(const std::string& key, std::string text);

  private:
    mutable std::mutex mutex_;
    std::string resourcePath_;
    std::map<std::string, std::string> translations_;
};

// --- Log -----------------------------------------------------------------------

struct LogLine {
    LogLevel level;
    std::string message;

    bool operator==(const LogLine&) const = default;
};

class CapturingLog : public Log {
  public:
    void write(LogLevel level, std::string_view message) override;
    std::vector<LogLine> lines() const;
    // True when some line contains `fragment`.
    bool contains(std::string_view fragment) const;

  private:
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

// --- The whole set ---------------------------------------------------------------

// Owns a fresh temporary root folder (removed with everything in it on
// destruction), builds every double over it and installs them for its
// lifetime. Make it on the thread that plays the main thread.
struct TestPlatform {
    TestPlatform();
    ~TestPlatform();
    TestPlatform(const TestPlatform&) = delete;
    TestPlatform& operator=(const TestPlatform&) = delete;

    const std::string& rootPath() const { return root_; }
    // The Stonewall group's container, "<root>/container" (not created).
    std::string containerPath() const;

  private:
    std::string root_;  // first: the doubles below are built over it

  public:
    std::shared_ptr<ManualClockDispatch> dispatch;
    std::shared_ptr<InMemoryUserDefaultsService> defaults;
    std::shared_ptr<RecordingNotificationCenter> notifications;
    std::shared_ptr<ScriptedContentBlockerManager> contentBlocker;
    std::shared_ptr<FakeHost> host;
    std::shared_ptr<FakeBundle> bundle;
    std::shared_ptr<CapturingLog> log;

  private:
    ScopedServices scope_;
};

// The application group every part of the product shares.
inline constexpr const char* kTestApplicationGroup = "K7Q2XJ4M9P.com.mapleharbor.Stonewall";

}  // namespace stonewall::platform::testing
