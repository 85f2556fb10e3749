#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace stonewall::platform {

// One user-defaults suite: typed values shared by the processes of one
// application group. Writes are visible in this process at once and reach
// other processes after synchronize(); synchronize() also takes in what other
// processes synchronised meanwhile, without losing keys of either side.
class UserDefaults {
  public:
    virtual ~UserDefaults() = default;

    // Absent when the key holds no value of that type.
    virtual std::optional<int64_t> integerForKey(const std::string& key) = 0;
    virtual std::optional<std::string> stringForKey(const std::string& key) = 0;

    virtual void setInteger(int64_t value, const std::string& key) = 0;
    virtual void setObject(const std::string& value, const std::string& key) = 0;
    virtual void removeObjectForKey(const std::string& key) = 0;

    // Writes this process's changes and reads the other processes' values.
    // False when the suite could not be written (the values stay in memory).
    virtual bool synchronize() = 0;
};

class UserDefaultsService {
  public:
    virtual ~UserDefaultsService() = default;
    // The suite of that name; the same object for the same name.
    virtual std::shared_ptr<UserDefaults> suiteNamed(const std::string& suiteName) = 0;
};

}  // namespace stonewall::platform
