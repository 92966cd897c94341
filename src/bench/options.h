// The command line of norvel-bench. Threads: no state.

#pragma once

#include <string>
#include <vector>

namespace norvel::bench {

struct Options {
  bool json = false;
  double run_seconds = 0.5;   // of each of the runs whose median a row shows
  std::string text_to_print;  // with --help or --version, and nothing else is to be done
};

// Reads the arguments that follow the program's name. Throws std::runtime_error
// with the reason when they are no such options.
Options parse_options(const std::vector<std::string>& arguments);

}  // namespace norvel::bench
