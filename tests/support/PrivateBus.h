#pragma once

// A dbus-daemon of the test's own, listening in a folder of the test, so that
// the test neither needs nor disturbs a desktop session.

#include <signal.h>

#include <cstdio>
#include <filesystem>
#include <string>

namespace stonewall::test_support {

class PrivateBus {
  public:
    // The daemon forks away once it listens and prints its process id. Its
    // chatter (it cannot raise its file limit without privileges) goes to a
    // file of its own rather than into the test output.
    explicit PrivateBus(const std::filesystem::path& folder) {
        std::filesystem::create_directories(folder);
        const std::string address = "unix:path=" + (folder / "bus").string();
        const std::string command =
            "dbus-daemon --session --fork --print-pid=1 --nopidfile --nosyslog --address=" +
            address + " 2>" + (folder / "bus.log").string();
        if (FILE* output = ::popen(command.c_str(), "r")) {
            if (std::fscanf(output, "%d", &pid_) != 1) pid_ = -1;
            if (::pclose(output) == 0 && pid_ > 0) address_ = address;
        }
    }
    ~PrivateBus() {
        if (pid_ > 0) ::kill(pid_, SIGTERM);
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
