#pragma once

namespace stonewall::tool {

// Parses the command line, runs the subcommand and prints its report;
// returns the process's exit code (see ExitCode).
int run(int argc, char** argv);

}  // namespace stonewall::tool
