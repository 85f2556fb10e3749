#include "platform/linux/SoupDownloader.h"

#include <gio/gio.h>
#include <libsoup/soup.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <thread>

#include "platform/Platform.h"

namespace stonewall::platform::gnulinux {
namespace {

template <typename T>
struct GObjectRef {
    T* object = nullptr;
    ~GObjectRef() {
        if (object) g_object_unref(object);
    }
};

struct GErrorRef {
    GError* error = nullptr;
    ~GErrorRef() {
        if (error) g_error_free(error);
    }
    std::string message() const { return error ? error->message : "unknown error"; }
};

double secondsFromEnvironment(const char* name, double fallback) {
    const char* value = std::getenv(name);
    if (!value || !*value) return fallback;
    char* end = nullptr;
    const double seconds = std::strtod(value, &end);
    if (end == value || *end != '\0' || !(seconds > 0) || seconds > 86400) {
        platform::log(LogLevel::Error, std::string(name) + ": not a number of seconds (\"" + value +
                                           "\"); the default stays");
        return fallback;
    }
    return seconds;
}

// Cancels the download once it has run `seconds`, unless it ended before.
class Deadline {
  public:
    Deadline(GCancellable* cancellable, double seconds)
        : thread_([this, cancellable, seconds] {
              std::unique_lock lock(mutex_);
              if (!ended_.wait_for(lock, std::chrono::duration<double>(seconds),
                                   [this] { return done_; })) {
                  expired_ = true;
                  g_cancellable_cancel(cancellable);
              }
          }) {}
    ~Deadline() {
        {
            std::lock_guard lock(mutex_);
            done_ = true;
        }
        ended_.notify_all();
        thread_.join();
    }
    bool expired() {
        std::lock_guard lock(mutex_);
        return expired_;
    }

  private:
    std::mutex mutex_;
    std::condition_variable ended_;
    bool done_ = false;
    bool expired_ = false;
    std::thread thread_;
};

std::string sizeText(size_t bytes) { return std::to_string(bytes / (1024 * 1024)) + " MiB"; }

// Reads the whole stream into the result, within the limit.
void readBody(GInputStream* stream, GCancellable* cancellable, const DownloadRequest& request,
              Deadline& deadline, DownloadResult& result) {
    std::string body;
    char buffer[64 * 1024];
    for (;;) {
        GErrorRef error;
        const gssize got =
            g_input_stream_read(stream, buffer, sizeof buffer, cancellable, &error.error);
        if (got < 0) {
            result.error = deadline.expired() ? "the download took too long"
                                              : "connection dropped: " + error.message();
            return;
        }
        if (got == 0) break;
        if (body.size() + static_cast<size_t>(got) > request.maximumBytes) {
            result.error = "body too large (over " + sizeText(request.maximumBytes) + ")";
            return;
        }
        body.append(buffer, static_cast<size_t>(got));
    }
    result.body = std::move(body);
    result.outcome = DownloadResult::Outcome::Downloaded;
}

class SoupDownloader final : public Downloader {
  public:
    explicit SoupDownloader(DownloadTimeouts timeouts) : timeouts_(timeouts) {}

    DownloadResult download(const DownloadRequest& request) override {
        DownloadResult result;
        GObjectRef<GCancellable> cancellable{g_cancellable_new()};
        Deadline deadline(cancellable.object, timeouts_.totalSeconds);
        if (std::string_view(request.url).starts_with("file:")) {
            GObjectRef<GFile> file{g_file_new_for_uri(request.url.c_str())};
            GErrorRef error;
            GObjectRef<GFileInputStream> stream{
                g_file_read(file.object, cancellable.object, &error.error)};
            if (!stream.object) {
                result.error = "cannot be read: " + error.message();
                return result;
            }
            readBody(G_INPUT_STREAM(stream.object), cancellable.object, request, deadline, result);
            return result;
        }

        const auto seconds = static_cast<guint>(std::max(1.0, timeouts_.connectSeconds));
        GObjectRef<SoupSession> session{
            soup_session_new_with_options("timeout", seconds, "user-agent", "stonewall", nullptr)};
        GObjectRef<SoupMessage> message{soup_message_new("GET", request.url.c_str())};
        if (!message.object) {
            result.error = "not a URL that can be downloaded";
            return result;
        }
        SoupMessageHeaders* headers = soup_message_get_request_headers(message.object);
        if (!request.etag.empty()) {
            soup_message_headers_replace(headers, "If-None-Match", request.etag.c_str());
        }
        if (!request.lastModified.empty()) {
            soup_message_headers_replace(headers, "If-Modified-Since",
                                         request.lastModified.c_str());
        }
        GErrorRef error;
        GObjectRef<GInputStream> stream{
            soup_session_send(session.object, message.object, cancellable.object, &error.error)};
        if (!stream.object) {
            result.error =
                deadline.expired() ? "the download took too long" : "no answer: " + error.message();
            return result;
        }
        result.status = static_cast<int>(soup_message_get_status(message.object));
        SoupMessageHeaders* answer = soup_message_get_response_headers(message.object);
        if (const char* etag = soup_message_headers_get_one(answer, "ETag")) result.etag = etag;
        if (const char* modified = soup_message_headers_get_one(answer, "Last-Modified")) {
            result.lastModified = modified;
        }
        if (result.status == SOUP_STATUS_NOT_MODIFIED) {
            result.outcome = DownloadResult::Outcome::NotModified;
            return result;
        }
        if (result.status != SOUP_STATUS_OK) {
            const char* phrase = soup_message_get_reason_phrase(message.object);
            result.error = "HTTP " + std::to_string(result.status) +
                           (phrase && *phrase ? std::string(" ") + phrase : std::string());
            return result;
        }
        if (soup_message_headers_get_encoding(answer) == SOUP_ENCODING_CONTENT_LENGTH &&
            static_cast<uint64_t>(soup_message_headers_get_content_length(answer)) >
                request.maximumBytes) {
            result.error = "body too large (over " + sizeText(request.maximumBytes) + ")";
            return result;
        }
        readBody(stream.object, cancellable.object, request, deadline, result);
        // A connection closed before the promised length is not always
        // reported by the stream; a cut list must never pass for a whole one.
        const char* encoding = soup_message_headers_get_one(answer, "Content-Encoding");
        if (result.outcome == DownloadResult::Outcome::Downloaded &&
            soup_message_headers_get_encoding(answer) == SOUP_ENCODING_CONTENT_LENGTH &&
            (!encoding || g_ascii_strcasecmp(encoding, "identity") == 0)) {
            const auto promised =
                static_cast<uint64_t>(soup_message_headers_get_content_length(answer));
            if (result.body.size() != promised) {
                result.error = "connection dropped after " + std::to_string(result.body.size()) +
                               " of " + std::to_string(promised) + " bytes";
                result.body.clear();
                result.outcome = DownloadResult::Outcome::Failed;
            }
        }
        return result;
    }

  private:
    DownloadTimeouts timeouts_;
};

}  // namespace

DownloadTimeouts downloadTimeoutsFromEnvironment() {
    DownloadTimeouts timeouts;
    timeouts.connectSeconds =
        secondsFromEnvironment("STONEWALL_CONNECT_TIMEOUT", timeouts.connectSeconds);
    timeouts.totalSeconds =
        secondsFromEnvironment("STONEWALL_DOWNLOAD_TIMEOUT", timeouts.totalSeconds);
    return timeouts;
}

std::unique_ptr<Downloader> makeSoupDownloader(DownloadTimeouts timeouts) {
    return std::make_unique<SoupDownloader>(timeouts);
}

}  // namespace stonewall::platform::gnulinux
