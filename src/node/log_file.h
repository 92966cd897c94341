// The log file: a second copy of all that the program prints, every line with
// its time (UTC, milliseconds).
//
// Errors: opening fails with a reason; what cannot be written is lost, as a full
// disk must not stop the program. Threads: safe from any thread.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "core/file_io.h"
#include "core/sync.h"

namespace norvel::node {

class LogFile {
 public:
  explicit LogFile(std::string path) : path_(std::move(path)) {}

  // Opens the path anew for appending, creating it with mode 0600; on failure
  // the file that was open stays and `error` says why. For log rotation.
  bool reopen(std::string& error) EXCLUDES(mutex_);

  // Appends a piece of output: lines, or parts of one. Never throws.
  void append(std::string_view text) EXCLUDES(mutex_);

 private:
  const std::string path_;

  Mutex mutex_;  // leaf but for the write itself
  FileDescriptor file_ GUARDED_BY(mutex_);
  bool at_line_start_ GUARDED_BY(mutex_) = true;
};

// `text` with "YYYY-MM-DDTHH:MM:SS.mmmZ " before each line that begins in it;
// whether one begins at its start and behind its end is kept in `at_line_start`.
std::string stamp_lines(std::string_view text, int64_t unix_time_ms, bool& at_line_start);

}  // namespace norvel::node
