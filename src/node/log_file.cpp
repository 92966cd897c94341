#include "node/log_file.h"

#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

namespace norvel::node {

namespace {

std::string time_stamp(int64_t unix_time_ms) {
  const std::time_t seconds = unix_time_ms / 1'000;
  std::tm utc = {};
  gmtime_r(&seconds, &utc);
  char date[32] = {};
  const size_t length = std::strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &utc);
  char fraction[16] = {};
  std::snprintf(fraction, sizeof(fraction), ".%03dZ ", static_cast<int>(unix_time_ms % 1'000));
  return std::string(date, length) + fraction;
}

int64_t wall_clock_ms() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

}  // namespace

std::string stamp_lines(std::string_view text, int64_t unix_time_ms, bool& at_line_start) {
  const std::string stamp = time_stamp(unix_time_ms);
  std::string out;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end == std::string_view::npos ? text.size() : end + 1);
    if (at_line_start) {
      out += stamp;
    }
    out += line;
    at_line_start = line.back() == '\n';
    text.remove_prefix(line.size());
  }
  return out;
}

bool LogFile::reopen(std::string& error) {
  // Not waiting for the reader of a pipe.
  FileDescriptor file = open_file(path_, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK);
  if (!file.is_open()) {
    error = "log file " + path_ + ": " + std::strerror(errno);
    return false;
  }
  const MutexLock lock(mutex_);
  std::swap(file_, file);
  at_line_start_ = true;
  return true;
}

void LogFile::append(std::string_view text) {
  const MutexLock lock(mutex_);
  if (!file_.is_open()) {
    return;
  }
  try {
    const std::string stamped = stamp_lines(text, wall_clock_ms(), at_line_start_);
    const bool whole = write_all(file_.get(), {reinterpret_cast<const uint8_t*>(stamped.data()), stamped.size()});
    at_line_start_ = at_line_start_ || !whole;  // what follows a cut has its time too
  } catch (const std::bad_alloc&) {
    // This piece is lost.
  }
}

}  // namespace norvel::node
