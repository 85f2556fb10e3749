#include "platform/linux/SystemLog.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace stonewall::platform::gnulinux {

namespace {

const char* levelName(LogLevel level) {
    switch (level) {
        case LogLevel::Debug:
            return "debug";
        case LogLevel::Info:
            return "info";
        case LogLevel::Error:
            return "error";
    }
    return "info";
}

int priority(LogLevel level) {
    switch (level) {
        case LogLevel::Debug:
            return LOG_DEBUG;
        case LogLevel::Info:
            return LOG_INFO;
        case LogLevel::Error:
            return LOG_ERR;
    }
    return LOG_INFO;
}

}  // namespace

SystemLog::SystemLog(bool verbose, int stderrDescriptor)
    : verbose_(verbose), stderr_(stderrDescriptor) {
    // The ident must outlive every later syslog() call: a literal does.
    ::openlog("stonewall", LOG_PID, LOG_USER);
}

void SystemLog::write(LogLevel level, std::string_view message) {
    const bool verbose = verbose_.load();
    if (level == LogLevel::Debug && !verbose) return;
    // The text is data, never a format.
    ::syslog(priority(level), "%.*s", static_cast<int>(message.size()), message.data());
    if (!verbose) return;
    std::string line = "stonewall: ";
    line.append(levelName(level)).append(": ").append(message).append("\n");
    // One write per line, so lines from several threads never interleave.
    size_t written = 0;
    while (written < line.size()) {
        const ssize_t count = ::write(stderr_, line.data() + written, line.size() - written);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return;
        written += static_cast<size_t>(count);
    }
}

}  // namespace stonewall::platform::gnulinux
