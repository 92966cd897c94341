// A library to preload: adds the seconds that the file NORVEL_CLOCK_FILE holds,
// a signed 64-bit number of this machine, to every reading of the wall clock.
// The file is mapped: who writes it moves the clocks of all processes at once.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <time.h>

#include <cstdint>
#include <cstdlib>

namespace {

const volatile int64_t* map_offset() {
  const int fd = open(std::getenv("NORVEL_CLOCK_FILE"), O_RDONLY | O_CLOEXEC);
  void* const page = mmap(nullptr, sizeof(int64_t), PROT_READ, MAP_SHARED, fd, 0);
  return page == MAP_FAILED ? nullptr : static_cast<const volatile int64_t*>(page);
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  static auto* const call = reinterpret_cast<decltype(&clock_gettime)>(dlsym(RTLD_NEXT, "clock_gettime"));
  static const volatile int64_t* const offset_s = map_offset();
  const int result = call(clock, now);
  if (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE) {
    now->tv_sec += *offset_s;
  }
  return result;
}

int gettimeofday(timeval* now, void*) noexcept {
  timespec precise = {};
  const int result = clock_gettime(CLOCK_REALTIME, &precise);
  *now = {precise.tv_sec, precise.tv_nsec / 1'000};
  return result;
}

time_t time(time_t* out) noexcept {
  timespec precise = {};
  clock_gettime(CLOCK_REALTIME, &precise);
  return out == nullptr ? precise.tv_sec : *out = precise.tv_sec;
}

}  // extern "C"
