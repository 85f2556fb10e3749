#pragma once

#include <string_view>

namespace stonewall::platform {

enum class LogLevel { Debug, Info, Error };

// The system log. Debug lines are invisible unless verbose logging is on.
class Log {
  public:
    virtual ~Log() = default;
    virtual void write(LogLevel level, std::string_view message) = 0;
};

}  // namespace stonewall::platform
