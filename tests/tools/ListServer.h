#pragma once

// A one-thread HTTP server on 127.0.0.1 that gives every request the answer
// the test set last, and keeps the headers of the last request it read.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

namespace stonewall::tool::testing {

struct Answer {
    int status = 200;
    std::string headers;  // extra header lines, each ending in "\r\n"
    std::string body;
    // When set, only this many bytes of the body are sent before the
    // connection is closed (the Content-Length still promises all of it).
    std::optional<size_t> dropAfter;
};
inline Answer reply(int status, std::string headers, std::string body,
                    std::optional<size_t> dropAfter = std::nullopt) {
    return Answer{status, std::move(headers), std::move(body), dropAfter};
}

class ListServer {
  public:
    ListServer() {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (listener_ < 0 ||
            ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listener_, 16) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("cannot listen on 127.0.0.1");
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~ListServer() {
        ::shutdown(listener_, SHUT_RDWR);
        ::close(listener_);
        thread_.join();
    }

    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }
    void answer(Answer next) {
        std::lock_guard lock(mutex_);
        answer_ = std::move(next);
    }
    // The value of the header in the last request, or empty.
    std::string lastRequestHeader(const std::string& name) const {
        std::lock_guard lock(mutex_);
        std::string lower = request_;
        for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        std::string key = "\r\n" + name + ":";
        for (char& c : key) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        const size_t at = lower.find(key);
        if (at == std::string::npos) return {};
        size_t start = at + key.size();
        while (start < request_.size() && request_[start] == ' ') ++start;
        return request_.substr(start, request_.find("\r\n", start) - start);
    }

  private:
    void serve() {
        for (int client; (client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            std::string request;
            char buffer[4096];
            for (ssize_t got; request.find("\r\n\r\n") == std::string::npos &&
                              (got = ::recv(client, buffer, sizeof buffer, 0)) > 0;) {
                request.append(buffer, static_cast<size_t>(got));
            }
            Answer answer;
            {
                std::lock_guard lock(mutex_);
                request_ = request;
                answer = answer_;
            }
            std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " " +
                               (answer.status == 200   ? "OK"
                                : answer.status == 304 ? "Not Modified"
                                                       : "Not Found") +
                               "\r\nConnection: close\r\n" + answer.headers;
            if (answer.status != 304) {
                head += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
            }
            head += "\r\n";
            const std::string body =
                answer.status == 304
                    ? std::string()
                    : answer.body.substr(0, answer.dropAfter.value_or(answer.body.size()));
            sendAll(client, head + body);
            ::shutdown(client, SHUT_RDWR);
            ::close(client);
        }
    }
    static void sendAll(int client, const std::string& bytes) {
        for (size_t sent = 0; sent < bytes.size();) {
            const ssize_t put =
                ::send(client, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (put <= 0) return;  // the reader gave up (a body over its limit)
            sent += static_cast<size_t>(put);
        }
    }

    int listener_ = -1;
    int port_ = 0;
    std::thread thread_;
    mutable std::mutex mutex_;
    Answer answer_;
    std::string request_;
};

}  // namespace stonewall::tool::testing
