#pragma once

// File-system tasks whose guarantees depend on the operating system: a file
// that appears complete or not at all, a size read without following links.
// Declared here, implemented for POSIX in linux/FileSystem.cpp; callers never
// see a descriptor or errno.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace stonewall::platform {

// Takes a file's bytes piece by piece; false when they could not be written
// (the producer may then stop early).
using ByteSink = std::function<bool(std::string_view)>;
// Makes a file's bytes, handing them to the sink; false abandons the file.
using ByteProducer = std::function<bool(const ByteSink&)>;

// How a finished file takes its name.
enum class FileNaming {
    Replace,     // over whatever is there, in one rename: readers see old or new
    CreateOnly,  // only where nothing is there; an existing item is never touched
};

struct FileTaskResult {
    bool done = false;
    // CreateOnly found its name taken (by another process, say): not an error.
    bool nameTaken = false;
    // A line for the log when the task failed for any other reason.
    std::string error;
};

// Writes a complete new file at `path`: every byte is on disk before the file
// gets its name. On any failure (a full disk, a file-size limit, the producer
// giving up) nothing is left behind and whatever had the name stays whole.
// New files get the permissions the umask allows, as open(2) would give.
[[nodiscard]] FileTaskResult writeFileAtomically(const std::string& path,
                                                 const ByteProducer& produce, FileNaming naming);

// The size the directory entry at `path` reports, a link's own included;
// nullopt when nothing is there or (with `error` set) it cannot be read.
[[nodiscard]] std::optional<int64_t> itemSize(const std::string& path, std::string& error);

// Moves a file or folder that is in the way (damaged, or not what belongs
// there) to "<path>.damaged-<UTC time>" (with a counter when that is taken),
// never replacing anything, and reports the move as a StorageEvents
// MovedAside event. Returns the new path; nullopt when nothing was there, or
// (with `error` set) when it could not be moved.
[[nodiscard]] std::optional<std::string> moveItemAside(const std::string& path, std::string& error);

}  // namespace stonewall::platform
