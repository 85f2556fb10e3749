#include "platform/FileSystem.h"

// POSIX: O_TMPFILE and linkat give a file no name until it is complete, and
// an atomic replace needs the data on disk before the rename makes it visible.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/StorageEvents.h"

namespace stonewall::platform {

namespace {

std::string errnoText(std::string_view what, const std::string& path) {
    return std::string(what) + " " + path + ": " + std::strerror(errno);
}

bool writeAll(int fd, std::string_view data) {
    while (!data.empty()) {
        const ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

// Makes the rename itself durable; failing here loses nothing that a reader
// could see, so errors are ignored.
void syncDirectory(const std::string& directory) {
    const int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    (void)::fsync(fd);
    ::close(fd);
}

// What the umask allows of rw-rw-rw-. Read from /proc so that the
// process-wide umask is never changed, not even for a moment, under other
// threads.
mode_t newFileMode() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("Umask:", 0) == 0) {
            try {
                return static_cast<mode_t>(0666 & ~std::stoul(line.substr(6), nullptr, 8));
            } catch (const std::exception&) {
                break;
            }
        }
    }
    return 0644;
}

// A complete file not yet visible under any name the product reads. With
// O_TMPFILE it has no name at all until it is named, so a kill at any moment
// leaves nothing behind; where the file system lacks O_TMPFILE a hidden
// temporary name stands in (removed on every failure this process survives).
class PendingFile {
  public:
    explicit PendingFile(const std::string& target) : target_(target) {
        const std::filesystem::path path(target);
        directory_ = path.has_parent_path() ? path.parent_path().string() : std::string(".");
        fileName_ = path.filename().string();
        fd_ = ::open(directory_.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0666);
        if (fd_ >= 0) return;
        temporary_ = directory_ + "/." + fileName_ + ".XXXXXX";
        fd_ = ::mkostemp(temporary_.data(), O_CLOEXEC);
        // mkstemp makes the file 0600; the umask decides, as for any new file.
        if (fd_ >= 0) (void)::fchmod(fd_, newFileMode());
        if (fd_ < 0) temporary_.clear();
    }
    ~PendingFile() {
        if (fd_ >= 0) ::close(fd_);
        if (!temporary_.empty()) ::unlink(temporary_.c_str());
    }
    PendingFile(const PendingFile&) = delete;
    PendingFile& operator=(const PendingFile&) = delete;

    bool opened() const { return fd_ >= 0; }
    const std::string& directory() const { return directory_; }

    // Writes and flushes the bytes.
    bool fill(const ByteProducer& produce, FileTaskResult& result) {
        bool writeFailed = false;
        const bool complete = produce([&](std::string_view piece) {
            if (!writeFailed && !writeAll(fd_, piece)) {
                result.error = errnoText("cannot write", target_);
                writeFailed = true;
            }
            return !writeFailed;
        });
        if (!complete || writeFailed) return false;
        if (::fsync(fd_) != 0) {
            result.error = errnoText("cannot flush", target_);
            return false;
        }
        return true;
    }

    // Gives the file its name.
    bool name(FileNaming naming, FileTaskResult& result) {
        if (temporary_.empty()) {
            // An unnamed file gets a name by linkat, which never replaces; a
            // replacement links it under a private name first.
            if (naming == FileNaming::CreateOnly) return linkInto(target_, result);
            removeLeftovers();
            std::string name =
                privatePrefix() + std::to_string(::getpid()) + "-" + std::to_string(++counter_);
            if (!linkInto(name, result)) return false;
            temporary_ = name;
        }
        if (naming == FileNaming::CreateOnly) {
            if (::link(temporary_.c_str(), target_.c_str()) == 0) return true;
            return failed("cannot create", result);
        }
        if (::rename(temporary_.c_str(), target_.c_str()) != 0) {
            return failed("cannot rename onto", result);
        }
        temporary_.clear();
        return true;
    }

  private:
    std::string privatePrefix() const { return directory_ + "/." + fileName_ + "."; }

    // A process killed between naming its file privately and the rename
    // leaves the private name behind; the next replacement of the same file
    // removes those of processes that are gone.
    void removeLeftovers() const {
        std::error_code error;
        const std::string prefix = privatePrefix();
        std::filesystem::directory_iterator entry(directory_, error), end;
        for (; !error && entry != end; entry.increment(error)) {
            const std::string name = entry->path().string();
            if (name.compare(0, prefix.size(), prefix) != 0) continue;
            // <pid>-<counter>, both decimal; anything else is not ours.
            const std::string_view tail = std::string_view(name).substr(prefix.size());
            const char* const tailEnd = tail.data() + tail.size();
            pid_t owner = 0;
            unsigned counter = 0;
            const auto pid = std::from_chars(tail.data(), tailEnd, owner);
            if (pid.ec != std::errc() || owner <= 0 || pid.ptr == tailEnd || *pid.ptr != '-')
                continue;
            const auto rest = std::from_chars(pid.ptr + 1, tailEnd, counter);
            if (rest.ec != std::errc() || rest.ptr != tailEnd) continue;
            if (owner != ::getpid() && ::kill(owner, 0) != 0 && errno == ESRCH) {
                ::unlink(name.c_str());
            }
        }
    }

    bool linkInto(const std::string& name, FileTaskResult& result) {
        const std::string source = "/proc/self/fd/" + std::to_string(fd_);
        if (::linkat(AT_FDCWD, source.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) {
            return true;
        }
        return failed("cannot link", result);
    }
    bool failed(std::string_view what, FileTaskResult& result) {
        result.nameTaken = errno == EEXIST;
        if (!result.nameTaken) result.error = errnoText(what, target_);
        return false;
    }

    std::string target_;
    std::string directory_;
    std::string fileName_;
    std::string temporary_;
    int fd_ = -1;
    static inline std::atomic<unsigned> counter_{0};
};

}  // namespace

FileTaskResult writeFileAtomically(const std::string& path, const ByteProducer& produce,
                                   FileNaming naming) {
    FileTaskResult result;
    if (path.empty()) {
        result.error = "write: no path";
        return result;
    }
    PendingFile file(path);
    if (!file.opened()) {
        result.error = errnoText("cannot create a temporary file for", path);
        return result;
    }
    if (!file.fill(produce, result) || !file.name(naming, result)) return result;
    syncDirectory(file.directory());
    result.done = true;
    return result;
}

std::optional<int64_t> itemSize(const std::string& path, std::string& error) {
    struct stat attributes {};
    if (::lstat(path.c_str(), &attributes) == 0) return static_cast<int64_t>(attributes.st_size);
    if (errno != ENOENT) error = errnoText("cannot read the attributes of", path);
    return std::nullopt;
}

namespace {

// "20261123T104652Z": sortable, and free of characters that need quoting.
std::string utcStamp() {
    using namespace std::chrono;
    const auto now = floor<seconds>(system_clock::now());
    const year_month_day date{floor<days>(now)};
    const hh_mm_ss time{now - floor<days>(now)};
    char text[32];
    std::snprintf(text, sizeof text, "%04d%02u%02uT%02ld%02ld%02ldZ", int(date.year()),
                  unsigned(date.month()), unsigned(date.day()), long(time.hours().count()),
                  long(time.minutes().count()), long(time.seconds().count()));
    return text;
}

}  // namespace

std::optional<std::string> moveItemAside(const std::string& path, std::string& error) {
    namespace fs = std::filesystem;
    error.clear();
    const std::string base = path + ".damaged-" + utcStamp();
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string aside = attempt == 0 ? base : base + "-" + std::to_string(attempt);
        // renameat2 with RENAME_NOREPLACE would say the same in one call, but
        // not every file system has it; link+unlink cannot move a folder.
        std::error_code failure;
        if (fs::exists(fs::symlink_status(aside, failure))) continue;
        fs::rename(path, aside, failure);
        if (!failure) {
            StorageEvents::report(StorageEvents::Kind::MovedAside,
                                  "moved " + path + " aside to " + aside);
            return aside;
        }
        // Gone meanwhile: nothing in the way.
        if (failure == std::errc::no_such_file_or_directory) return std::nullopt;
        error = "cannot move aside " + path + ": " + failure.message();
        return std::nullopt;
    }
    error = "cannot move aside " + path + ": no free name";
    return std::nullopt;
}

}  // namespace stonewall::platform
