#pragma once

// How the application's operations refuse: never by throwing, always with
// what was refused and why, and nothing changed by a BadInput refusal.

#include <optional>
#include <string>

namespace stonewall {

struct ApplicationError {
    enum class Kind {
        BadInput,  // the request names something that does not exist or is not allowed
        Storage,   // a database or file did not take a change (read back to find out)
    };
    Kind kind;
    std::string subject;  // what was refused: "profile \"abc\"", "name \"\""
    std::string reason;
};

// None on success.
using ApplicationOutcome = std::optional<ApplicationError>;

inline ApplicationError badInput(std::string subject, std::string reason) {
    return {ApplicationError::Kind::BadInput, std::move(subject), std::move(reason)};
}
inline ApplicationError storageFailure(std::string subject, std::string reason) {
    return {ApplicationError::Kind::Storage, std::move(subject), std::move(reason)};
}

}  // namespace stonewall
