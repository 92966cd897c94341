// How a command ends: each way to fail is an exception of its own, which main()
// prints and turns into the program's exit status.

#pragma once

#include <stdexcept>

namespace norvel::cli {

// Scripts read these numbers; never renumbered.
enum ExitStatus : int {
  kSuccess = 0,
  kFailure = 1,       // an error reply of the node, or the command itself failed
  kUsage = 2,         // command line, configuration or the files it names
  kNoConnection = 3,  // no node, or no whole answer from it
};

class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ConnectionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The node's own words; not printable yet.
class ErrorReply : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace norvel::cli
