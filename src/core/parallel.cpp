#include "core/parallel.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <thread>
#include <vector>

namespace norvel {

namespace {

// A thread costs about as much as a tenth of a signature check, so it pays from the second turn on.
size_t thread_count(size_t turns) {
  const size_t cores = std::max<size_t>(std::thread::hardware_concurrency(), 1);
  return std::min(cores, turns);
}

}  // namespace

void parallel_for(size_t count, const std::function<void(size_t)>& work) {
  std::atomic<size_t> next{0};
  std::atomic_flag has_failed;
  std::exception_ptr failure;  // written by whoever sets has_failed, read after all threads have ended
  const auto take_turns = [&] {
    try {
      for (size_t i = next++; i < count; i = next++) {
        work(i);
      }
    } catch (...) {
      next = count;
      if (!has_failed.test_and_set()) {
        failure = std::current_exception();
      }
    }
  };
  {
    std::vector<std::jthread> helpers;
    const size_t threads = thread_count(count);
    try {
      helpers.reserve(threads);
      while (helpers.size() + 1 < threads) {
        helpers.emplace_back(take_turns);
      }
    } catch (const std::exception&) {
      // Those that were started do the work.
    }
    take_turns();
  }
  if (failure) {
    std::rethrow_exception(failure);
  }
}

}  // namespace norvel
