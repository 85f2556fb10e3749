#pragma once

// Process-level tasks that need the operating system: hearing that the
// process is asked to stop, and holding a lock other processes respect.
// Declared here, implemented for POSIX in linux/Process.cpp.

#include <functional>
#include <memory>
#include <string>

namespace stonewall::platform {

// Held while the process wants to hear of stop requests (SIGINT, SIGTERM);
// destroying it gives them their default action back. One at a time.
class StopRequestWatch {
  public:
    virtual ~StopRequestWatch() = default;
};

// `onStop` runs on a thread of the watch's own, once per request, never in a
// signal handler; post to a queue from there. Null (with `error` set) when
// requests cannot be watched.
[[nodiscard]] std::unique_ptr<StopRequestWatch> watchStopRequests(std::function<void()> onStop,
                                                                  std::string& error);

// An exclusive lock on a file, shared by every process that takes it the same
// way. The lock goes with the process, so one that is killed never leaves it
// held.
class FileLock {
  public:
    virtual ~FileLock() = default;
};

// Creates the file when missing and waits until the lock is ours. Null (with
// `error` set) when the file cannot be opened or locked.
[[nodiscard]] std::unique_ptr<FileLock> lockFile(const std::string& path, std::string& error);

// Whether the current user may create and remove entries in `directory`;
// false with the reason in `error` otherwise.
[[nodiscard]] bool canWriteInto(const std::string& directory, std::string& error);

}  // namespace stonewall::platform
