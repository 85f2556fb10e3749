#pragma once

// Fetching a filter list by its address (http, https or file URL), with the
// conditional request of a list fetched before. Declared here, implemented
// with libsoup and GIO in linux/SoupDownloader.cpp; only the command uses it.

#include <cstddef>
#include <memory>
#include <string>

namespace stonewall::platform {

struct DownloadRequest {
    std::string url;
    // From the last answer; empty when there was none. Sent as If-None-Match
    // and If-Modified-Since.
    std::string etag;
    std::string lastModified;
    // A body past this many bytes is refused (and not kept in memory).
    size_t maximumBytes = 32 * 1024 * 1024;
};

struct DownloadResult {
    enum class Outcome {
        Downloaded,   // a whole body (HTTP 200, or a file)
        NotModified,  // HTTP 304: the list is as it was
        Failed,       // `error` says why; `body` is empty
    };
    Outcome outcome = Outcome::Failed;
    int status = 0;  // the HTTP status; 0 for a file or when none came
    std::string body;
    std::string etag;
    std::string lastModified;
    std::string error;
};

// Seconds allowed to connect (and for any one read or write), and for the
// whole download.
struct DownloadTimeouts {
    double connectSeconds = 15;
    double totalSeconds = 60;
};

class Downloader {
  public:
    virtual ~Downloader() = default;
    // Blocks until the download ended, failed or ran out of time.
    [[nodiscard]] virtual DownloadResult download(const DownloadRequest& request) = 0;
};

}  // namespace stonewall::platform
