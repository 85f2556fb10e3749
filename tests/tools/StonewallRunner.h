#pragma once

// Runs the real stonewall binary in a sandbox of its own: a temporary root
// that holds the container and the user's folders (HOME and the XDG folders
// point into it, so nothing outside is touched), with stdout, stderr and the
// exit code captured. Every run has a watchdog: a hung command is killed and
// reported as such rather than hanging the suite.

#include <sys/types.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace stonewall::tool::testing {

struct RunResult {
    int exitCode = -1;  // -1 when killed by a signal or the watchdog
    int signal = 0;
    bool timedOut = false;
    std::string out;
    std::string err;
};

std::string readFile(const std::filesystem::path& path);

// A new empty folder under the system's temporary one.
std::filesystem::path makeTemporaryFolder();

// A started program whose streams go to files, read line by line while it runs.
class BackgroundProcess {
  public:
    // Only ever made in place: a copy would kill the program twice.
    BackgroundProcess(pid_t pid, std::filesystem::path streams);
    ~BackgroundProcess();
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    // The next line of stdout (1) or stderr (2) without its newline; nothing
    // when none came in time.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout, int stream = 1);
    void sendSignal(int signal);
    // Waits for the end (killing it after the timeout); the output not yet read.
    RunResult wait(std::chrono::milliseconds timeout);

  private:
    pid_t pid_;
    std::filesystem::path streams_;
    std::array<size_t, 2> read_{0, 0};  // of stdout and stderr
    bool finished_ = false;
};

class StonewallRunner {
  public:
    // Sandbox folders under root; the container is root/container.
    explicit StonewallRunner(std::filesystem::path root);

    const std::filesystem::path& root() const { return root_; }
    std::filesystem::path containerPath() const { return root_ / "container"; }

    // Over the test's own environment; an empty value removes the variable.
    // Messages are English (LC_MESSAGES=C) unless a test sets the locale.
    void setEnvironment(const std::string& name, const std::string& value) {
        overrides_[name] = value;
    }
    // Runs the binary through this prefix (a shell that sets a limit, then execs "$@").
    void setWrapper(std::vector<std::string> prefix) { wrapper_ = std::move(prefix); }

    // `stonewall args... --container <root>/container` (unless withContainer is false).
    RunResult run(std::vector<std::string> args, const std::string& stdinText = {},
                  bool withContainer = true) const;
    BackgroundProcess start(std::vector<std::string> args, bool withContainer = true,
                            const std::string& stdinText = {}) const;
    // Another program (args[0] is its path) in the same sandbox.
    BackgroundProcess startProgram(std::vector<std::string> args) const;

  private:
    BackgroundProcess startProgram(std::vector<std::string> args,
                                   const std::string& stdinText) const;

    std::filesystem::path root_;
    std::map<std::string, std::string> overrides_;
    std::vector<std::string> wrapper_;
};

// A command line and its outcome, for failure messages.
std::string describe(const std::vector<std::string>& args, const RunResult& result);

}  // namespace stonewall::tool::testing
