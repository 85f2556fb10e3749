#include "StonewallRunner.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>
#include <thread>
#include <utility>

extern char** environ;

namespace stonewall::tool::testing {
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

std::string contentsOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (auto& s : strings) result.push_back(s.data());
    result.push_back(nullptr);
    return result;
}

// Spawns the program with stdin from `input` and stdout and stderr into the
// two files: plain files never fill up and block the program, and a
// background program's output can be read while it runs.
pid_t spawn(std::vector<std::string> args, std::vector<std::string> env, const fs::path& input,
            const fs::path& out, const fs::path& err) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    // The test runner may block signals; the program must start with the defaults.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    sigset_t defaults;
    sigemptyset(&defaults);
    for (int signal : {SIGINT, SIGTERM, SIGPIPE}) sigaddset(&defaults, signal);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    auto argv = pointers(args);
    auto envp = pointers(env);
    pid_t pid = -1;
    const int result = posix_spawn(&pid, argv[0], &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (result != 0) throw std::system_error(result, std::generic_category(), "spawn " + args[0]);
    return pid;
}

// Waits for the process until the deadline, then kills it.
void reap(pid_t pid, RunResult& result, Clock::time_point deadline) {
    int status = 0;
    pid_t done = 0;
    while ((done = ::waitpid(pid, &status, WNOHANG)) == 0 && Clock::now() < deadline) {
        std::this_thread::sleep_for(5ms);
    }
    if (done == 0) {
        result.timedOut = true;
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
    } else if (done < 0) {
        return;
    }
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
}

// A fresh set of stream files under the sandbox.
fs::path streamFolder(const fs::path& root) {
    static std::atomic<int> next = 0;
    const fs::path folder = root / ("streams-" + std::to_string(++next));
    fs::create_directories(folder);
    return folder;
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
        const std::string text(*entry);
        const auto equals = text.find('=');
        const std::string name = text.substr(0, equals);
        // Only the resource folder that ctest gives is taken over; every other
        // setting of ours (container, host versions) is the test's choice.
        const bool ours = name.rfind("STONEWALL_", 0) == 0 && name != "STONEWALL_RESOURCES";
        if (equals != std::string::npos && !ours && name != "DISPLAY" && name != "WAYLAND_DISPLAY") {
            env[name] = text.substr(equals + 1);
        }
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
    const fs::path folder = streamFolder(root_);
    std::ofstream(folder / "in", std::ios::binary) << stdinText;
    RunResult result;
    const pid_t pid = spawn(argumentsFor(std::move(args), withContainer), environment(),
                            folder / "in", folder / "out", folder / "err");
    reap(pid, result, Clock::now() + timeout);
    result.out = contentsOf(folder / "out");
    result.err = contentsOf(folder / "err");
    fs::remove_all(folder);
    return result;
}

BackgroundProcess StonewallRunner::start(std::vector<std::string> args, bool withContainer) const {
    const fs::path folder = streamFolder(root_);
    return BackgroundProcess(spawn(argumentsFor(std::move(args), withContainer), environment(),
                                   "/dev/null", folder / "out", folder / "err"),
                             folder);
}

BackgroundProcess::BackgroundProcess(pid_t pid, fs::path streams)
    : pid_(pid), streams_(std::move(streams)) {}

BackgroundProcess::BackgroundProcess(BackgroundProcess&& other) noexcept
    : pid_(other.pid_),
      streams_(std::move(other.streams_)),
      read_(other.read_),
      finished_(std::exchange(other.finished_, true)) {}

BackgroundProcess::~BackgroundProcess() {
    if (!finished_) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

std::optional<std::string> BackgroundProcess::readLineFrom(const char* stream, size_t& offset,
                                                           std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    do {
        const std::string text = contentsOf(streams_ / stream);
        if (const auto newline = text.find('\n', offset); newline != std::string::npos) {
            std::string line = text.substr(offset, newline - offset);
            offset = newline + 1;
            return line;
        }
        std::this_thread::sleep_for(10ms);
    } while (Clock::now() < deadline);
    return std::nullopt;
}

std::optional<std::string> BackgroundProcess::readLine(std::chrono::milliseconds timeout) {
    return readLineFrom("out", read_[0], timeout);
}

std::optional<std::string> BackgroundProcess::readErrorLine(std::chrono::milliseconds timeout) {
    return readLineFrom("err", read_[1], timeout);
}

void BackgroundProcess::sendSignal(int signal) { ::kill(pid_, signal); }

RunResult BackgroundProcess::wait(std::chrono::milliseconds timeout) {
    RunResult result;
    reap(pid_, result, Clock::now() + timeout);
    finished_ = true;
    result.out = contentsOf(streams_ / "out").substr(read_[0]);
    result.err = contentsOf(streams_ / "err").substr(read_[1]);
    return result;
}

BackgroundProcess startProgram(std::vector<std::string> args, const fs::path& streams) {
    std::vector<std::string> env;
    for (char** entry = environ; *entry; ++entry) env.emplace_back(*entry);
    fs::create_directories(streams);
    return BackgroundProcess(
        spawn(std::move(args), std::move(env), "/dev/null", streams / "out", streams / "err"),
        streams);
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
