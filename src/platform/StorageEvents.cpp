#include "platform/StorageEvents.h"

#include <mutex>

#include "platform/Platform.h"

namespace stonewall::StorageEvents {

namespace {

std::mutex gMutex;
Observer& observer() {
    static Observer* instance = new Observer();  // lives until exit, like the log
    return *instance;
}

}  // namespace

void setObserver(Observer newObserver) {
    std::lock_guard lock(gMutex);
    observer() = std::move(newObserver);
}

void report(Kind kind, std::string_view message) {
    Observer current;
    {
        std::lock_guard lock(gMutex);
        current = observer();
    }
    if (current) current(kind, message);
}

void reportFailure(std::string_view component, std::string_view message) {
    platform::log(platform::LogLevel::Debug, std::string(component).append(": ").append(message));
    report(Kind::Failure, message);
}

}  // namespace stonewall::StorageEvents
