#include "mining/proof_of_work.h"

#include <cmath>

#include "consensus/difficulty.h"

namespace norvel::mining {

uint256 calculate_block_hash(const BlockHeader& header) {
  return header.get_hash();
}

bool check_hash_meets_target(const uint256& hash, uint32_t bits) {
  return hash <= difficulty::bits_to_target(bits);
}

double estimate_time_to_block(double hashrate, uint32_t bits) {
  if (!(hashrate > 0)) {
    return -1;
  }
  const int leading_zeros = 255 - difficulty::bits_to_target(bits).highest_bit();
  return std::ldexp(1.0, leading_zeros) / hashrate;
}

}  // namespace norvel::mining
