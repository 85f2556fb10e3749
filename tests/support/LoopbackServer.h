#pragma once

// An HTTP server on 127.0.0.1 (or another loopback address, for a second
// "site") for tests: it reads each request's
// head, asks `respond` for the whole answer (status line, headers, body) and
// sends it, then closes the connection. Tests never reach past loopback.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace stonewall::test_support {

class LoopbackServer {
  public:
    // Called on the server's thread with the request's head.
    using Respond = std::function<std::string(const std::string& request)>;

    explicit LoopbackServer(Respond respond, std::string host = "127.0.0.1")
        : respond_(std::move(respond)), host_(std::move(host)) {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        if (::inet_pton(AF_INET, host_.c_str(), &address.sin_addr) != 1 ||
            (ntohl(address.sin_addr.s_addr) >> 24) != 127) {
            throw std::runtime_error("not a loopback address: " + host_);
        }
        socklen_t length = sizeof address;
        if (listener_ < 0 ||
            ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
            ::listen(listener_, 16) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            throw std::runtime_error("cannot listen on " + host_);
        }
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~LoopbackServer() {
        ::shutdown(listener_, SHUT_RDWR);
        ::close(listener_);
        thread_.join();
    }
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;

    std::string url(const std::string& path) const {
        return "http://" + host_ + ":" + std::to_string(port_) + path;
    }

  private:
    void serve() {
        for (int client; (client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            // A connection of its own each: a browser opens connections
            // ahead of need, and one that sends nothing yet must not hold up
            // the others.
            connections_.emplace_back([this, client] { answer(client); });
        }
        for (std::thread& connection : connections_) connection.join();
    }

    void answer(int client) {
        timeval patience{5, 0};
        ::setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        std::string request;
        char buffer[4096];
        for (ssize_t got; request.find("\r\n\r\n") == std::string::npos &&
                          (got = ::recv(client, buffer, sizeof buffer, 0)) > 0;) {
            request.append(buffer, static_cast<size_t>(got));
        }
        if (!request.empty()) {
            const std::string response = respond_(request);
            for (size_t sent = 0; sent < response.size();) {
                const ssize_t put =
                    ::send(client, response.data() + sent, response.size() - sent, MSG_NOSIGNAL);
                if (put <= 0) break;  // the reader gave up (a body over its limit)
                sent += static_cast<size_t>(put);
            }
        }
        ::shutdown(client, SHUT_RDWR);
        ::close(client);
    }

    Respond respond_;
    std::string host_;
    int listener_ = -1;
    int port_ = 0;
    std::vector<std::thread> connections_;  // the serving thread's only
    std::thread thread_;
};

}  // namespace stonewall::test_support
