#pragma once

// The fixture of the tests that run the real browser: a container made by the
// real command, the page server, and the browser started on it with a home,
// XDG folders and the container of its own, under scripts/with-display.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "BrowserHarness.h"
#include "ToolTestSupport.h"

namespace stonewall::browser::testing {

// A command to send (none when empty) and the event prefix to wait for.
using Step = std::pair<std::string, std::string>;

class BrowserProgramTest : public tool::testing::ToolTest {
  protected:
    explicit BrowserProgramTest(std::map<std::string, std::pair<std::string, std::string>> files)
        : server_(std::move(files)) {}

    void SetUp() override {
        if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY")) {
            FAIL() << "No display: run the browser tests through scripts/with-display "
                      "(dbus-run-session and xvfb-run, installed by scripts/setup).";
        }
        createContainer();
    }

    // The browser's environment, with `extra` laid over it.
    std::map<std::string, std::string> browserEnvironment(
        const std::map<std::string, std::string>& extra = {}) {
        auto environment = sandboxEnvironment(runner().root(), container());
        environment["GSK_RENDERER"] = "cairo";
        // GTK and fontconfig keep caches for the life of the process.
        environment["ASAN_OPTIONS"] = "detect_leaks=0";
        for (const auto& [name, value] : extra) environment[name] = value;
        return environment;
    }

    // Starts the browser on `url` and waits until the page is loaded.
    void startBrowser(const std::string& url,
                      const std::map<std::string, std::string>& extra = {}) {
        browser_.emplace(STONEWALL_BROWSER_BINARY, std::vector<std::string>{"--control", url},
                         browserEnvironment(extra));
        expect("ready");
        expect("loaded " + url);
    }

    std::string expect(const std::string& prefix,
                       std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
        auto line = browser_->waitFor(prefix, timeout);
        if (!line) {
            ADD_FAILURE() << "no \"" << prefix << "\"; the browser said:\n"
                          << browser_->transcript();
            return {};
        }
        return *line;
    }

    void run(const std::vector<Step>& steps) {
        for (const auto& [command, event] : steps) {
            if (!command.empty()) browser_->send(command);
            if (expect(event).empty()) return;
        }
    }

    // The value a page expression gives, as JSON text.
    std::string evaluate(const std::string& expression) {
        browser_->send("js " + expression);
        const std::string line = expect("js");
        return line.size() > 3 ? line.substr(3) : line;
    }

    HttpServer server_;
    std::optional<BrowserProcess> browser_;
};

}  // namespace stonewall::browser::testing
