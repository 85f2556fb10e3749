#pragma once

// A line on stderr that tells people what a slow command is doing while they
// wait: nothing for the first second, then the stage, a bar or a count when
// the stage has one, and the time so far, redrawn ten times a second and
// wiped before the report is printed. Only on a terminal, never with --json
// or -v, so scripts, pipes and debug logs see exactly what they saw before.
//
// One per process, started by run() once the command line is parsed; the
// stage and count setters may be called from any thread, and do nothing
// when no line is shown.

#include <cstdint>
#include <string>

namespace stonewall::tool::progress {

// `wanted`: the command may show a line (a terminal on stderr, no --json or
// -v). $STONEWALL_PROGRESS_DELAY_MS sets the quiet time (default 1000).
void start(bool wanted, std::string firstStage);
// Wipes the line and ends the drawing thread.
void stop();

void stage(std::string text);
// `total` <= 0: the total is not known, only the count is shown.
void count(int64_t done, int64_t total);

// What the line says now ("compiling and reloading  [####      ] 3/8  2.1 s"),
// without the terminal codes around it; for the tests.
[[nodiscard]] std::string lineForTesting(const std::string& stage, int64_t done, int64_t total,
                                         double seconds);

}  // namespace stonewall::tool::progress
