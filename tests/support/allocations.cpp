#include "support/allocations.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

using norvel::allocations;

// Not inlined: the compiler would take malloc and free for a mismatched pair.
[[gnu::noinline]] void* operator new(size_t size) {
  const uint64_t number = ++allocations.count;
  const bool fails = number >= allocations.first_failing && number <= allocations.last_failing;
  void* memory = fails ? nullptr : std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  allocations.largest_bytes = std::max(allocations.largest_bytes, size);
  allocations.live_bytes += malloc_usable_size(memory) + sizeof(size_t);
  allocations.peak_bytes = std::max(allocations.peak_bytes, allocations.live_bytes);
  return memory;
}

// Of those who can do with less; from malloc too, as the operators below free it.
void* operator new(size_t size, const std::nothrow_t& /*unused*/) noexcept {
  return std::malloc(size);
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
  allocations.live_bytes -= memory == nullptr ? 0 : malloc_usable_size(memory) + sizeof(size_t);
  std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
  operator delete(memory);
}
