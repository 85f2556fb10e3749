#include "platform/linux/FileUserDefaults.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <utility>
#include <variant>

#include "platform/FileSystem.h"

namespace stonewall::platform::gnulinux {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

class FileDescriptor {
  public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

struct FileContents {
    std::map<std::string, json> values;
    bool damaged = false;   // present but not a JSON object
    bool inTheWay = false;  // a folder (or anything but a file) holds the name
};

std::optional<std::string> readFile(const std::string& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) return std::nullopt;
    std::string text;
    char buffer[16384];
    for (;;) {
        const ssize_t count = ::read(fd.get(), buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return std::nullopt;
        if (count == 0) return text;
        text.append(buffer, static_cast<size_t>(count));
    }
}

FileContents readContents(const std::string& path) {
    FileContents contents;
    struct stat status {};
    if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) &&
        !S_ISLNK(status.st_mode)) {
        contents.damaged = contents.inTheWay = true;
        return contents;
    }
    const auto text = readFile(path);
    if (!text) return contents;  // missing (or unreadable): nothing shared yet
    json parsed = json::parse(*text, nullptr, /*allow_exceptions=*/false);
    if (parsed.is_discarded() || !parsed.is_object()) {
        contents.damaged = true;
        return contents;
    }
    for (auto& [key, value] : parsed.items()) contents.values.emplace(key, std::move(value));
    return contents;
}

bool writeAll(int fd, const std::string& text) {
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(fd, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        written += static_cast<size_t>(count);
    }
    return true;
}

// Temp file in the same folder, flushed, then renamed over the target: a
// reader sees the old file or the new one, never a part.
bool writeAtomically(const std::string& path, const std::string& text) {
    std::string pattern = path + ".XXXXXX";
    FileDescriptor fd(::mkostemp(pattern.data(), O_CLOEXEC));
    if (fd.get() < 0) return false;
    const bool ok = writeAll(fd.get(), text) && ::fsync(fd.get()) == 0 &&
                    ::close(fd.release()) == 0 && ::rename(pattern.c_str(), path.c_str()) == 0;
    if (!ok) ::unlink(pattern.c_str());
    return ok;
}

std::string serialise(const std::map<std::string, json>& values) {
    json object = json::object();
    for (const auto& [key, value] : values) object[key] = value;
    // Text from elsewhere may hold invalid UTF-8; it is replaced rather than
    // refused, so one bad value never blocks the whole suite.
    return object.dump(2, ' ', /*ensure_ascii=*/false, json::error_handler_t::replace) + "\n";
}

bool isValidFileName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

// Suites without a file: values in memory, synchronize() fails.
class MemoryOnlyUserDefaults : public UserDefaults {
  public:
    std::optional<int64_t> integerForKey(const std::string& key) override {
        std::lock_guard lock(mutex_);
        auto found = values_.find(key);
        if (found == values_.end()) return std::nullopt;
        if (auto* value = std::get_if<int64_t>(&found->second)) return *value;
        return std::nullopt;
    }
    std::optional<std::string> stringForKey(const std::string& key) override {
        std::lock_guard lock(mutex_);
        auto found = values_.find(key);
        if (found == values_.end()) return std::nullopt;
        if (auto* value = std::get_if<std::string>(&found->second)) return *value;
        return std::nullopt;
    }
    void setInteger(int64_t value, const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_[key] = value;
    }
    void setObject(const std::string& value, const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_[key] = value;
    }
    void removeObjectForKey(const std::string& key) override {
        std::lock_guard lock(mutex_);
        values_.erase(key);
    }
    bool synchronize() override { return false; }

  private:
    std::mutex mutex_;
    std::map<std::string, std::variant<int64_t, std::string>> values_;
};

}  // namespace

FileUserDefaults::FileUserDefaults(std::string path) : path_(std::move(path)) {}

void FileUserDefaults::loadOnce() {
    if (loaded_) return;
    loaded_ = true;
    FileContents contents = readContents(path_);
    values_ = std::move(contents.values);
    fileDamaged_ = contents.damaged;
}

std::optional<int64_t> FileUserDefaults::integerForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    loadOnce();
    auto found = values_.find(key);
    if (found == values_.end() || !found->second.is_number_integer()) return std::nullopt;
    if (found->second.is_number_unsigned() &&
        found->second.get<uint64_t>() >
            static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
        return std::nullopt;
    }
    return found->second.get<int64_t>();
}

std::optional<std::string> FileUserDefaults::stringForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    loadOnce();
    auto found = values_.find(key);
    if (found == values_.end() || !found->second.is_string()) return std::nullopt;
    return found->second.get<std::string>();
}

void FileUserDefaults::set(const std::string& key, std::optional<json> value) {
    std::lock_guard lock(mutex_);
    loadOnce();
    if (value) {
        values_[key] = *value;
    } else {
        values_.erase(key);
    }
    changes_[key] = std::move(value);
}

void FileUserDefaults::setInteger(int64_t value, const std::string& key) { set(key, json(value)); }

void FileUserDefaults::setObject(const std::string& value, const std::string& key) {
    set(key, json(value));
}

void FileUserDefaults::removeObjectForKey(const std::string& key) { set(key, std::nullopt); }

bool FileUserDefaults::synchronize() {
    std::lock_guard lock(mutex_);
    loadOnce();
    try {
        std::error_code error;
        fs::create_directories(fs::path(path_).parent_path(), error);
        FileDescriptor lockFile(
            ::open((path_ + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        if (lockFile.get() < 0) return false;
        while (::flock(lockFile.get(), LOCK_EX) != 0) {
            if (errno != EINTR) return false;
        }
        // From here to the close of lockFile no other process writes the file.
        FileContents contents = readContents(path_);
        std::map<std::string, json> merged = std::move(contents.values);
        for (const auto& [key, value] : changes_) {
            if (value) {
                merged[key] = *value;
            } else {
                merged.erase(key);
            }
        }
        // A folder in the way is moved aside (never removed: it may hold
        // the user's files), so the suite can be written again.
        if (contents.inTheWay) {
            std::string error;
            (void)moveItemAside(path_, error);
            if (!error.empty()) return false;
        }
        const bool mustWrite = !changes_.empty() || contents.damaged;
        const bool written = !mustWrite || writeAtomically(path_, serialise(merged));
        // Either way the other processes' values are ours now; unwritten
        // changes stay pending for the next synchronize.
        values_ = std::move(merged);
        if (!written) return false;
        changes_.clear();
        fileDamaged_ = false;
        return true;
    } catch (const std::exception&) {
        return false;  // allocation failure; the values stay in memory
    }
}

FileUserDefaultsService::FileUserDefaultsService(ContainerLookup containerForGroup,
                                                 std::string preferencesFolder)
    : containerForGroup_(std::move(containerForGroup)),
      preferencesFolder_(std::move(preferencesFolder)) {}

std::string FileUserDefaultsService::pathForSuite(const std::string& suiteName) const {
    if (!isValidFileName(suiteName)) return {};
    if (containerForGroup_) {
        if (auto container = containerForGroup_(suiteName); container && !container->empty()) {
            return (fs::path(*container) / "Library" / "Preferences" / (suiteName + ".json"))
                .string();
        }
    }
    if (preferencesFolder_.empty()) return {};
    return (fs::path(preferencesFolder_) / (suiteName + ".json")).string();
}

std::shared_ptr<UserDefaults> FileUserDefaultsService::suiteNamed(const std::string& suiteName) {
    std::lock_guard lock(mutex_);
    auto& suite = suites_[suiteName];
    if (!suite) {
        const std::string path = pathForSuite(suiteName);
        if (path.empty()) {
            suite = std::make_shared<MemoryOnlyUserDefaults>();
        } else {
            suite = std::make_shared<FileUserDefaults>(path);
        }
    }
    return suite;
}

}  // namespace stonewall::platform::gnulinux
