#include "StonewallRunner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

extern char** environ;

namespace stonewall::tool::testing {
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

struct Pipe {
    int read = -1;
    int write = -1;
    Pipe() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category());
        read = fds[0];
        write = fds[1];
    }
};

void closeFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (auto& s : strings) result.push_back(s.data());
    result.push_back(nullptr);
    return result;
}

// Spawns the program with the three standard streams on pipes; returns the
// parent's ends through the arguments.
pid_t spawn(std::vector<std::string> args, std::vector<std::string> env, int& stdinFd,
            int& stdoutFd, int& stderrFd) {
    Pipe in;
    Pipe out;
    Pipe err;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in.read, 0);
    posix_spawn_file_actions_adddup2(&actions, out.write, 1);
    posix_spawn_file_actions_adddup2(&actions, err.write, 2);

    // The test runner may block signals; the program must start with the defaults.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGINT);
    sigaddset(&defaults, SIGTERM);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    auto argv = pointers(args);
    auto envp = pointers(env);
    pid_t pid = -1;
    const int result = posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    ::close(in.read);
    ::close(out.write);
    ::close(err.write);
    if (result != 0) {
        ::close(in.write);
        ::close(out.read);
        ::close(err.read);
        throw std::system_error(result, std::generic_category(), "posix_spawn " + args[0]);
    }
    stdinFd = in.write;
    stdoutFd = out.read;
    stderrFd = err.read;
    return pid;
}

void recordStatus(int status, RunResult& result) {
    if (WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
}

int remainingMilliseconds(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

// Pumps stdin into the program and both outputs out of it until they close
// or the deadline passes; true when they closed.
bool pump(int& stdinFd, int& stdoutFd, int& stderrFd, const std::string& input, RunResult& result,
          Clock::time_point deadline) {
    size_t written = 0;
    if (input.empty()) closeFd(stdinFd);
    if (stdinFd >= 0) fcntl(stdinFd, F_SETFL, O_NONBLOCK);
    char buffer[65536];
    while (stdoutFd >= 0 || stderrFd >= 0) {
        pollfd fds[3];
        int count = 0;
        int outIndex = -1, errIndex = -1, inIndex = -1;
        if (stdoutFd >= 0) {
            outIndex = count;
            fds[count++] = {stdoutFd, POLLIN, 0};
        }
        if (stderrFd >= 0) {
            errIndex = count;
            fds[count++] = {stderrFd, POLLIN, 0};
        }
        if (stdinFd >= 0) {
            inIndex = count;
            fds[count++] = {stdinFd, POLLOUT, 0};
        }
        const int timeout = remainingMilliseconds(deadline);
        if (timeout == 0) return false;
        const int ready = ::poll(fds, static_cast<nfds_t>(count), timeout);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        auto drain = [&](int index, int& fd, std::string& into) {
            if (index < 0 || !(fds[index].revents & (POLLIN | POLLHUP | POLLERR))) return;
            const ssize_t n = ::read(fd, buffer, sizeof buffer);
            if (n > 0) {
                into.append(buffer, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                closeFd(fd);
            }
        };
        drain(outIndex, stdoutFd, result.out);
        drain(errIndex, stderrFd, result.err);
        if (inIndex >= 0 && (fds[inIndex].revents & (POLLOUT | POLLERR | POLLHUP))) {
            const ssize_t n = ::write(stdinFd, input.data() + written, input.size() - written);
            if (n > 0) written += static_cast<size_t>(n);
            if (n < 0 && errno != EAGAIN && errno != EINTR) closeFd(stdinFd);
            if (written == input.size()) closeFd(stdinFd);
        }
    }
    closeFd(stdinFd);
    return true;
}

// Waits for the process until the deadline, then kills it.
void reap(pid_t pid, RunResult& result, Clock::time_point deadline) {
    int status = 0;
    while (true) {
        const pid_t done = ::waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            recordStatus(status, result);
            return;
        }
        if (done < 0 && errno != EINTR) return;
        if (Clock::now() >= deadline) {
            result.timedOut = true;
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &status, 0);
            recordStatus(status, result);
            return;
        }
        ::usleep(5000);
    }
}

}  // namespace

TemporaryDirectory::TemporaryDirectory() {
    std::string pattern = (fs::temp_directory_path() / "stonewall-cli-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::system_error(errno, std::generic_category());
    path_ = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

StonewallRunner::StonewallRunner(fs::path root) : root_(std::move(root)) {
    for (const char* folder : {"home", "data", "config", "cache"}) {
        fs::create_directories(root_ / folder);
    }
}

void StonewallRunner::setEnvironment(const std::string& name, const std::string& value) {
    overrides_[name] = value;
}

std::string StonewallRunner::binaryPath() { return STONEWALL_BINARY; }

std::vector<std::string> StonewallRunner::environment() const {
    std::map<std::string, std::string> env;
    for (char** entry = environ; *entry; ++entry) {
        std::string text(*entry);
        const auto equals = text.find('=');
        if (equals == std::string::npos) continue;
        env[text.substr(0, equals)] = text.substr(equals + 1);
    }
    // Only the resource folder that ctest gives is taken over; every other
    // setting of ours (container, host versions, verbosity) is the test's choice.
    for (auto it = env.begin(); it != env.end();) {
        const bool ours =
            it->first.rfind("STONEWALL_", 0) == 0 && it->first != "STONEWALL_RESOURCES";
        const bool display = it->first == "DISPLAY" || it->first == "WAYLAND_DISPLAY";
        it = (ours || display) ? env.erase(it) : std::next(it);
    }
    env["HOME"] = (root_ / "home").string();
    env["XDG_DATA_HOME"] = (root_ / "data").string();
    env["XDG_CONFIG_HOME"] = (root_ / "config").string();
    env["XDG_CACHE_HOME"] = (root_ / "cache").string();
    // No session bus unless a test brings its own: notifications are then
    // dropped, as documented, and never reach the desktop's bus.
    env["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (root_ / "no-bus").string();
    for (const auto& [name, value] : overrides_) {
        if (value.empty()) {
            env.erase(name);
        } else {
            env[name] = value;
        }
    }
    std::vector<std::string> result;
    for (const auto& [name, value] : env) result.push_back(name + "=" + value);
    return result;
}

std::vector<std::string> StonewallRunner::argumentsFor(std::vector<std::string> args,
                                                       bool withContainer) const {
    args.insert(args.begin(), binaryPath());
    if (withContainer) {
        args.push_back("--container");
        args.push_back(containerPath().string());
    }
    args.insert(args.begin(), wrapper_.begin(), wrapper_.end());
    return args;
}

RunResult StonewallRunner::run(std::vector<std::string> args, const std::string& stdinText,
                               bool withContainer, std::chrono::milliseconds timeout) const {
    RunResult result;
    int in = -1, out = -1, err = -1;
    const pid_t pid =
        spawn(argumentsFor(std::move(args), withContainer), environment(), in, out, err);
    const auto deadline = Clock::now() + timeout;
    if (!pump(in, out, err, stdinText, result, deadline)) {
        closeFd(in);
        closeFd(out);
        closeFd(err);
    }
    reap(pid, result, deadline);
    return result;
}

BackgroundProcess StonewallRunner::start(std::vector<std::string> args, bool withContainer) const {
    int in = -1, out = -1, err = -1;
    const pid_t pid =
        spawn(argumentsFor(std::move(args), withContainer), environment(), in, out, err);
    closeFd(in);
    return BackgroundProcess(pid, out, err);
}

BackgroundProcess::BackgroundProcess(pid_t pid, int outFd, int errFd)
    : pid_(pid), outFd_(outFd), errFd_(errFd) {}

BackgroundProcess::BackgroundProcess(BackgroundProcess&& other) noexcept
    : pid_(other.pid_),
      outFd_(std::exchange(other.outFd_, -1)),
      errFd_(std::exchange(other.errFd_, -1)),
      outBuffer_(std::move(other.outBuffer_)),
      errBuffer_(std::move(other.errBuffer_)),
      finished_(std::exchange(other.finished_, true)) {}

BackgroundProcess::~BackgroundProcess() {
    if (!finished_) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
    closeFd(outFd_);
    closeFd(errFd_);
}

std::optional<std::string> BackgroundProcess::readLineFrom(int fd, std::string& buffer,
                                                           std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (true) {
        const auto newline = buffer.find('\n');
        if (newline != std::string::npos) {
            std::string line = buffer.substr(0, newline);
            buffer.erase(0, newline + 1);
            return line;
        }
        if (fd < 0) return std::nullopt;
        pollfd pfd{fd, POLLIN, 0};
        const int wait = remainingMilliseconds(deadline);
        if (wait == 0) return std::nullopt;
        const int ready = ::poll(&pfd, 1, wait);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return std::nullopt;
        char chunk[4096];
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n <= 0) return std::nullopt;
        buffer.append(chunk, static_cast<size_t>(n));
    }
}

std::optional<std::string> BackgroundProcess::readLine(std::chrono::milliseconds timeout) {
    return readLineFrom(outFd_, outBuffer_, timeout);
}

std::optional<std::string> BackgroundProcess::readErrorLine(std::chrono::milliseconds timeout) {
    return readLineFrom(errFd_, errBuffer_, timeout);
}

void BackgroundProcess::sendSignal(int signal) { ::kill(pid_, signal); }

RunResult BackgroundProcess::wait(std::chrono::milliseconds timeout) {
    RunResult result;
    result.out = std::move(outBuffer_);
    result.err = std::move(errBuffer_);
    int none = -1;
    const auto deadline = Clock::now() + timeout;
    pump(none, outFd_, errFd_, {}, result, deadline);
    reap(pid_, result, deadline);
    finished_ = true;
    return result;
}

BackgroundProcess startProgram(std::vector<std::string> args) {
    std::vector<std::string> env;
    for (char** entry = environ; *entry; ++entry) env.emplace_back(*entry);
    int in = -1, out = -1, err = -1;
    const pid_t pid = spawn(std::move(args), std::move(env), in, out, err);
    closeFd(in);
    return BackgroundProcess(pid, out, err);
}

std::string describe(const std::vector<std::string>& args, const RunResult& result) {
    std::string text = "stonewall";
    for (const auto& arg : args) text += " " + arg;
    text += "\nexit code " + std::to_string(result.exitCode);
    if (result.signal) text += ", signal " + std::to_string(result.signal);
    if (result.timedOut) text += ", killed by the watchdog";
    text += "\n--- stdout\n" + result.out + "--- stderr\n" + result.err;
    return text;
}

}  // namespace stonewall::tool::testing
