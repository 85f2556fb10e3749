#include "storage/FileHandler.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <utility>

#include "platform/FileSystem.h"
#include "platform/Platform.h"
#include "platform/StorageEvents.h"

namespace stonewall {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kApplicationSupportFolder = "Stonewall";

// Joins like a path-component append: exactly one "/" between the parts, a
// leading "/" of the name does not make it absolute. An empty directory gives
// an empty path, so that a handler for an unknown location never reaches
// files relative to the working directory.
std::string joinPath(std::string_view directory, std::string_view name) {
    if (directory.empty()) return {};
    while (!name.empty() && name.front() == '/') name.remove_prefix(1);
    std::string joined(directory);
    if (name.empty()) return joined;
    if (joined.back() != '/') joined.push_back('/');
    joined.append(name);
    return joined;
}

std::string errnoText(const char* what, const std::string& path) {
    return std::string(what) + " " + path + ": " + std::strerror(errno);
}

bool exists(const std::string& path) {
    if (path.empty()) return false;
    std::error_code error;
    return fs::symlink_status(path, error).type() != fs::file_type::not_found && !error;
}

bool isRegularFile(const std::string& path) {
    std::error_code error;
    return !path.empty() && fs::is_regular_file(path, error);
}

void removeItem(const std::string& path) {
    if (!exists(path)) return;
    std::error_code error;
    fs::remove_all(path, error);
    if (error) FileHandler::logError("cannot remove " + path + ": " + error.message());
}

bool isDirectory(const std::string& path) {
    std::error_code error;
    return !path.empty() && fs::is_directory(fs::symlink_status(path, error));
}

NullableString moveItemAside(const std::string& path) {
    std::string error;
    NullableString aside = platform::moveItemAside(path, error);
    if (!error.empty()) FileHandler::logError(error);
    return aside;
}

std::optional<Data> readWholeFile(const std::string& path) {
    if (!isRegularFile(path)) return std::nullopt;
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        FileHandler::logError("cannot open " + path);
        return std::nullopt;
    }
    Data bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) {
        FileHandler::logError("cannot read " + path);
        return std::nullopt;
    }
    return bytes;
}

// Writes a complete new file at `path` (see platform::writeFileAtomically);
// on any failure the old file stays whole and false is returned.
bool writeAtomically(const std::string& path, const DataProducer& produce) {
    const auto result = platform::writeFileAtomically(path, produce, platform::FileNaming::Replace);
    if (!result.error.empty()) FileHandler::logError(result.error);
    return result.done;
}

// Creates `path` with the bytes unless something is there already. Several
// processes may race to create the same database from its template: exactly
// one wins, and nobody's file is ever replaced by a fresh copy. True when the
// file is there afterwards, made by us or by another process.
bool createAtomically(const std::string& path, std::string_view data) {
    if (path.empty()) return false;
    const auto result = platform::writeFileAtomically(
        path, [data](const DataSink& sink) { return sink(data); },
        platform::FileNaming::CreateOnly);
    if (!result.error.empty()) FileHandler::logError(result.error);
    return result.done || result.nameTaken;
}

bool writeAtomically(const std::string& path, std::string_view data) {
    return writeAtomically(path, [data](const DataSink& sink) { return sink(data); });
}

std::string lowercase(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return result;
}

struct MIMEEntry {
    std::string_view extension;
    std::string_view type;
};

// The extensions the product's files and common downloads use; anything else
// has no known type, as with a type registry that does not know it.
constexpr std::array<MIMEEntry, 26> kMIMETypes{{
    {"json", "application/json"},
    {"txt", "text/plain"},
    {"text", "text/plain"},
    {"html", "text/html"},
    {"htm", "text/html"},
    {"css", "text/css"},
    {"js", "text/javascript"},
    {"xml", "application/xml"},
    {"plist", "application/x-plist"},
    {"csv", "text/csv"},
    {"png", "image/png"},
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"gif", "image/gif"},
    {"svg", "image/svg+xml"},
    {"webp", "image/webp"},
    {"ico", "image/vnd.microsoft.icon"},
    {"pdf", "application/pdf"},
    {"zip", "application/zip"},
    {"gz", "application/gzip"},
    {"sqlite", "application/vnd.sqlite3"},
    {"sqlite3", "application/vnd.sqlite3"},
    {"db", "application/vnd.sqlite3"},
    {"mp4", "video/mp4"},
    {"mp3", "audio/mpeg"},
    {"wasm", "application/wasm"},
}};

std::string baseDirectory(platform::SearchPathDirectory which, std::string_view fallbackName) {
    auto& host = platform::host();
    if (auto directory = host.userDirectory(which); directory && !directory->empty()) {
        return *directory;
    }
    return joinPath(host.homeDirectory(), fallbackName);
}

// A copy goes through a temporary file as well, so an interrupted copy never
// leaves a half template where a database is expected.
bool copyItem(const std::string& from, const std::string& to) {
    std::error_code error;
    const auto status = fs::status(from, error);
    if (error || status.type() == fs::file_type::not_found) {
        FileHandler::logError("cannot copy " + from + ": no such item");
        return false;
    }
    if (fs::is_directory(status)) {
        fs::copy(from, to, fs::copy_options::recursive, error);
        if (error) FileHandler::logError("cannot copy " + from + ": " + error.message());
        return !error;
    }
    auto bytes = readWholeFile(from);
    if (!bytes) {
        FileHandler::logError("cannot copy " + from + ": unreadable");
        return false;
    }
    return writeAtomically(to, *bytes);
}

}  // namespace

// --- Initialisers ------------------------------------------------------------

FileHandler FileHandler::initWithLocation(int64_t location) {
    FileHandler handler;
    switch (location) {
        case FileLocation::kDocuments:
            handler.path_ = applicationDocumentsDirectory();
            break;
        case FileLocation::kCaches:
            handler.path_ = applicationCachesDirectory();
            break;
        case FileLocation::kApplicationSupport:
            handler.path_ = applicationApplicationSupportDirectory();
            break;
        default:
            break;
    }
    return handler;
}

FileHandler FileHandler::initWithName(const std::string& name, int64_t fileLocation) {
    FileHandler handler;
    handler.path_ = getDirectoryPath(name, fileLocation);
    return handler;
}

FileHandler FileHandler::initWithNameAndGroup(const std::string& name,
                                              const std::string& groupName) {
    FileHandler handler;
    handler.path_ = getDirectoryPathGroup(name, groupName);
    return handler;
}

// --- Directories -------------------------------------------------------------

std::string FileHandler::getDirectoryPath(const std::string& name, int64_t fileLocation) {
    const NullableString base = initWithLocation(fileLocation).path();
    if (!base || base->empty()) return {};
    std::string directory = joinPath(*base, name);
    if (!exists(directory)) {
        std::error_code error;
        fs::create_directory(directory, error);
        if (error) logError("cannot create " + directory + ": " + error.message());
    }
    return directory;
}

std::string FileHandler::getDirectoryPathGroup(const std::string& name,
                                               const std::string& groupName) {
    const auto container = platform::host().containerPathForApplicationGroup(groupName);
    if (!container || container->empty()) {
        logError("no container for the application group " + groupName);
        return {};
    }
    // The host makes a group's container on first use; here that is our job.
    std::error_code error;
    if (!exists(*container)) {
        fs::create_directories(*container, error);
        if (error) logError("cannot create " + *container + ": " + error.message());
    }
    std::string directory = joinPath(*container, name);
    if (!exists(directory)) {
        fs::create_directory(directory, error);
        if (error) logError("cannot create " + directory + ": " + error.message());
    }
    return directory;
}

std::string FileHandler::applicationDocumentsDirectory() {
    return baseDirectory(platform::SearchPathDirectory::Documents, "Documents");
}

std::string FileHandler::applicationCachesDirectory() {
    return baseDirectory(platform::SearchPathDirectory::Caches, "Caches");
}

std::string FileHandler::applicationApplicationSupportDirectory() {
    auto& host = platform::host();
    if (auto directory = host.userDirectory(platform::SearchPathDirectory::ApplicationSupport);
        directory && !directory->empty()) {
        std::string path = joinPath(*directory, kApplicationSupportFolder);
        std::error_code error;
        fs::create_directories(path, error);  // errors ignored: later operations report them
        return path;
    }
    // The fallback is not created: without a configuration folder we do not
    // invent one in the home directory.
    return joinPath(joinPath(host.homeDirectory(), "Application Support"),
                    kApplicationSupportFolder);
}

// --- Names inside path -------------------------------------------------------

std::string FileHandler::getFilePath(const std::string& name) const {
    return joinPath(path_.value_or(std::string()), name);
}

bool FileHandler::fileExists(const std::string& name) const { return exists(getFilePath(name)); }

bool FileHandler::fileIsFolder(const std::string& name) const {
    return isDirectory(getFilePath(name));
}

int64_t FileHandler::fileSize(const NullableString& name) const {
    const std::string target = name ? getFilePath(*name) : path_.value_or(std::string());
    if (target.empty()) return 0;
    std::string error;
    const auto size = platform::itemSize(target, error);
    if (!error.empty()) logError(error);
    return size.value_or(0);
}

NullableString FileHandler::fileMIMEType(const std::string& name) const {
    const std::string file = fs::path(name).filename().string();
    const auto dot = file.rfind('.');
    // A leading dot marks a hidden file, not an extension.
    if (dot == std::string::npos || dot == 0 || dot + 1 == file.size()) return std::nullopt;
    const std::string extension = lowercase(std::string_view(file).substr(dot + 1));
    for (const auto& entry : kMIMETypes) {
        if (entry.extension == extension) return std::string(entry.type);
    }
    return std::nullopt;
}

void FileHandler::createFile(const std::string& name) const {
    const std::string target = getFilePath(name);
    if (target.empty()) {
        logError("createFile: no directory");
        return;
    }
    // Like the platform's createFile with no contents: an existing file is
    // emptied.
    std::ofstream file(target, std::ios::binary | std::ios::trunc);
    if (!file) logError(errnoText("cannot create", target));
}

void FileHandler::createDirectory(const std::string& name) const {
    const std::string target = getFilePath(name);
    if (target.empty()) {
        logError("createDirectory: no directory");
        return;
    }
    std::error_code error;
    fs::create_directory(target, error);
    if (error) logError("cannot create " + target + ": " + error.message());
}

bool FileHandler::writeToFile(const std::string& name, std::optional<std::string_view> data) const {
    const std::string target = getFilePath(name);
    if (target.empty()) {
        logError("writeToFile: no directory");
        return false;
    }
    if (!data) {
        removeFile(name);
        return false;
    }
    // Never removed first: a failed write keeps the old file whole.
    if (isDirectory(target) && !moveItemAside(target)) return false;
    return writeAtomically(target, *data);
}

bool FileHandler::writeToURL(const std::string& name, std::optional<std::string_view> data) const {
    return writeToFile(name, data);
}

bool FileHandler::writeToURL(const std::string& name, const DataProducer& produce) const {
    const std::string target = getFilePath(name);
    if (target.empty()) {
        logError("writeToURL: no directory");
        return false;
    }
    // The old file stays whole until the new one is complete, however long
    // making it takes.
    if (isDirectory(target) && !moveItemAside(target)) return false;
    return writeAtomically(target, produce);
}

std::optional<Data> FileHandler::readFromFile(const std::string& name) const {
    return readWholeFile(getFilePath(name));
}

std::optional<Data> FileHandler::readFromFilePath(const std::string& path) {
    return readWholeFile(path);
}

void FileHandler::copyFile(const std::string& name, const std::string& fromPath) const {
    const std::string target = getFilePath(name);
    if (target.empty()) {
        logError("copyFile: no directory");
        return;
    }
    if (isDirectory(target)) {
        // A folder holds the user's files: kept, under another name.
        if (!moveItemAside(target)) return;
    } else {
        removeItem(target);
    }
    copyItem(fromPath, target);
}

bool FileHandler::createFileFromPath(const std::string& name, const std::string& fromPath) const {
    const std::string target = getFilePath(name);
    if (target.empty()) {
        logError("createFileFromPath: no directory");
        return false;
    }
    if (isDirectory(target) && !moveItemAside(target)) return false;
    const auto bytes = readWholeFile(fromPath);
    if (!bytes) {
        logError("cannot copy " + fromPath + ": unreadable");
        return false;
    }
    return createAtomically(target, *bytes);
}

NullableString FileHandler::moveAside(const std::string& name) const {
    const std::string target = getFilePath(name);
    if (target.empty() || !exists(target)) return std::nullopt;
    return moveItemAside(target);
}

void FileHandler::removeFile(const std::string& name) const {
    const std::string target = getFilePath(name);
    if (target.empty()) return;
    removeItem(target);
}

void FileHandler::remove() const {
    if (!path_ || path_->empty()) return;
    removeItem(*path_);
}

// --- Archive -----------------------------------------------------------------

// The archive is a JSON object of booleans: readable by people, and any other
// value shape marks the file as not ours.
void FileHandler::archiveData(const std::string& name, const Archive& data) const {
    const std::string target = getFilePath(name);
    if (target.empty()) {
        logError("archiveData: no directory");
        return;
    }
    nlohmann::json object = nlohmann::json::object();
    for (const auto& [key, value] : data) object[key] = value;
    std::string text;
    try {
        text = object.dump();
    } catch (const std::exception& exception) {  // a key that is not UTF-8
        logError(std::string("cannot encode the archive ") + target + ": " + exception.what());
        return;
    }
    // The rename creates the file when it is missing; creating an empty file
    // first would leave an undecodable one behind if the write then failed.
    writeAtomically(target, text);
}

std::optional<Archive> FileHandler::unarchiveData(const std::string& name) const {
    const auto bytes = readFromFile(name);
    if (!bytes) return std::nullopt;
    const nlohmann::json object =
        nlohmann::json::parse(*bytes, nullptr, /*allow_exceptions=*/false);
    if (!object.is_object()) {
        logError("cannot decode the archive " + getFilePath(name));
        return std::nullopt;
    }
    Archive archive;
    for (const auto& [key, value] : object.items()) {
        if (!value.is_boolean()) {
            logError("cannot decode the archive " + getFilePath(name) + ": key " + key);
            return std::nullopt;
        }
        archive[key] = value.get<bool>();
    }
    return archive;
}

// Linux has no per-file backup exclusion that backup tools agree on; the
// operation only checks that the item is there, so that a wrong path still
// shows in the log.
void FileHandler::addSkipBackupAttributeToPath(const std::string& path) {
    if (!exists(path)) logError("addSkipBackupAttributeToPath: no item at " + path);
}

// --- Whole paths -------------------------------------------------------------

void FileHandler::moveFileFromURL(const std::string& from, const std::string& to) {
    if (from.empty() || to.empty()) {
        logError("moveFileFromURL: empty path");
        return;
    }
    removeItem(to);
    std::error_code error;
    fs::rename(from, to, error);
    if (error == std::errc::cross_device_link) {
        if (copyItem(from, to)) removeItem(from);
        return;
    }
    if (error) logError("cannot move " + from + " to " + to + ": " + error.message());
}

void FileHandler::copyFileFromURL(const std::string& from, const std::string& to) {
    if (from.empty() || to.empty()) {
        logError("copyFileFromURL: empty path");
        return;
    }
    removeItem(to);
    copyItem(from, to);
}

bool FileHandler::writeToURL(const std::string& url, std::optional<std::string_view> data,
                             bool /*extensionHidden*/) {
    if (url.empty()) {
        logError("writeToURL: empty path");
        return false;
    }
    removeItem(url);
    if (!data) return false;
    return writeAtomically(url, *data);
}

std::optional<Data> FileHandler::readFromURL(const std::string& url) { return readWholeFile(url); }

std::FILE* FileHandler::fileHandleForReadingURL(const std::string& url) {
    if (url.empty()) return nullptr;
    std::FILE* file = std::fopen(url.c_str(), "rb");
    if (!file) logError(errnoText("cannot open", url));
    return file;
}

void FileHandler::logError(std::string_view message) {
    StorageEvents::reportFailure("FileHandler", message);
}

}  // namespace stonewall
