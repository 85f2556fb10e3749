#include "platform/linux/CompiledRuleListCache.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/linux/WebKitContentBlockerManager.h"

namespace stonewall::platform::gnulinux {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using Manager = WebKitContentBlockerManager;

// WebKit's file name for the list of an identifier (of the characters we
// allow, none needs escaping). The tests check that WebKit still writes it.
constexpr char kListFilePrefix[] = "ContentRuleList-";
constexpr size_t kKeyDigits = 32;
// A file of ours that no index lists is a leftover of a process that died
// between its compile and its index update, unless it is that recent.
constexpr auto kUnlistedGrace = std::chrono::hours(1);

Error storeError(const std::string& what, const std::error_code& error) {
    return Error{Manager::kErrorDomain, Manager::kStoreUnusable, what + ": " + error.message()};
}

// What identifies the WebKit library file: a package upgrade replaces the
// file behind the path, which changes all of these.
struct LibraryStamp {
    std::string path;
    uintmax_t device = 0;
    uintmax_t inode = 0;
    uintmax_t size = 0;
    int64_t modified = 0;  // ns
    bool operator==(const LibraryStamp&) const = default;
};

std::optional<LibraryStamp> stampOf(const std::string& path) {
    struct stat info {};
    if (path.empty() || ::stat(path.c_str(), &info) != 0) return std::nullopt;
    return LibraryStamp{path, static_cast<uintmax_t>(info.st_dev),
                        static_cast<uintmax_t>(info.st_ino), static_cast<uintmax_t>(info.st_size),
                        int64_t{info.st_mtim.tv_sec} * 1000000000 + info.st_mtim.tv_nsec};
}

// One compiled list: its name ("<identifier>.<key>") and what its file held
// when it was made, so that a file cut short or put there by something else
// (another WebKit's compile, a copy) is never served.
struct Entry {
    std::string name;
    uintmax_t size = 0;
    std::string digest;  // SHA-256 of the file, hex
    bool operator==(const Entry& other) const { return name == other.name; }
};

struct Index {
    std::optional<LibraryStamp> library;
    std::vector<Entry> entries;  // last used first
};

bool isUsableIdentifier(const std::string& identifier) {
    return !identifier.empty() && identifier != "." && identifier != ".." &&
           std::all_of(identifier.begin(), identifier.end(), [](unsigned char c) {
               // ASCII only, whatever the locale: it becomes a file name.
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '.' || c == '-' || c == '_';
           });
}

// "<identifier>.<32 hex digits>": one file name inside the cache folder,
// whatever an index written by someone else says.
bool isEntryName(const std::string& name) {
    if (name.size() <= kKeyDigits + 1 || name[name.size() - kKeyDigits - 1] != '.') return false;
    const std::string key = name.substr(name.size() - kKeyDigits);
    return isUsableIdentifier(name.substr(0, name.size() - kKeyDigits - 1)) &&
           std::all_of(key.begin(), key.end(), [](unsigned char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

// The size and SHA-256 of a regular file (never through a link); nullopt
// for anything else or a read error.
std::optional<std::pair<uintmax_t, std::string>> fileDigest(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    struct stat info {};
    std::optional<std::pair<uintmax_t, std::string>> result;
    if (::fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
        GChecksum* checksum = g_checksum_new(G_CHECKSUM_SHA256);
        char buffer[1 << 16];
        uintmax_t size = 0;
        ssize_t got;
        while ((got = ::read(fd, buffer, sizeof buffer)) > 0 || (got < 0 && errno == EINTR)) {
            if (got < 0) continue;
            g_checksum_update(checksum, reinterpret_cast<const guchar*>(buffer),
                              static_cast<gssize>(got));
            size += static_cast<uintmax_t>(got);
        }
        if (got == 0) result.emplace(size, g_checksum_get_string(checksum));
        g_checksum_free(checksum);
    }
    ::close(fd);
    return result;
}

// The entry of that name, or end().
template <typename Entries>
auto findEntry(Entries& entries, const std::string& name) {
    return std::find_if(entries.begin(), entries.end(),
                        [&](const Entry& listed) { return listed.name == name; });
}

// A missing or damaged index is an empty one: at worst a list is compiled
// again. So is one that names anything but entries of this folder.
Index readIndex(const fs::path& path) {
    Index index;
    std::ifstream in(path, std::ios::binary);
    if (!in) return index;
    const Json json = Json::parse(in, nullptr, /*allow_exceptions=*/false);
    if (!json.is_object()) return index;
    try {
        if (const auto library = json.find("webkitLibrary"); library != json.end()) {
            index.library = LibraryStamp{
                library->at("path").get<std::string>(), library->at("device").get<uintmax_t>(),
                library->at("inode").get<uintmax_t>(),  library->at("size").get<uintmax_t>(),
                library->at("modified").get<int64_t>(),
            };
        }
        for (const auto& entry : json.at("entries")) {
            Entry read{entry.at("name").get<std::string>(), entry.at("size").get<uintmax_t>(),
                       entry.at("sha256").get<std::string>()};
            if (!isEntryName(read.name)) return Index{};
            index.entries.push_back(std::move(read));
        }
    } catch (const Json::exception&) {
        return Index{};
    }
    return index;
}

bool writeIndex(const fs::path& path, const Index& index) {
    Json json = Json::object();
    if (index.library) {
        json["webkitLibrary"] = {{"path", index.library->path},
                                 {"device", index.library->device},
                                 {"inode", index.library->inode},
                                 {"size", index.library->size},
                                 {"modified", index.library->modified}};
    }
    json["entries"] = Json::array();
    for (const Entry& entry : index.entries) {
        json["entries"].push_back(
            {{"name", entry.name}, {"size", entry.size}, {"sha256", entry.digest}});
    }
    const fs::path temporary = path.string() + ".tmp";
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << json.dump();
        if (!out.flush()) return false;
    }
    std::error_code error;
    fs::rename(temporary, path, error);
    return !error;
}

// An exclusive flock for the lifetime of the object; without a lock file
// (read-only store) it does nothing, and the writes after it fail anyway.
class IndexLock {
  public:
    explicit IndexLock(const fs::path& path)
        : fd_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
        if (fd_ < 0) return;
        while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    ~IndexLock() {
        if (fd_ >= 0) ::close(fd_);
    }
    IndexLock(const IndexLock&) = delete;
    IndexLock& operator=(const IndexLock&) = delete;

  private:
    int fd_;
};

}  // namespace

CompiledRuleListCache::CompiledRuleListCache(std::string storePath, Compiler compiler,
                                             LibraryPath libraryPath, Limits limits)
    : storePath_(std::move(storePath)),
      cachePath_((fs::path(storePath_) / ".cache").string()),
      compiler_(std::move(compiler)),
      libraryPath_(std::move(libraryPath)),
      limits_(limits) {}

std::string CompiledRuleListCache::contentKey(std::string_view source) {
    // SHA-256 in lower-case hex digits, of which the key keeps the first.
    gchar* digest = g_compute_checksum_for_data(
        G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(source.data()), source.size());
    std::string key(digest ? digest : "", 0, kKeyDigits);
    g_free(digest);
    return key;
}

std::string CompiledRuleListCache::currentListPath(const std::string& identifier) const {
    return (fs::path(storePath_) / (kListFilePrefix + identifier)).string();
}

std::string CompiledRuleListCache::entryPath(const std::string& identifier,
                                             std::string_view source) const {
    return keyedEntryPath(identifier, contentKey(source));
}

std::string CompiledRuleListCache::keyedEntryPath(const std::string& identifier,
                                                  const std::string& key) const {
    return (fs::path(cachePath_) / (kListFilePrefix + identifier + "." + key)).string();
}

bool CompiledRuleListCache::isCurrent(const std::string& identifier, const std::string& key) const {
    std::error_code error;
    return !key.empty() &&
           fs::equivalent(currentListPath(identifier), keyedEntryPath(identifier, key), error);
}

CompiledRuleListCache::Outcome CompiledRuleListCache::install(const std::string& identifier,
                                                              std::string_view source) {
    if (!isUsableIdentifier(identifier)) {
        return {Error{Manager::kErrorDomain, Manager::kUnknownIdentifier,
                      "\"" + identifier + "\" cannot name a compiled rule list."},
                false};
    }
    std::error_code error;
    // The cache folder is ours alone: anything else in its place (a file, a
    // link that would lead the pruning below elsewhere) is moved aside.
    if (const auto status = fs::symlink_status(cachePath_, error);
        !error && fs::exists(status) && !fs::is_directory(status)) {
        std::string moveError;
        (void)moveItemAside(cachePath_, moveError);
        if (!moveError.empty()) {
            return {Error{Manager::kErrorDomain, Manager::kStoreUnusable, moveError}};
        }
    }
    error.clear();
    fs::create_directories(cachePath_, error);
    if (error) return {storeError("The rule-list store " + cachePath_ + " cannot be made", error)};

    const std::string key = contentKey(source);
    const std::string entry = identifier + "." + key;
    const fs::path entryFile = keyedEntryPath(identifier, key);
    const fs::path indexFile = fs::path(cachePath_) / "index.json";
    const fs::path lockFile = fs::path(cachePath_) / "index.lock";
    const fs::path current = currentListPath(identifier);

    // Under the lock: the entry becomes the current list by a link renamed
    // over the old one, so a browser loading meanwhile gets the old list or
    // the new one, whole.
    auto makeCurrent = [&]() -> std::optional<Error> {
        std::error_code failure;
        if (fs::equivalent(entryFile, current, failure)) return std::nullopt;
        const fs::path temporary = fs::path(cachePath_) / (".current-" + identifier);
        fs::remove(temporary, failure);
        fs::create_hard_link(entryFile, temporary, failure);
        if (failure) {
            failure.clear();
            fs::copy_file(entryFile, temporary, failure);
        }
        if (!failure) fs::rename(temporary, current, failure);
        if (failure) {
            std::error_code ignored;
            fs::remove(temporary, ignored);
            return storeError("The compiled rule list " + current.string() + " cannot be replaced",
                              failure);
        }
        return std::nullopt;
    };
    auto markUsed = [&](Index& index, Entry used) {
        index.entries.erase(std::remove(index.entries.begin(), index.entries.end(), used),
                            index.entries.end());
        index.entries.insert(index.entries.begin(), std::move(used));
    };

    {
        IndexLock lock(lockFile);
        Index index = readIndex(indexFile);
        const bool sameLibrary = index.library && stampOf(index.library->path) == index.library;
        if (const auto listed = findEntry(index.entries, entry);
            sameLibrary && listed != index.entries.end()) {
            // The file must still be what was compiled: cut short, or swapped
            // for another compile, it is dropped and compiled anew.
            const auto digest = fileDigest(entryFile);
            if (digest && digest->first == listed->size && digest->second == listed->digest) {
                markUsed(index, *listed);
                (void)writeIndex(indexFile, index);  // only the order of use is lost
                return {makeCurrent(), false, key};
            }
            index.entries.erase(listed);
            std::error_code ignored;
            fs::remove(entryFile, ignored);
            (void)writeIndex(indexFile, index);
        }
    }

    if (auto failure = compiler_(cachePath_, entry, source)) return {std::move(failure), true};
    const auto compiled = fileDigest(entryFile);
    if (!compiled) {
        return {Error{Manager::kErrorDomain, Manager::kStoreUnusable,
                      "The compiled rule list " + entryFile.string() + " cannot be read back."},
                true};
    }

    IndexLock lock(lockFile);
    Index index = readIndex(indexFile);
    const std::vector<Entry> listed = index.entries;
    const std::optional<LibraryStamp> library = stampOf(libraryPath_());
    if (!index.library || index.library != library) index.entries.clear();
    index.library = library;
    markUsed(index, Entry{entry, compiled->first, compiled->second});

    // Keep the most recently used entries within the limits; the new one
    // always stays.
    std::vector<Entry> kept;
    uintmax_t bytes = 0;
    for (const Entry& candidate : index.entries) {
        if (candidate.name != entry &&
            (kept.size() >= limits_.entries || bytes + candidate.size > limits_.bytes)) {
            continue;
        }
        kept.push_back(candidate);
        bytes += candidate.size;
    }
    index.entries = kept;

    // Entries dropped from the index go; files that no index listed go only
    // when old, since another process may have just compiled one.
    auto contains = [](const std::vector<Entry>& entries, const std::string& name) {
        return findEntry(entries, name) != entries.end();
    };
    const auto now = fs::file_time_type::clock::now();
    for (fs::directory_iterator it(cachePath_, error), end; !error && it != end;
         it.increment(error)) {
        const std::string fileName = it->path().filename().string();
        if (fileName.rfind(kListFilePrefix, 0) != 0) continue;
        const std::string name = fileName.substr(sizeof kListFilePrefix - 1);
        if (contains(kept, name)) continue;
        if (!contains(listed, name)) {
            std::error_code timeError;
            const auto status = it->symlink_status(timeError);
            const auto modified = fs::last_write_time(it->path(), timeError);
            if (!fs::is_symlink(status) && (timeError || now - modified < kUnlistedGrace)) {
                continue;
            }
        }
        std::error_code ignored;
        fs::remove(it->path(), ignored);
    }
    (void)writeIndex(indexFile, index);
    return {makeCurrent(), true, key};
}

}  // namespace stonewall::platform::gnulinux
