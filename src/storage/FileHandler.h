#pragma once

// The one way the program touches the file system. An instance stands for one
// directory (its path) and works on names inside it; the static operations
// work on whole paths ("URLs"). Failures go to logError (a debug log line) and
// show only as absent or false results, as callers of this class expect.

#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "platform/FileSystem.h"
#include "utilities/Nullable.h"

namespace stonewall {

using Data = std::string;  // bytes

namespace FileLocation {
inline constexpr int64_t kDocuments = 1;           // the user's data folder
inline constexpr int64_t kCaches = 2;              // the user's cache folder
inline constexpr int64_t kApplicationSupport = 3;  // the user's configuration folder + "Stonewall"
}  // namespace FileLocation

// The application group the product's programs share.
inline constexpr std::string_view kApplicationGroup = "K7Q2XJ4M9P.com.mapleharbor.Stonewall";

using DataSink = platform::ByteSink;
using DataProducer = platform::ByteProducer;

// Boolean key-value archive (the extension state).
using Archive = std::map<std::string, bool>;

class FileHandler {
  public:
    FileHandler() = default;

    static FileHandler initWithLocation(int64_t location);
    static FileHandler initWithName(const std::string& name, int64_t fileLocation);
    static FileHandler initWithNameAndGroup(const std::string& name, const std::string& groupName);

    // The directory; null for an unknown location.
    const NullableString& path() const { return path_; }

    static std::string getDirectoryPath(const std::string& name, int64_t fileLocation);
    static std::string getDirectoryPathGroup(const std::string& name, const std::string& groupName);

    std::string getFilePath(const std::string& name) const;
    bool fileExists(const std::string& name) const;
    // True when a folder (not a link to one) is at the name.
    bool fileIsFolder(const std::string& name) const;
    int64_t fileSize(const NullableString& name) const;
    NullableString fileMIMEType(const std::string& name) const;
    void createFile(const std::string& name) const;
    void createDirectory(const std::string& name) const;

    // Writes the bytes atomically: a new file, flushed, renamed over the old
    // one, so that a failed write (full disk, size limit, kill) keeps the old
    // file whole. A folder in the way is moved aside (see moveAside), never
    // deleted. Null data removes the file. True when the new file is in place.
    bool writeToFile(const std::string& name, std::optional<std::string_view> data) const;
    bool writeToURL(const std::string& name, std::optional<std::string_view> data) const;
    // The same atomic write for a file too large to hold in memory at once:
    // the bytes go to the temporary file as `produce` makes them, and the
    // target is replaced only when it returns true and every piece was
    // written. Otherwise the old file stays as it was.
    bool writeToURL(const std::string& name, const DataProducer& produce) const;

    std::optional<Data> readFromFile(const std::string& name) const;
    static std::optional<Data> readFromFilePath(const std::string& path);
    // Removes the target (a folder is moved aside instead), then copies the
    // source there through a temporary file.
    void copyFile(const std::string& name, const std::string& fromPath) const;
    // Copies the source to the name only when nothing is there: when several
    // processes make the same file from a template at once, one copy wins and
    // no process replaces a file another has begun to use. True when the
    // file is there afterwards, whoever made it.
    [[nodiscard]] bool createFileFromPath(const std::string& name,
                                          const std::string& fromPath) const;
    // Renames the item to "<name>.damaged-<UTC time>" so that a repair can
    // put a fresh file in its place without destroying what was there.
    // Returns the new path; null when nothing was moved.
    NullableString moveAside(const std::string& name) const;
    void removeFile(const std::string& name) const;
    void remove() const;

    void archiveData(const std::string& name, const Archive& data) const;
    std::optional<Archive> unarchiveData(const std::string& name) const;
    static void addSkipBackupAttributeToPath(const std::string& path);

    static std::string applicationDocumentsDirectory();
    static std::string applicationCachesDirectory();
    static std::string applicationApplicationSupportDirectory();
    static void moveFileFromURL(const std::string& from, const std::string& to);
    static void copyFileFromURL(const std::string& from, const std::string& to);
    static bool writeToURL(const std::string& url, std::optional<std::string_view> data,
                           bool extensionHidden);
    static std::optional<Data> readFromURL(const std::string& url);
    // An open read handle (a FILE* the caller closes), or null.
    static std::FILE* fileHandleForReadingURL(const std::string& url);

    static void logError(std::string_view message);

  private:
    NullableString path_;
};

}  // namespace stonewall
