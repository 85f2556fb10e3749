#pragma once

// How the command tells people and scripts that something went wrong: one
// line on stderr, "stonewall: <what>: <why>" in the user's language, and an
// exit code from the table below; --json carries the English subject and
// reason. The codes are part of the command's interface (documented in --help
// and docs/session.md); scripts branch on them, so never renumber.

#include <exception>
#include <string>
#include <utility>

#include "Text.h"

namespace stonewall::tool {

enum class ExitCode : int {
    Ok = 0,
    Usage = 1,        // the command line itself is wrong (CLI11 parse errors)
    BadInput = 2,     // a URL without host, an unknown profile, an unreadable or malformed file
    Storage = 3,      // the container, the resources or a database cannot be used
    Reload = 4,       // the browser (WebKit) rejected a rule list, or a reload failed or hung
    Unavailable = 5,  // a system service is missing (no session bus for watch)
    Download = 6,     // a subscribed list could not be downloaded; its old rules stay
};

inline constexpr int toInt(ExitCode code) { return static_cast<int>(code); }

// Thrown inside the program only (never across a library interface) to leave
// a command with a message; caught once in run().
class CommandFailure : public std::exception {
  public:
    CommandFailure(ExitCode code, Message what, Message why)
        : code_(code), subject_(std::move(what)), reason_(std::move(why)) {
        line_ = "stonewall: " + subject_.local + ": " + reason_.local;
    }

    ExitCode code() const { return code_; }
    // In English, for scripts.
    const std::string& subject() const { return subject_.english; }
    const std::string& reason() const { return reason_.english; }
    // The whole line as printed on stderr (without the newline).
    const char* what() const noexcept override { return line_.c_str(); }

  private:
    ExitCode code_;
    Message subject_;
    Message reason_;
    std::string line_;
};

}  // namespace stonewall::tool
