#include "core/pending_signals.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <string_view>
#include <system_error>

namespace norvel {

namespace {

constexpr char kOwnThreads[] = "/proc/self/task";
constexpr std::string_view kPendingField = "SigPnd:";  // hexadecimal; bit n - 1 is signal n

uint64_t to_bits(const sigset_t& signals) {
  uint64_t bits = 0;
  for (int number = 1; number <= 64; ++number) {
    bits |= sigismember(&signals, number) == 1 ? uint64_t{1} << (number - 1) : 0;
  }
  return bits;
}

uint64_t pending_bits(const std::filesystem::path& thread) {
  std::ifstream status(thread / "status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(kPendingField)) {
      return std::stoull(line.substr(kPendingField.size()), nullptr, 16);
    }
  }
  return 0;  // has ended meanwhile
}

}  // namespace

bool is_pending_in_a_thread(const sigset_t& signals) try {
  const uint64_t wanted = to_bits(signals);
  std::error_code failure;
  std::filesystem::directory_iterator thread(kOwnThreads, failure);
  for (; !failure && thread != std::filesystem::directory_iterator(); thread.increment(failure)) {
    if ((pending_bits(thread->path()) & wanted) != 0) {
      return true;
    }
  }
  return false;
} catch (const std::bad_alloc&) {
  return false;  // the next look may fare better
}

}  // namespace norvel
