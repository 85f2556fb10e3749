#pragma once

// The browser's control channel: with --control it reads one command per
// line on stdin and answers with event lines on stdout. Tests and the timing
// runs drive the real program through it, along the same code paths as a
// user. The commands are the rows of the table in ControlChannel.cpp, each
// with the argument it takes and what it answers; a command answers
// "done COMMAND" once it has done its work, unless its row says otherwise,
// and "error COMMAND ARGUMENT" when it is unknown, its argument is not one
// it takes, or it could not be done.
//
// Events, besides the answers: ready, loaded URL, image NAME, badge
// TEXT|none, view N, message NAME, message-rejected, blocked URL,
// page-reload, open-url URL, popover-closed, filter on|off|allow,
// web-process-terminated crashed|memory|ended, reload-error TEXT, and
// timing NAME MS (popover-shown: click to the popover's first frame;
// badge-shown: blocked-load report to the badge's frame; page-load: start
// to finish of a main-frame load).
//
// Main thread only; the window owns the channel.

#include <gtk/gtk.h>

#include <functional>
#include <span>
#include <string>

namespace stonewall::browser {

class BrowserWindow;

class ControlChannel {
  public:
    // Starts reading stdin and says "ready". At the end of stdin (the
    // driver is gone) the application quits.
    explicit ControlChannel(BrowserWindow& window);
    ~ControlChannel();
    ControlChannel(const ControlChannel&) = delete;
    ControlChannel& operator=(const ControlChannel&) = delete;

  private:
    struct Command;
    static std::span<const Command> commands();

    void readNextLine();
    void run(const std::string& line);
    // Runs `work` once the window has drawn its next frame, outside the
    // paint cycle: the last command's layout and style are settled then.
    void afterNextFrame(std::function<void()> work);
    // Answers "js RESULT-JSON" (or "js-error MESSAGE") for `script`, run in
    // the current tab's page in its own world, or in `world`.
    void evaluateInPage(const std::string& script, const char* world);
    void snapshotWindow(const std::string& path);
    void snapshotPopover(const std::string& path, int framesLeft);
    bool savePopover(const std::string& path);
    bool saveWindow(const std::string& path, GtkWidget* pageView, GdkTexture* page);
    std::string clippedLine();
    std::string paletteLine();
    std::string stateLine();

    BrowserWindow& window_;
    GDataInputStream* input_ = nullptr;
    GCancellable* cancellable_ = nullptr;
};

}  // namespace stonewall::browser
