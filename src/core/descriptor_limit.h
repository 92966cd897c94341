// How many descriptors the process may have open (RLIMIT_NOFILE), so that those
// who connect leave some to its files.
//
// Threads: a free function without state.

#pragma once

#include <cstdint>

namespace norvel {

// The limit as it is now; the greatest number when there is none.
uint64_t descriptor_limit();

// Raises the soft limit to `wanted`, or as far as the hard one lets it.
void raise_descriptor_limit(uint64_t wanted);

}  // namespace norvel
