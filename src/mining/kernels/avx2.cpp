#if defined(__AVX2__)

#include <immintrin.h>

#include "mining/kernels/kernels.h"
#include "mining/kernels/lane_walk.h"
#include "mining/kernels/vector_lanes.h"

namespace norvel::mining::kernels {

namespace {

using Lanes = VectorLanes<8>;

[[gnu::always_inline]] inline __m256i swap_bytes(Lanes x) {
  const __m256i order = _mm256_setr_epi8(3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12,  //
                                         3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8, 15, 14, 13, 12);
  return _mm256_shuffle_epi8(reinterpret_cast<__m256i>(x.v), order);
}

}  // namespace

uint32_t test_group_avx2(const PreparedWords& header, uint32_t first_nonce, uint32_t stride) {
  const Lanes numbers{{0, 1, 2, 3, 4, 5, 6, 7}};
  const Lanes nonces{reinterpret_cast<Lanes::Words>(swap_bytes({numbers.v * stride + first_nonce}))};
  const Lanes last = last_digest_words(header, nonces);
  const __m256i top = swap_bytes(last);
  const __m256i target_top = _mm256_set1_epi32(static_cast<int>(header.target_top));
  const __m256i at_most = _mm256_cmpeq_epi32(_mm256_min_epu32(top, target_top), top);
  return static_cast<uint32_t>(_mm256_movemask_ps(_mm256_castsi256_ps(at_most)));
}

}  // namespace norvel::mining::kernels

#endif
