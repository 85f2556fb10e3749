#pragma once

// A dbus-daemon of the test's own, listening in a folder of the test, so that
// the test neither needs nor disturbs a desktop session.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace stonewall::test_support {

class PrivateBus {
  public:
    explicit PrivateBus(const std::filesystem::path& folder) {
        namespace fs = std::filesystem;
        fs::create_directories(folder);
        const fs::path socket = folder / "bus";
        std::vector<std::string> arguments = {
            "dbus-daemon", "--session",  "--nofork",
            "--nopidfile", "--nosyslog", "--address=unix:path=" + socket.string()};
        std::vector<char*> argv;
        for (auto& argument : arguments) argv.push_back(argument.data());
        argv.push_back(nullptr);
        // Its chatter (it cannot raise its file limit without privileges)
        // goes to a file of its own rather than into the test output.
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 2, (folder / "bus.log").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (posix_spawnp(&pid_, "dbus-daemon", &actions, nullptr, argv.data(), environ) != 0) {
            pid_ = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (pid_ > 0 && !fs::exists(socket) && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        if (fs::exists(socket)) address_ = "unix:path=" + socket.string();
    }
    ~PrivateBus() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    // Empty when no daemon could be started.
    const std::string& address() const { return address_; }

  private:
    pid_t pid_ = -1;
    std::string address_;
};

}  // namespace stonewall::test_support
