#include "core/descriptor_limit.h"

#include <sys/resource.h>

#include <algorithm>
#include <limits>

namespace norvel {

uint64_t descriptor_limit() {
  rlimit limit{};
  return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : std::numeric_limits<uint64_t>::max();
}

void raise_descriptor_limit(uint64_t wanted) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted) {
    limit.rlim_cur = std::min<rlim_t>(wanted, limit.rlim_max);
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace norvel
