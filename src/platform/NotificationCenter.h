#pragma once

#include <functional>
#include <memory>
#include <string>

namespace stonewall::platform {

// System-wide notifications between processes: a name and an object string,
// no user info. Delivery is asynchronous and best effort: a post that cannot
// reach anyone is dropped, never an error.
class DistributedNotificationCenter {
  public:
    virtual ~DistributedNotificationCenter() = default;

    virtual void postNotificationName(const std::string& name, const std::string& object) = 0;

    using Observer = std::function<void(const std::string& name, const std::string& object)>;

    // Calls observer for every notification of that name (posted by any
    // process) on the main queue, until the returned token is destroyed.
    // A null token means the notifications cannot be observed here.
    [[nodiscard]] virtual std::shared_ptr<void> addObserver(const std::string& name,
                                                            Observer observer) = 0;
};

}  // namespace stonewall::platform
