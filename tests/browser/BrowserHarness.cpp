#include "BrowserHarness.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace stonewall::browser::testing {

HttpServer::HttpServer(std::map<std::string, std::pair<std::string, std::string>> files)
    : files_(std::move(files)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 16) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("cannot listen on 127.0.0.1");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
}

HttpServer::~HttpServer() {
    ::shutdown(listener_, SHUT_RDWR);
    ::close(listener_);
    thread_.join();
}

std::string HttpServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

int HttpServer::requests(const std::string& path) const {
    std::lock_guard lock(mutex_);
    const auto found = counts_.find(path);
    return found == counts_.end() ? 0 : found->second;
}

void HttpServer::serve() {
    while (true) {
        const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) return;
        std::string request;
        char buffer[4096];
        while (request.find("\r\n\r\n") == std::string::npos) {
            const ssize_t got = ::recv(client, buffer, sizeof buffer, 0);
            if (got <= 0) break;
            request.append(buffer, static_cast<size_t>(got));
        }
        const size_t start = request.find(' ');
        const size_t end = start == std::string::npos ? start : request.find(' ', start + 1);
        const std::string path =
            end == std::string::npos ? "" : request.substr(start + 1, end - start - 1);
        {
            std::lock_guard lock(mutex_);
            ++counts_[path];
        }
        const auto file = files_.find(path);
        const std::string status = file == files_.end() ? "404 Not Found" : "200 OK";
        const std::string body = file == files_.end() ? "" : file->second.second;
        const std::string type = file == files_.end() ? "text/plain" : file->second.first;
        // No caching: each load must reach us, or be blocked, to be counted.
        const std::string response = "HTTP/1.1 " + status + "\r\nContent-Type: " + type +
                                     "\r\nContent-Length: " + std::to_string(body.size()) +
                                     "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n" +
                                     body;
        ::send(client, response.data(), response.size(), MSG_NOSIGNAL);
        ::close(client);
    }
}

BrowserProcess::BrowserProcess(const std::filesystem::path& binary,
                               const std::vector<std::string>& arguments,
                               const std::map<std::string, std::string>& environment) {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe");
    }
    std::vector<std::string> argv{binary.string()};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::vector<std::string> envp;
    for (const auto& [name, value] : environment) envp.push_back(name + "=" + value);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        std::vector<char*> args, env;
        for (auto& a : argv) args.push_back(a.data());
        for (auto& e : envp) env.push_back(e.data());
        args.push_back(nullptr);
        env.push_back(nullptr);
        ::execve(args[0], args.data(), env.data());
        const char* reason = std::strerror(errno);
        [[maybe_unused]] ssize_t ignored = ::write(2, reason, std::strlen(reason));
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    input_ = in[1];
    output_ = out[0];
    reader_ = std::thread([this] { readOutput(); });
}

BrowserProcess::~BrowserProcess() {
    send("quit");
    ::close(input_);
    int status = 0;
    for (int i = 0; i < 50 && ::waitpid(pid_, &status, WNOHANG) == 0; ++i) ::usleep(100000);
    if (::waitpid(pid_, &status, WNOHANG) == 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
    }
    reader_.join();
    ::close(output_);
}

void BrowserProcess::send(const std::string& command) {
    const std::string line = command + "\n";
    [[maybe_unused]] const ssize_t written = ::write(input_, line.data(), line.size());
}

void BrowserProcess::readOutput() {
    std::string pending;
    char buffer[4096];
    while (true) {
        const ssize_t got = ::read(output_, buffer, sizeof buffer);
        if (got <= 0) break;
        pending.append(buffer, static_cast<size_t>(got));
        size_t newline;
        while ((newline = pending.find('\n')) != std::string::npos) {
            std::lock_guard lock(mutex_);
            lines_.push_back(pending.substr(0, newline));
            seen_.push_back(lines_.back());
            pending.erase(0, newline + 1);
            arrived_.notify_all();
        }
    }
    std::lock_guard lock(mutex_);
    ended_ = true;
    arrived_.notify_all();
}

std::optional<std::string> BrowserProcess::waitFor(const std::string& prefix,
                                                   std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock lock(mutex_);
    while (true) {
        while (!lines_.empty()) {
            std::string line = std::move(lines_.front());
            lines_.pop_front();
            if (line.rfind(prefix, 0) == 0) return line;
        }
        if (ended_) return std::nullopt;
        if (arrived_.wait_until(lock, deadline) == std::cv_status::timeout && lines_.empty()) {
            return std::nullopt;
        }
    }
}

std::string BrowserProcess::transcript() const {
    std::lock_guard lock(mutex_);
    std::string text;
    for (const auto& line : seen_) text += "  " + line + "\n";
    return text;
}

}  // namespace stonewall::browser::testing
