#pragma once

// The extension's own settings that survive a browser restart: whether the
// blocking status was changed from the popover (statusUpdated) and whether
// the blocked-request counter shows on the toolbar button (blockingCounter).
// Kept as a small archive "state" in ".Data" under the user's configuration
// folder + "Stonewall", not in the shared container.
//
// Threads: only the creation of the shared instance is guarded. The flags may
// be read and written from any thread (each is atomic on its own); the file is
// written without a lock, as each save rewrites it whole and atomically.

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>

#include "storage/FileHandler.h"

namespace stonewall {

class ExtensionState {
  public:
    // The process-wide instance: read from the state file when there is one,
    // else made with the defaults and saved. Null for the rest of the process
    // when the file exists but cannot be decoded; callers then act as if
    // both flags were false. There is no repair of such a file.
    static ExtensionState* sharedInstance();
    // Tests: forget the instance (also a null one) so that the next
    // sharedInstance() reads the state file of the host then configured.
    static void resetSharedInstanceForTesting();

    // init: statusUpdated false; blockingCounter = isSafariVersionAvailable(5).
    ExtensionState();
    ExtensionState(const ExtensionState& other);
    ExtensionState& operator=(const ExtensionState& other);

    // init, then the two flags from the archive (a missing key reads false).
    static ExtensionState initWithCoder(const Archive& coder);
    // The two flags under "statusUpdated" and "blockingCounter".
    Archive encodeWithCoder() const;

    bool statusUpdated() const { return statusUpdated_.load(std::memory_order_relaxed); }
    void setStatusUpdated(bool value) { statusUpdated_.store(value, std::memory_order_relaxed); }
    bool blockingCounter() const { return blockingCounter_.load(std::memory_order_relaxed); }
    void setBlockingCounter(bool value) {
        blockingCounter_.store(value, std::memory_order_relaxed);
    }

    const std::string& dataFileName() const { return dataFileName_; }
    const FileHandler& dataFileHandler() const { return dataFileHandler_; }

    bool checkDataExists() const;
    // Creates the file and saves the flags into it.
    void createData();
    void removeData();
    // Rewrites the whole file with the current flags.
    void saveData() const;
    // A new object read from the file (this one is not changed); nullopt when
    // the file is missing or cannot be decoded.
    std::optional<ExtensionState> loadData() const;

    // "statusUpdated: %d, blockingCounter: %d".
    std::string description() const;

    // Version 0: whether the browser's extension services exist at all; any
    // other code: whether their version is known and at least `version`.
    static bool isSafariVersionAvailable(int64_t version);

  private:
    std::string dataFileName_;
    FileHandler dataFileHandler_;
    std::atomic<bool> statusUpdated_{false};
    std::atomic<bool> blockingCounter_{false};
};

}  // namespace stonewall
