#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "platform/UserDefaults.h"

namespace stonewall::platform::gnulinux {

// A user-defaults suite kept in one JSON file shared by the processes of a
// group: a single object whose members are the keys, each an integer or a
// string. Members of other types (written by other programs) are kept and
// written back unchanged, but read as absent.
//
// synchronize() takes an exclusive flock() on "<file>.lock", reads the file,
// lays this process's changes since its last synchronize over it (they win;
// every other key comes from the file), writes the result to a temporary
// file that is then renamed over the file, and makes it the suite's view.
// A missing file reads as empty; a damaged one (not a JSON object) reads as
// empty and is rewritten by the next synchronize; a folder in its place is
// moved aside to "<file>.damaged-<UTC time>" first. Reads answer from the
// view, which is loaded from the file on first use.
class FileUserDefaults : public UserDefaults {
  public:
    explicit FileUserDefaults(std::string path);

    std::optional<int64_t> integerForKey(const std::string& key) override;
    std::optional<std::string> stringForKey(const std::string& key) override;
    void setInteger(int64_t value, const std::string& key) override;
    void setObject(const std::string& value, const std::string& key) override;
    void removeObjectForKey(const std::string& key) override;
    bool synchronize() override;

    const std::string& path() const { return path_; }

  private:
    void loadOnce();  // mutex_ held
    void set(const std::string& key, std::optional<nlohmann::json> value);

    const std::string path_;
    std::mutex mutex_;
    bool loaded_ = false;
    bool fileDamaged_ = false;
    std::map<std::string, nlohmann::json> values_;
    // Keys changed since the last synchronize; an absent value is a removal.
    std::map<std::string, std::optional<nlohmann::json>> changes_;
};

// Suites by name: the suite of an application group that has a container
// lives in "<container>/Library/Preferences/<name>.json"; any other name in
// "<preferencesFolder>/<name>.json". A name that cannot be a file name (empty,
// ".", "..", or with a "/") gives a suite that keeps its values in memory
// and whose synchronize() fails.
class FileUserDefaultsService : public UserDefaultsService {
  public:
    using ContainerLookup = std::function<std::optional<std::string>(const std::string& group)>;

    FileUserDefaultsService(ContainerLookup containerForGroup, std::string preferencesFolder);

    std::shared_ptr<UserDefaults> suiteNamed(const std::string& suiteName) override;

    // Where the suite of that name is kept; empty when nowhere.
    std::string pathForSuite(const std::string& suiteName) const;

  private:
    ContainerLookup containerForGroup_;
    std::string preferencesFolder_;
    std::mutex mutex_;
    std::map<std::string, std::shared_ptr<UserDefaults>> suites_;
};

}  // namespace stonewall::platform::gnulinux
