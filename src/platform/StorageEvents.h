#pragma once

// What the storage classes tell a watcher besides their debug log: every
// failure that goes to a logError hook, and every file moved aside to make
// room for a repair. The classes stay silent to their callers, as the rest of
// the product expects; the watcher is for the one place that speaks to
// people (the command), which must not report success over a lost write.

#include <functional>
#include <string>
#include <string_view>

namespace stonewall::StorageEvents {

enum class Kind {
    Failure,     // a storage operation failed (its logError line)
    MovedAside,  // a damaged file or a folder in the way was renamed, not deleted
};

// Called on the thread that met the event; must not call back into storage.
using Observer = std::function<void(Kind kind, std::string_view message)>;

// Process-wide; an empty function removes the watcher.
void setObserver(Observer observer);
void report(Kind kind, std::string_view message);

// A storage class's logError: a debug line "<component>: <message>" and a
// Failure report.
void reportFailure(std::string_view component, std::string_view message);

}  // namespace stonewall::StorageEvents
