#include "StonewallRunner.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
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

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (auto& s : strings) result.push_back(s.data());
    result.push_back(nullptr);
    return result;
}

// Spawns the program with stdin from streams/in and stdout and stderr into
// streams/out and streams/err: plain files never fill up and
// block the program, and can be read while it runs.
BackgroundProcess spawn(std::vector<std::string> args, std::vector<std::string> env,
                        const fs::path& streams, const std::string& input) {
    fs::create_directories(streams);
    const fs::path in = streams / "in";
    std::ofstream(in, std::ios::binary) << input;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
    const int flags = O_WRONLY | O_CREAT | O_TRUNC;
    posix_spawn_file_actions_addopen(&actions, 1, (streams / "out").c_str(), flags, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, (streams / "err").c_str(), flags, 0600);
    // The test runner may block signals; the program must start with the defaults.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, defaults;
    sigemptyset(&none);
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
    return BackgroundProcess(pid, streams);
}

fs::path streamFolder(const fs::path& root) {
    static std::atomic<int> next = 0;
    return root / ("streams-" + std::to_string(++next));
}

// The test's own environment with the changes made (an empty value removes
// the variable). Of our settings only the resource folder that ctest gives
// is taken over; every other one (container, host versions) is the test's
// choice.
std::vector<std::string> environmentOf(const std::map<std::string, std::string>& changes) {
    std::map<std::string, std::string> env;
    for (char** entry = environ; *entry; ++entry) {
        const std::string text(*entry);
        const auto equals = text.find('=');
        const std::string name = text.substr(0, equals);
        if (equals == std::string::npos) continue;
        if (!name.starts_with("STONEWALL_") || name == "STONEWALL_RESOURCES") {
            env[name] = text.substr(equals + 1);
        }
    }
    for (const auto& [name, value] : changes) {
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

}  // namespace

std::string readFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

fs::path makeTemporaryFolder() {
    std::string pattern = (fs::temp_directory_path() / "stonewall-cli-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::system_error(errno, std::generic_category());
    return pattern;
}

StonewallRunner::StonewallRunner(fs::path root) : root_(std::move(root)) {
    for (const char* folder : {"home", "data", "config", "cache"}) {
        fs::create_directories(root_ / folder);
    }
    // The command speaks the user's language; the tests read its English
    // texts, whatever the locale of the one who runs them.
    overrides_ = {{"LC_ALL", ""}, {"LC_MESSAGES", "C"}, {"LANGUAGE", ""}};
}

BackgroundProcess StonewallRunner::start(std::vector<std::string> args, bool withContainer,
                                         const std::string& stdinText) const {
    if (withContainer) args.insert(args.end(), {"--container", containerPath().string()});
    args.insert(args.begin(), STONEWALL_BINARY);
    args.insert(args.begin(), wrapper_.begin(), wrapper_.end());
    return startProgram(std::move(args), stdinText);
}

BackgroundProcess StonewallRunner::startProgram(std::vector<std::string> args) const {
    return startProgram(std::move(args), std::string());
}

BackgroundProcess StonewallRunner::startProgram(std::vector<std::string> args,
                                                const std::string& stdinText) const {
    // No session bus unless a test brings its own: notifications are then
    // dropped, as documented, and never reach the desktop's bus.
    std::map<std::string, std::string> changes = {
        {"HOME", (root_ / "home").string()},
        {"XDG_DATA_HOME", (root_ / "data").string()},
        {"XDG_CONFIG_HOME", (root_ / "config").string()},
        {"XDG_CACHE_HOME", (root_ / "cache").string()},
        {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + (root_ / "no-bus").string()},
        {"DISPLAY", ""},
        {"WAYLAND_DISPLAY", ""}};
    for (const auto& [name, value] : overrides_) changes[name] = value;
    return spawn(std::move(args), environmentOf(changes), streamFolder(root_), stdinText);
}

RunResult StonewallRunner::run(std::vector<std::string> args, const std::string& stdinText,
                               bool withContainer) const {
    return start(std::move(args), withContainer, stdinText).wait(90s);
}

BackgroundProcess::BackgroundProcess(pid_t pid, fs::path streams)
    : pid_(pid), streams_(std::move(streams)) {}

BackgroundProcess::~BackgroundProcess() {
    if (!finished_) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
}

std::optional<std::string> BackgroundProcess::readLine(std::chrono::milliseconds timeout,
                                                       int stream) {
    const auto deadline = Clock::now() + timeout;
    size_t& offset = read_[stream == 2 ? 1 : 0];
    do {
        const std::string text = readFile(streams_ / (stream == 2 ? "err" : "out"));
        if (const auto newline = text.find('\n', offset); newline != std::string::npos) {
            const size_t start = std::exchange(offset, newline + 1);
            return text.substr(start, newline - start);
        }
        std::this_thread::sleep_for(10ms);
    } while (Clock::now() < deadline);
    return std::nullopt;
}

void BackgroundProcess::sendSignal(int signal) { ::kill(pid_, signal); }

RunResult BackgroundProcess::wait(std::chrono::milliseconds timeout) {
    RunResult result;
    const auto deadline = Clock::now() + timeout;
    int status = 0;
    pid_t done = 0;
    while ((done = ::waitpid(pid_, &status, WNOHANG)) == 0 && Clock::now() < deadline) {
        std::this_thread::sleep_for(5ms);
    }
    if (done == 0) {
        result.timedOut = true;
        ::kill(pid_, SIGKILL);
        done = ::waitpid(pid_, &status, 0);
    }
    finished_ = true;
    if (done > 0 && WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (done > 0 && WIFSIGNALED(status)) result.signal = WTERMSIG(status);
    result.out = readFile(streams_ / "out").substr(read_[0]);
    result.err = readFile(streams_ / "err").substr(read_[1]);
    return result;
}

std::string describe(const std::vector<std::string>& args, const RunResult& result) {
    std::string text = "stonewall";
    for (const auto& arg : args) text += " " + arg;
    text += "\nexit code " + std::to_string(result.exitCode);
    if (result.signal) text += ", signal " + std::to_string(result.signal);
    if (result.timedOut) text += ", killed by the watchdog";
    return text + "\n--- stdout\n" + result.out + "--- stderr\n" + result.err;
}

}  // namespace stonewall::tool::testing
