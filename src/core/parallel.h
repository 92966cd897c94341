// A loop whose turns are independent of one another, spread over the cores.

#pragma once

#include <cstddef>
#include <functional>

namespace norvel {

// Calls `work` once with each number of [0, count), begun in ascending order, on
// as many threads as there are cores, the caller's among them; they end with the
// call. A single turn, or all of them where the system gives no threads, are the
// caller's. After an exception no further turns begin, and it is thrown here once
// the running ones have ended.
void parallel_for(size_t count, const std::function<void(size_t)>& work);

}  // namespace norvel
