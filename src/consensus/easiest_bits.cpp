// Apart from the rest of the rules, so that the library of the state tests can
// be linked with an easier target.

#include "consensus/difficulty.h"

namespace norvel::difficulty {

const uint32_t kEasiestBits = 0x1e0fffff;  // target 0x0fffff * 2^216

}  // namespace norvel::difficulty
