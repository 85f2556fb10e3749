#pragma once

// A one-thread HTTP server on 127.0.0.1 that gives every request the answer
// the test set last, and keeps the headers of the last request it read.

#include <cctype>
#include <mutex>
#include <optional>
#include <string>

#include "support/LoopbackServer.h"

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
    std::string url(const std::string& path) const { return server_.url(path); }
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
    std::string respond(const std::string& request) {
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
        if (answer.status == 304) return head;
        return head + answer.body.substr(0, answer.dropAfter.value_or(answer.body.size()));
    }

    mutable std::mutex mutex_;
    Answer answer_;
    std::string request_;
    // Last: its thread answers through the members above.
    test_support::LoopbackServer server_{
        [this](const std::string& request) { return respond(request); }};
};

}  // namespace stonewall::tool::testing
