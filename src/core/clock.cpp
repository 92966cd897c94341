#include "core/clock.h"

#include <chrono>

namespace norvel {

uint64_t unix_time_seconds() {
  const auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_epoch).count();
  return seconds > 0 ? static_cast<uint64_t>(seconds) : 0;
}

}  // namespace norvel
