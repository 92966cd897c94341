// What the kernels read of a header: plain words, no code.

#pragma once

#include <cstdint>

namespace norvel::mining::kernels {

// How many words a LaneWalk lifts.
constexpr int kLiftedCount = 160;

struct PreparedWords {
  // What a LaneWalk lifts, in its order.
  alignas(64) uint32_t lifted[kLiftedCount];

  // Of the header's second block: words 0 to 3 and 16 to 18 of its schedule.
  uint32_t w[4];
  uint32_t w16, w17, w18;

  uint32_t target_top;   // the target's most significant 32 bits
  uint32_t midstate[8];  // after the header's first block
  uint32_t fourth[8];    // a to h after four rounds of the second
};

}  // namespace norvel::mining::kernels
