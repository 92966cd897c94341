// What every fuzz target shares: the entry point that libFuzzer and the corpus
// replay call, and a check that ends the program.

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>

#include "core/bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace norvel {

// A broken promise of the code under test; kept in every build.
inline void require(bool holds) {
  if (!holds) {
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
