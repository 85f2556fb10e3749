#pragma once

// What the browser's end-to-end tests run against: a tiny HTTP server on
// 127.0.0.1 that records every request, and the real browser driven through
// its control channel, with a watchdog on every wait.

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace stonewall::browser::testing {

class HttpServer {
  public:
    // path -> (content type, body)
    explicit HttpServer(std::map<std::string, std::pair<std::string, std::string>> files);
    ~HttpServer();
    std::string url(const std::string& path) const;
    // How often the path was asked for so far.
    int requests(const std::string& path) const;

  private:
    void serve();
    int listener_ = -1;
    int port_ = 0;
    std::map<std::string, std::pair<std::string, std::string>> files_;
    mutable std::mutex mutex_;
    std::map<std::string, int> counts_;
    std::thread thread_;
};

class BrowserProcess {
  public:
    // `environment` is laid over the test's own.
    BrowserProcess(const std::filesystem::path& binary, const std::vector<std::string>& arguments,
                   const std::map<std::string, std::string>& environment);
    ~BrowserProcess();

    void send(const std::string& command);
    // The first event line starting with `prefix` (earlier lines are
    // consumed); none after the timeout.
    std::optional<std::string> waitFor(
        const std::string& prefix, std::chrono::milliseconds timeout = std::chrono::seconds(30));
    // Every line read so far, for failure messages.
    const std::string& transcript() const { return seen_; }

  private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string pending_;
    std::string seen_;
};

}  // namespace stonewall::browser::testing
