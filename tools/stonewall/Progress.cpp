#include "Progress.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace stonewall::tool::progress {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBarWidth = 20;
constexpr auto kRedraw = std::chrono::milliseconds(100);

struct State {
    std::mutex mutex;
    std::condition_variable wake;
    std::thread drawer;
    bool running = false;
    bool drawn = false;
    Clock::time_point started;
    Clock::duration quiet = std::chrono::seconds(1);
    std::string stage;
    int64_t done = -1;
    int64_t total = 0;
};

State& state() {
    static auto* instance = new State();  // outlives every thread that may call in
    return *instance;
}

void draw(State& s) {
    const double seconds = std::chrono::duration<double>(Clock::now() - s.started).count();
    const std::string line = lineForTesting(s.stage, s.done, s.total, seconds);
    // Back to the line's start, the new text, the rest of the old one wiped.
    std::fprintf(stderr, "\r%s\033[K", line.c_str());
    std::fflush(stderr);
    s.drawn = true;
}

void drawLoop() {
    State& s = state();
    std::unique_lock lock(s.mutex);
    while (s.running) {
        if (Clock::now() - s.started >= s.quiet) draw(s);
        s.wake.wait_for(lock, kRedraw);
    }
}

}  // namespace

std::string lineForTesting(const std::string& stage, int64_t done, int64_t total, double seconds) {
    std::string line = stage;
    if (done >= 0 && total > 0) {
        const int64_t filled = std::min<int64_t>(kBarWidth, done * kBarWidth / total);
        line += "  [" + std::string(static_cast<size_t>(filled), '#') +
                std::string(static_cast<size_t>(kBarWidth - filled), ' ') + "] " +
                std::to_string(done) + "/" + std::to_string(total);
    } else if (done >= 0) {
        line += "  " + std::to_string(done);
    }
    char time[32];
    std::snprintf(time, sizeof time, "  %.1f s", seconds);
    return line + time;
}

void start(bool wanted, std::string firstStage) {
    if (!wanted || !::isatty(STDERR_FILENO)) return;
    State& s = state();
    std::lock_guard lock(s.mutex);
    if (s.running) return;
    if (const char* delay = std::getenv("STONEWALL_PROGRESS_DELAY_MS"); delay && *delay) {
        s.quiet = std::chrono::milliseconds(std::strtoll(delay, nullptr, 10));
    }
    s.started = Clock::now();
    s.stage = std::move(firstStage);
    s.running = true;
    s.drawer = std::thread(drawLoop);
}

void stop() {
    State& s = state();
    {
        std::lock_guard lock(s.mutex);
        if (!s.running) return;
        s.running = false;
    }
    s.wake.notify_all();
    s.drawer.join();
    std::lock_guard lock(s.mutex);
    if (s.drawn) {
        std::fputs("\r\033[K", stderr);
        std::fflush(stderr);
        s.drawn = false;
    }
}

void stage(std::string text) {
    State& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.running) return;
    s.stage = std::move(text);
    s.done = -1;
    s.total = 0;
    if (Clock::now() - s.started >= s.quiet) draw(s);
}

void count(int64_t done, int64_t total) {
    State& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.running) return;
    s.done = done;
    s.total = total;
    if (Clock::now() - s.started >= s.quiet) draw(s);
}

}  // namespace stonewall::tool::progress
