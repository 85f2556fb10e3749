#include "platform/Process.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>

namespace stonewall::platform {

namespace {

// The handler only writes the signal's number into a pipe (all it may safely
// do) and a thread of ours calls back. A handler, not a blocked mask with
// sigwait(), because libraries start threads of their own before main() and
// any of them may be the one the kernel picks.
int signalPipe[2] = {-1, -1};

extern "C" void forwardSignal(int signal) {
    const int savedErrno = errno;
    const char byte = static_cast<char>(signal);
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
    errno = savedErrno;
}

void setHandler(void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    action.sa_flags = handler == SIG_DFL ? 0 : SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

class SignalWatch : public StopRequestWatch {
  public:
    explicit SignalWatch(std::function<void()> onStop) {
        thread_ = std::thread([this, onStop = std::move(onStop)] {
            char byte = 0;
            while (true) {
                const ssize_t count = ::read(signalPipe[0], &byte, 1);
                if (count < 0 && errno == EINTR) continue;
                if (count <= 0 || stopping_) return;
                onStop();
            }
        });
        setHandler(forwardSignal);
    }
    ~SignalWatch() override {
        setHandler(SIG_DFL);
        stopping_ = true;
        const char wake = 0;
        [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &wake, 1);
        thread_.join();
        ::close(signalPipe[0]);
        ::close(signalPipe[1]);
        signalPipe[0] = signalPipe[1] = -1;
    }

  private:
    std::thread thread_;
    std::atomic<bool> stopping_{false};
};

class FlockLock : public FileLock {
  public:
    explicit FlockLock(int fd) : fd_(fd) {}
    ~FlockLock() override { ::close(fd_); }

  private:
    int fd_;
};

}  // namespace

std::unique_ptr<StopRequestWatch> watchStopRequests(std::function<void()> onStop,
                                                    std::string& error) {
    if (signalPipe[0] >= 0) {
        error = "already watched";
        return nullptr;
    }
    if (::pipe2(signalPipe, O_CLOEXEC) != 0) {
        error = std::strerror(errno);
        return nullptr;
    }
    return std::make_unique<SignalWatch>(std::move(onStop));
}

std::unique_ptr<FileLock> lockFile(const std::string& path, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) {
        error = std::strerror(errno);
        return nullptr;
    }
    while (::flock(fd, LOCK_EX) != 0) {
        if (errno == EINTR) continue;
        error = std::strerror(errno);
        ::close(fd);
        return nullptr;
    }
    return std::make_unique<FlockLock>(fd);
}

bool canWriteInto(const std::string& directory, std::string& error) {
    if (::access(directory.c_str(), W_OK | X_OK) == 0) return true;
    error = std::strerror(errno);
    return false;
}

}  // namespace stonewall::platform
