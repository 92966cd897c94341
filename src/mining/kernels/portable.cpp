#include "mining/kernels/kernels.h"
#include "mining/kernels/lane_walk.h"
#include "mining/kernels/vector_lanes.h"

namespace norvel::mining::kernels {

uint32_t test_group_portable(const PreparedWords& header, uint32_t first_nonce, uint32_t stride) {
  constexpr int kLanes = 4;
  using Lanes = VectorLanes<kLanes>;
  Lanes nonces{};
  for (uint32_t i = 0; i < kLanes; ++i) {
    nonces.v[i] = __builtin_bswap32(first_nonce + i * stride);
  }
  const Lanes last = last_digest_words(header, nonces);
  uint32_t hits = 0;
  for (uint32_t i = 0; i < kLanes; ++i) {
    hits |= uint32_t{__builtin_bswap32(last.v[i]) <= header.target_top} << i;
  }
  return hits;
}

}  // namespace norvel::mining::kernels
