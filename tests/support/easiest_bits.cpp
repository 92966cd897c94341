// About 512 hashes a block instead of a million, so that tests and benches can
// mine long chains. The product of a retarget stays below 2^256.

#include "consensus/difficulty.h"

namespace norvel::difficulty {

const uint32_t kEasiestBits = 0x1f7fffff;

}  // namespace norvel::difficulty
