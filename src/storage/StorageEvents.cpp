#include "storage/StorageEvents.h"

#include <mutex>

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

}  // namespace stonewall::StorageEvents
