#pragma once

// The browser and toolkit services of the extension front, installed once
// per process beside the process services of platform/Platform.h (by the
// browser's main() or a test fixture) before the front is used.

#include <memory>

#include "extension/platform/SafariServices.h"
#include "extension/platform/Toolkit.h"

namespace stonewall::platform {

struct FrontServices {
    std::shared_ptr<SFSafariApplication> application;
    std::shared_ptr<NSWorkspace> workspace;
    std::shared_ptr<Toolkit> toolkit;
};

// Replaces the installed set and returns the previous one.
FrontServices installFront(FrontServices services);
const FrontServices& installedFront();

// Using a service that is not installed is a programming error and aborts
// with a message naming it.
SFSafariApplication& safariApplication();
NSWorkspace& sharedWorkspace();
Toolkit& toolkit();

// Installs a set for the lifetime of the object (tests).
class ScopedFrontServices {
  public:
    explicit ScopedFrontServices(FrontServices services)
        : previous_(installFront(std::move(services))) {}
    ~ScopedFrontServices() { installFront(std::move(previous_)); }
    ScopedFrontServices(const ScopedFrontServices&) = delete;
    ScopedFrontServices& operator=(const ScopedFrontServices&) = delete;

  private:
    FrontServices previous_;
};

}  // namespace stonewall::platform
