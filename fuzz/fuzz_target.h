// What every fuzz target shares: the entry point that libFuzzer and the corpus
// replay call, and a check that ends the program.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "core/bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace norvel {

// A broken promise of the code under test; kept in every build. Names the caller's line.
inline void require(bool holds, const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
  if (!holds) {
    std::fprintf(stderr, "%s:%d: does not hold\n", file, line);
    std::abort();
  }
}

// What `decode` accepts must encode to bytes that decode to the same bytes again.
template <class Decode>
void check_fixed_point(ByteView data, Decode decode) {
  Bytes first;
  try {
    first = decode(data).serialize();
  } catch (const std::exception&) {
    return;
  }
  require(decode(first).serialize() == first);
}

}  // namespace norvel
