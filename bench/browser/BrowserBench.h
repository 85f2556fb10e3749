#pragma once

// What the browser benches share: a sandbox of their own for the browser and
// the command, and the command run quietly inside it.

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "BrowserHarness.h"

namespace stonewall::browser::testing {

// The sandbox under `root`, with the build's resources.
inline std::map<std::string, std::string> benchEnvironment(const std::filesystem::path& root) {
    auto environment = sandboxEnvironment(root, root / "container");
    environment["STONEWALL_RESOURCES"] = STONEWALL_BUILD_RESOURCES;
    return environment;
}

// Runs `stonewall args` in that sandbox with its output discarded; its exit
// status as std::system gives it.
inline int runStonewall(const std::map<std::string, std::string>& environment,
                        const std::string& args) {
    std::string command;
    for (const auto& [name, value] : environment) command += name + "='" + value + "' ";
    return std::system((command + STONEWALL_BINARY + " " + args + " >/dev/null").c_str());
}

}  // namespace stonewall::browser::testing
