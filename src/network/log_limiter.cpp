#include "network/log_limiter.h"

#include <exception>

#include "core/console.h"

namespace norvel::network {

namespace {

std::string with_count(std::string_view text, int64_t left_out) {
  std::string line(text);
  if (left_out > 0) {
    line += " (" + std::to_string(left_out) + " like it left out)";
  }
  return line;
}

}  // namespace

void LogLimiter::out(std::string_view kind, std::string_view text) {
  if (const int64_t left_out = admit(kind); left_out >= 0) {
    console::write_out(with_count(text, left_out) + "\n");
  }
}

void LogLimiter::error(std::string_view kind, std::string_view text) {
  if (const int64_t left_out = admit(kind); left_out >= 0) {
    console::error_line(with_count(text, left_out));
  }
}

void LogLimiter::failure(std::string_view kind, std::string_view what, std::string_view reason) noexcept {
  try {
    error(kind, "[Network] " + std::string(what) + ": " + std::string(reason));
  } catch (const std::exception&) {
    return;  // no memory for the line either
  }
}

int64_t LogLimiter::admit(std::string_view kind) {
  const int64_t second = clock_.now();
  const MutexLock lock(mutex_);
  auto at = windows_.find(kind);
  if (at == windows_.end()) {
    at = windows_.emplace(kind, Window{}).first;
  }
  Window& window = at->second;
  if (window.second != second) {
    window.second = second;
    window.count = 0;
  }
  if (window.count == kLinesPerSecondMax) {
    ++window.left_out;
    return -1;
  }
  ++window.count;
  const auto left_out = static_cast<int64_t>(window.left_out);
  window.left_out = 0;
  return left_out;
}

}  // namespace norvel::network
