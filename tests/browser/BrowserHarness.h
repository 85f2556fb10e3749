#pragma once

// What the browser's end-to-end tests run against: a tiny HTTP server on
// 127.0.0.1 that records every request, and the real browser driven through
// its control channel, with a watchdog on every wait.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/LoopbackServer.h"

namespace stonewall::browser::testing {

// The browser's own home, XDG folders and container under `root` (the
// folders are made), for the browser and the command alike.
inline std::map<std::string, std::string> sandboxEnvironment(
    const std::filesystem::path& root, const std::filesystem::path& container) {
    for (const char* folder : {"home", "data", "config", "cache"})
        std::filesystem::create_directories(root / folder);
    return {{"HOME", (root / "home").string()},
            {"XDG_DATA_HOME", (root / "data").string()},
            {"XDG_CONFIG_HOME", (root / "config").string()},
            {"XDG_CACHE_HOME", (root / "cache").string()},
            {"STONEWALL_CONTAINER", container.string()}};
}

// A page that loads ten thousand copies of `image`, each its own URL.
inline std::string floodPage(std::string_view image) {
    std::string page = R"(<!doctype html><title>Flood</title><script>
for (let i = 0; i < 10000; ++i) {
  const image = document.createElement('img');
  image.src = 'IMAGE?' + i;
  document.documentElement.appendChild(image);
}
</script>)";
    return page.replace(page.find("IMAGE"), 5, image);
}

// The resident memory of a process, in KiB.
inline long residentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("VmRSS:")) return std::atol(line.c_str() + 6);
    }
    return 0;
}

class HttpServer {
  public:
    // path -> (content type, body)
    explicit HttpServer(std::map<std::string, std::pair<std::string, std::string>> files)
        : files_(std::move(files)) {}

    std::string url(const std::string& path) const { return server_.url(path); }
    // How often the path was asked for so far.
    int requests(const std::string& path) const {
        std::lock_guard lock(mutex_);
        return counts_.contains(path) ? counts_.at(path) : 0;
    }

  private:
    std::string respond(const std::string& request) {
        std::string method, path;
        std::istringstream(request) >> method >> path;
        {
            std::lock_guard lock(mutex_);
            ++counts_[path];
        }
        const auto file = files_.find(path);
        const auto [type, body] =
            file == files_.end() ? std::pair<std::string, std::string>() : file->second;
        // No caching: each load must reach us, or be blocked, to be counted.
        return "HTTP/1.1 " + std::string(file == files_.end() ? "404 Not Found" : "200 OK") +
               "\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) +
               "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n" + body;
    }

    std::map<std::string, std::pair<std::string, std::string>> files_;
    mutable std::mutex mutex_;
    std::map<std::string, int> counts_;
    // Last: its thread answers through the members above.
    test_support::LoopbackServer server_{
        [this](const std::string& request) { return respond(request); }};
};

class BrowserProcess {
  public:
    // `environment` is laid over the test's own.
    BrowserProcess(const std::filesystem::path& binary, const std::vector<std::string>& arguments,
                   const std::map<std::string, std::string>& environment) {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe");
        }
        std::vector<std::string> argv{binary.string()}, envp;
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        for (char** entry = environ; *entry; ++entry) {
            const std::string text(*entry);
            if (!environment.contains(text.substr(0, text.find('=')))) envp.push_back(text);
        }
        for (const auto& [name, value] : environment) envp.push_back(name + "=" + value);
        std::vector<char*> args, env;
        for (auto& a : argv) args.push_back(a.data());
        for (auto& e : envp) env.push_back(e.data());
        args.push_back(nullptr);
        env.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        const int spawned =
            ::posix_spawn(&pid_, args[0], &actions, nullptr, args.data(), env.data());
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        input_ = in[1];
        output_ = out[0];
        if (spawned != 0) throw std::runtime_error("cannot start " + argv[0]);
    }
    ~BrowserProcess() {
        send("quit");
        ::close(input_);
        int status = 0;
        for (int i = 0; i < 50 && ::waitpid(pid_, &status, WNOHANG) == 0; ++i) ::usleep(100000);
        if (::waitpid(pid_, &status, WNOHANG) == 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &status, 0);
        }
        ::close(output_);
    }

    void send(const std::string& command) {
        const std::string line = command + "\n";
        [[maybe_unused]] const ssize_t written = ::write(input_, line.data(), line.size());
    }

    // The first event line starting with `prefix` (earlier lines are
    // consumed); none after the timeout.
    std::optional<std::string> waitFor(
        const std::string& prefix, std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (true) {
            for (size_t newline; (newline = pending_.find('\n')) != std::string::npos;) {
                std::string line = pending_.substr(0, newline);
                pending_.erase(0, newline + 1);
                seen_ += "  " + line + "\n";
                if (line.starts_with(prefix)) return line;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd ready{output_, POLLIN, 0};
            char buffer[4096];
            if (left.count() <= 0 || ::poll(&ready, 1, static_cast<int>(left.count())) <= 0) {
                return std::nullopt;
            }
            const ssize_t got = ::read(output_, buffer, sizeof buffer);
            if (got <= 0) return std::nullopt;
            pending_.append(buffer, static_cast<size_t>(got));
        }
    }

    // Every line read so far, for failure messages.
    const std::string& transcript() const { return seen_; }
    pid_t pid() const { return pid_; }

    // What drivePinging saw: the longest the main loop took to answer a
    // ping, and every other line with its time since the start.
    struct PingRun {
        std::chrono::duration<double, std::milli> longest{0};
        int answered = 0;
        bool finished = false;  // `done` said so before the limit
        std::vector<std::pair<double, std::string>> lines;
        bool saw(const std::string& prefix) const {
            for (const auto& [at, line] : lines) {
                if (line.starts_with(prefix)) return true;
            }
            return false;
        }
        // When the first line with `prefix` came (ms), or -1.
        double when(const std::string& prefix) const {
            for (const auto& [at, line] : lines) {
                if (line.starts_with(prefix)) return at;
            }
            return -1;
        }
    };
    // Pings the main loop every `interval` until a line satisfies `done` or
    // `limit` passes; `tick` is called with the time since the start between
    // reads (to let a fault go at a given moment).
    template <typename Done, typename Tick>
    PingRun drivePinging(Done done, std::chrono::milliseconds limit, Tick tick,
                         std::chrono::milliseconds interval = std::chrono::milliseconds(20)) {
        using Clock = std::chrono::steady_clock;
        PingRun run;
        const auto start = Clock::now();
        int sent = 0;
        bool waiting = false;  // for the answer to ping `sent`, sent at `pinged`
        Clock::time_point pinged = start;
        auto nextPing = start;
        while (Clock::now() - start < limit) {
            const auto now = Clock::now();
            tick(std::chrono::duration<double, std::milli>(now - start).count());
            if (!waiting && now >= nextPing) {
                send("ping " + std::to_string(++sent));
                waiting = true;
                pinged = now;
                nextPing = now + interval;
            }
            const auto waited = [&] {
                return std::chrono::duration<double, std::milli>(Clock::now() - pinged);
            };
            if (waiting) run.longest = std::max(run.longest, waited());
            const auto line = waitFor("", std::chrono::milliseconds(5));
            if (!line) continue;
            if (*line == "pong " + std::to_string(sent) && waiting) {
                run.longest = std::max(run.longest, waited());
                waiting = false;
                ++run.answered;
                continue;
            }
            if (line->starts_with("pong ")) continue;
            run.lines.emplace_back(
                std::chrono::duration<double, std::milli>(Clock::now() - start).count(), *line);
            if (done(*line)) {
                run.finished = true;
                break;
            }
        }
        return run;
    }

  private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string pending_;
    std::string seen_;
};

}  // namespace stonewall::browser::testing
