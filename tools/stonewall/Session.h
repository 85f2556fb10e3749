#pragma once

// The composition root: one Session per run of the command. It chooses the
// container, installs the real Linux services for the rest of the process,
// makes sure the container can hold the databases, opens the engine as the
// browser front does, and waits for engine completions by running the main
// queue, with a watchdog so that a reload that never answers ends in an error
// instead of a hung command.

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "Text.h"
#include "engine/CompanionController.h"
#include "platform/Error.h"
#include "platform/Process.h"

namespace stonewall::tool {

// The options every subcommand takes.
struct CommonOptions {
    std::string container;  // empty: $STONEWALL_CONTAINER or the documented default
    bool json = false;
    bool verbose = false;
    double timeoutSeconds = 120;  // watchdog of one engine operation
};

class Session {
  public:
    enum class Signals {
        Default,       // SIGINT and SIGTERM end the process as usual
        StopMainLoop,  // they stop the main loop instead (watch)
    };

    // Installs the services; throws CommandFailure when the container option
    // cannot be used.
    explicit Session(const CommonOptions& options, Signals signals = Signals::Default);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // The container root the services use (absolute).
    const std::string& containerPath() const { return containerPath_; }
    std::string resourcePath() const;

    // Creates the container folder when missing and checks that it is a
    // writable folder and that the template databases are there. Throws
    // CommandFailure (ExitCode::Storage).
    void prepareContainer() const;

    // prepareContainer(), then a CompanionController as the front makes one:
    // the shared record is read (and, when unreadable, the database is
    // reconnected and read again, as toolbar validation does). Throws
    // CommandFailure (ExitCode::Storage) when the shared record stays
    // unreadable or the active profile's database cannot be opened.
    // With ActiveProfile::Optional an active profile that cannot be opened
    // (an unusable identifier planted in the shared record) is only warned
    // about, so that the commands that repair it still work.
    enum class ActiveProfile { Required, Optional };
    [[nodiscard]] std::unique_ptr<CompanionController> openEngine(
        ActiveProfile use = ActiveProfile::Required) const;

    // Starts the operation from the main queue and runs the main queue until
    // its completion is called, returning the completion's error. Throws
    // CommandFailure (ExitCode::Reload) naming `what` when the watchdog fires first.
    [[nodiscard]] std::optional<Error> await(const Message& what,
                                             const std::function<void(CompletionHandler)>& start);

    // Runs the main queue until SIGINT or SIGTERM (Signals::StopMainLoop) or
    // until stop() is called from the main queue.
    void runUntilStopped();
    void stop();

    // Storage failures met so far (their logError lines), and the latest
    // one's text: the engine never hears of them, the command must.
    [[nodiscard]] int64_t storageFailures() const;
    std::string lastStorageFailure() const;

    // True when a watchdog fired: engine work may still run on other threads,
    // so the process must end without running destructors (see main()).
    static bool workAbandoned() { return workAbandoned_.load(); }

  private:
    void watchStopRequests();
    // Takes the container's lock file (exclusive, waits); released when the
    // session ends.
    void lockContainer() const;

    CommonOptions options_;
    std::string containerPath_;
    Signals signals_;
    std::unique_ptr<platform::StopRequestWatch> stopWatch_;
    std::atomic<bool> stopRequested_{false};
    static std::atomic<bool> workAbandoned_;
    mutable std::unique_ptr<platform::FileLock> containerLock_;
    mutable std::mutex storageMutex_;
    int64_t storageFailures_ = 0;
    std::string lastStorageFailure_;
};

// Whether a profile identifier can name the profile's files: not empty, not
// "." or "..", no path separator of either kind, no control character.
[[nodiscard]] bool isUsableProfileID(std::string_view identifier);

}  // namespace stonewall::tool
