#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace stonewall {

// An error as the host platform reports it: the domain and code say which
// component failed and how, the message is that component's own text. The
// engine passes these on unchanged; it never makes up messages of its own.
struct Error {
    std::string domain;
    int64_t code = 0;
    std::string message;

    bool operator==(const Error&) const = default;
};

// Completion of an engine or platform operation: no error on success. An empty
// std::function is an absent handler and is never called.
using CompletionHandler = std::function<void(std::optional<Error>)>;

}  // namespace stonewall
