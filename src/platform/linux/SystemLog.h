#pragma once

#include <atomic>

#include "platform/Log.h"

namespace stonewall::platform::gnulinux {

// The system log through syslog(3) (facility user, tag "stonewall"; the
// journal collects it). Debug lines are written only when verbose; when
// verbose every line is also copied to stderr as "stonewall: <level>: <text>".
class SystemLog : public Log {
  public:
    explicit SystemLog(bool verbose, int stderrDescriptor = 2);

    void write(LogLevel level, std::string_view message) override;

    void setVerbose(bool verbose) { verbose_.store(verbose); }
    bool verbose() const { return verbose_.load(); }

  private:
    std::atomic<bool> verbose_;
    int stderr_;
};

}  // namespace stonewall::platform::gnulinux
