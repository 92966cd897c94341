// What norvel-cli does with its method: commands of its own, and any other
// method of the node.
//
// Threads: single-threaded.

#pragma once

#include "cli/options.h"

namespace norvel::cli {

// Runs the method; returns the exit status. Throws the exceptions of failures.h,
// and std::exception for what fails here.
int run_command(const CommandLine& command_line);

}  // namespace norvel::cli
