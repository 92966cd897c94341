// The file that holds the RPC password, so that it stands on no command line.
//
// Threads: free functions without state.

#pragma once

#include <cstddef>
#include <string>

namespace norvel {

inline constexpr size_t kPasswordBytesMax = 1'000;

struct Password {
  std::string text;                 // one line, without its end
  bool readable_by_others = false;  // group or others may read the file
};

// Throws std::runtime_error with a line for the user when the file cannot be
// read, is empty, longer than kPasswordBytesMax, or has a second line.
Password read_password(const std::string& path);

}  // namespace norvel
