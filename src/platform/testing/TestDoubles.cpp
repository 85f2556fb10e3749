#include <algorithm>
#include <cstdlib>
#include <utility>

#include "platform/testing/TestPlatform.h"

#if __has_include("utilities/Version.h")
#include "utilities/Version.h"
#define STONEWALL_TEST_VERSION ::stonewall::kShortVersionString
#else
#define STONEWALL_TEST_VERSION STONEWALL_PROJECT_VERSION
#endif

namespace stonewall::platform::testing {

// --- InMemoryUserDefaults ------------------------------------------------------

std::optional<int64_t> InMemoryUserDefaults::integerForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    if (const auto* value = std::get_if<int64_t>(&found->second)) return *value;
    return std::nullopt;
}

std::optional<std::string> InMemoryUserDefaults::stringForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    auto found = values_.find(key);
    if (found == values_.end()) return std::nullopt;
    if (const auto* value = std::get_if<std::string>(&found->second)) return *value;
    return std::nullopt;
}

void InMemoryUserDefaults::setInteger(int64_t value, const std::string& key) {
    std::lock_guard lock(mutex_);
    values_[key] = value;
    writes_.push_back({key, value});
}

void InMemoryUserDefaults::setObject(const std::string& value, const std::string& key) {
    std::lock_guard lock(mutex_);
    values_[key] = value;
    writes_.push_back({key, value});
}

void InMemoryUserDefaults::removeObjectForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    values_.erase(key);
    writes_.push_back({key, std::monostate{}});
}

bool InMemoryUserDefaults::synchronize() {
    std::lock_guard lock(mutex_);
    ++synchronizeCount_;
    return synchronizeResult_;
}

std::vector<DefaultsWrite> InMemoryUserDefaults::writes() const {
    std::lock_guard lock(mutex_);
    return writes_;
}

int InMemoryUserDefaults::synchronizeCount() const {
    std::lock_guard lock(mutex_);
    return synchronizeCount_;
}

void InMemoryUserDefaults::setSynchronizeResultForTesting(bool result) {
    std::lock_guard lock(mutex_);
    synchronizeResult_ = result;
}

void InMemoryUserDefaults::clearWrites() {
    std::lock_guard lock(mutex_);
    writes_.clear();
}

std::shared_ptr<UserDefaults> InMemoryUserDefaultsService::suiteNamed(
    const std::string& suiteName) {
    return suite(suiteName);
}

std::shared_ptr<InMemoryUserDefaults> InMemoryUserDefaultsService::suite(
    const std::string& suiteName) {
    std::lock_guard lock(mutex_);
    auto& entry = suites_[suiteName];
    if (!entry) entry = std::make_shared<InMemoryUserDefaults>();
    return entry;
}

// --- RecordingNotificationCenter -----------------------------------------------

void RecordingNotificationCenter::postNotificationName(const std::string& name,
                                                       const std::string& object) {
    std::vector<std::shared_ptr<Registration>> targets;
    {
        std::lock_guard lock(mutex_);
        posted_.push_back({name, object});
        std::erase_if(observers_, [](const auto& weak) { return weak.expired(); });
        for (const auto& weak : observers_) {
            if (auto registration = weak.lock(); registration && registration->name == name) {
                targets.push_back(std::move(registration));
            }
        }
    }
    // Outside the lock: an observer may post or add observers itself.
    for (const auto& registration : targets) {
        if (registration->observer) registration->observer(name, object);
    }
}

std::shared_ptr<void> RecordingNotificationCenter::addObserver(const std::string& name,
                                                               Observer observer) {
    std::lock_guard lock(mutex_);
    if (!observable_) return nullptr;
    auto registration = std::make_shared<Registration>(Registration{name, std::move(observer)});
    observers_.push_back(registration);
    return registration;
}

std::vector<PostedNotification> RecordingNotificationCenter::posted() const {
    std::lock_guard lock(mutex_);
    return posted_;
}

std::size_t RecordingNotificationCenter::observerCount() const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        observers_.begin(), observers_.end(), [](const auto& weak) { return !weak.expired(); }));
}

void RecordingNotificationCenter::setObservableForTesting(bool observable) {
    std::lock_guard lock(mutex_);
    observable_ = observable;
}

// --- ScriptedContentBlockerManager ---------------------------------------------

void ScriptedContentBlockerManager::reloadContentBlockerWithIdentifier(
    const std::string& identifier, CompletionHandler completionHandler) {
    std::optional<Error> result;
    bool hold = false;
    {
        std::lock_guard lock(mutex_);
        calls_.push_back(identifier);
        if (nextResult_ < script_.size()) result = script_[nextResult_++];
        hold = hold_;
    }
    if (onReload) onReload(identifier);
    if (hold) {
        std::lock_guard lock(mutex_);
        held_.emplace_back(std::move(completionHandler), std::move(result));
        return;
    }
    if (completionHandler) completionHandler(std::move(result));
}

std::vector<std::string> ScriptedContentBlockerManager::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

void ScriptedContentBlockerManager::scriptResults(std::vector<std::optional<Error>> results) {
    std::lock_guard lock(mutex_);
    script_ = std::move(results);
    nextResult_ = 0;
}

void ScriptedContentBlockerManager::setHoldCompletions(bool hold) {
    std::lock_guard lock(mutex_);
    hold_ = hold;
}

std::size_t ScriptedContentBlockerManager::completePending() {
    std::size_t count = 0;
    // A completion may issue the next request (the second reload phase does),
    // which is held again and completed in this same call.
    for (;;) {
        std::vector<std::pair<CompletionHandler, std::optional<Error>>> batch;
        {
            std::lock_guard lock(mutex_);
            batch.swap(held_);
        }
        if (batch.empty()) return count;
        for (auto& [handler, result] : batch) {
            ++count;
            if (handler) handler(std::move(result));
        }
    }
}

std::size_t ScriptedContentBlockerManager::pendingCount() const {
    std::lock_guard lock(mutex_);
    return held_.size();
}

// --- FakeHost --------------------------------------------------------------------

FakeHost::FakeHost(std::string root) {
    home_ = root + "/home";
    directories_[SearchPathDirectory::Documents] = root + "/data";
    directories_[SearchPathDirectory::Caches] = root + "/cache";
    directories_[SearchPathDirectory::ApplicationSupport] = root + "/config";
    containers_[kTestApplicationGroup] = root + "/container";
}

OperatingSystemVersion FakeHost::operatingSystemVersion() const {
    std::lock_guard lock(mutex_);
    return osVersion_;
}

double FakeHost::appKitVersionNumber() const {
    std::lock_guard lock(mutex_);
    return appKitVersion_;
}

std::optional<int64_t> FakeHost::safariServicesVersion() const {
    std::lock_guard lock(mutex_);
    return servicesVersion_;
}

bool FakeHost::safariServicesAvailable() const {
    std::lock_guard lock(mutex_);
    return servicesAvailable_;
}

std::string FakeHost::homeDirectory() const {
    std::lock_guard lock(mutex_);
    return home_;
}

std::optional<std::string> FakeHost::userDirectory(SearchPathDirectory directory) const {
    std::lock_guard lock(mutex_);
    auto found = directories_.find(directory);
    return found == directories_.end() ? std::nullopt : found->second;
}

std::optional<std::string> FakeHost::containerPathForApplicationGroup(
    const std::string& groupIdentifier) const {
    std::lock_guard lock(mutex_);
    auto found = containers_.find(groupIdentifier);
    return found == containers_.end() ? std::nullopt : found->second;
}

void FakeHost::setOperatingSystemVersion(OperatingSystemVersion version) {
    std::lock_guard lock(mutex_);
    osVersion_ = version;
}

void FakeHost::setAppKitVersionNumber(double version) {
    std::lock_guard lock(mutex_);
    appKitVersion_ = version;
}

void FakeHost::setSafariServicesVersion(std::optional<int64_t> version) {
    std::lock_guard lock(mutex_);
    servicesVersion_ = version;
}

void FakeHost::setSafariServicesAvailable(bool available) {
    std::lock_guard lock(mutex_);
    servicesAvailable_ = available;
}

void FakeHost::setHomeDirectory(std::string path) {
    std::lock_guard lock(mutex_);
    home_ = std::move(path);
}

void FakeHost::setUserDirectory(SearchPathDirectory directory, std::optional<std::string> path) {
    std::lock_guard lock(mutex_);
    directories_[directory] = std::move(path);
}

void FakeHost::setContainerPath(const std::string& groupIdentifier,
                                std::optional<std::string> path) {
    std::lock_guard lock(mutex_);
    containers_[groupIdentifier] = std::move(path);
}

// --- FakeBundle ------------------------------------------------------------------

namespace {
std::string resourcesFromEnvironment() {
    const char* value = std::getenv("STONEWALL_RESOURCES");
    return value ? value : "";
}
}  // namespace

FakeBundle::FakeBundle() : resourcePath_(resourcesFromEnvironment()) {}

FakeBundle::FakeBundle(std::string resourcePath) : resourcePath_(std::move(resourcePath)) {}

std::string FakeBundle::resourcePath() const {
    std::lock_guard lock(mutex_);
    return resourcePath_;
}

std::string FakeBundle::shortVersionString() const { return std::string(STONEWALL_TEST_VERSION); }

std::string FakeBundle::localizedString(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto found = translations_.find(key);
    return found == translations_.end() ? key : found->second;
}

void FakeBundle::setResourcePath(std::string path) {
    std::lock_guard lock(mutex_);
    resourcePath_ = std::move(path);
}

void FakeBundle::setTranslation(const std::string& key, std::string text) {
    std::lock_guard lock(mutex_);
    translations_[key] = std::move(text);
}

// --- CapturingLog ------------------------------------------------------------------

void CapturingLog::write(LogLevel level, std::string_view message) {
    std::lock_guard lock(mutex_);
    lines_.push_back({level, std::string(message)});
}

std::vector<LogLine> CapturingLog::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

bool CapturingLog::contains(std::string_view fragment) const {
    std::lock_guard lock(mutex_);
    return std::any_of(lines_.begin(), lines_.end(), [&](const LogLine& line) {
        return line.message.find(fragment) != std::string::npos;
    });
}

}  // namespace stonewall::platform::testing
