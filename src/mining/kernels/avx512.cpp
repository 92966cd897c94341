#if defined(__AVX512F__) && defined(__AVX512BW__)

#include <immintrin.h>

#include "mining/kernels/kernels.h"
#include "mining/kernels/lane_walk.h"

namespace norvel::mining::kernels {

namespace {

// Any function of three bits is one instruction; its table has bit 4x + 2y + z.
constexpr int kXor3 = 0x96;
constexpr int kChoose = 0xca;
constexpr int kMajority = 0xe8;

// The compiler's own vectors for what it knows by itself, which are shifts,
// rotations and sums: g++ 12 warns about its intrinsics for them.
using Words [[gnu::vector_size(64)]] = uint32_t;

struct Lanes {
  Words v;

  [[gnu::always_inline]] static Lanes all(uint32_t word) { return {Words{} + word}; }
};

[[gnu::always_inline]] inline Words rotate(Words x, int n) {
  return x >> n | x << (32 - n);
}

template <int table>
[[gnu::always_inline]] inline Lanes combine(Words x, Words y, Words z) {
  const __m512i word = _mm512_ternarylogic_epi32(reinterpret_cast<__m512i>(x), reinterpret_cast<__m512i>(y),
                                                 reinterpret_cast<__m512i>(z), table);
  return {reinterpret_cast<Words>(word)};
}

[[gnu::always_inline]] inline Lanes operator+(Lanes x, Lanes y) {
  return {x.v + y.v};
}

[[gnu::always_inline]] inline Lanes big_sigma0(Lanes x) {
  return combine<kXor3>(rotate(x.v, 2), rotate(x.v, 13), rotate(x.v, 22));
}

[[gnu::always_inline]] inline Lanes big_sigma1(Lanes x) {
  return combine<kXor3>(rotate(x.v, 6), rotate(x.v, 11), rotate(x.v, 25));
}

[[gnu::always_inline]] inline Lanes small_sigma0(Lanes x) {
  return combine<kXor3>(rotate(x.v, 7), rotate(x.v, 18), x.v >> 3);
}

[[gnu::always_inline]] inline Lanes small_sigma1(Lanes x) {
  return combine<kXor3>(rotate(x.v, 17), rotate(x.v, 19), x.v >> 10);
}

[[gnu::always_inline]] inline Lanes choose(Lanes e, Lanes f, Lanes g) {
  return combine<kChoose>(e.v, f.v, g.v);
}

[[gnu::always_inline]] inline Lanes majority(Lanes a, Lanes b, Lanes c, Lanes& /*pair*/) {
  return combine<kMajority>(a.v, b.v, c.v);
}

[[gnu::always_inline]] inline Words swap_bytes(Words x) {
  const __m512i order = _mm512_set4_epi32(0x0c0d0e0f, 0x08090a0b, 0x04050607, 0x00010203);
  return reinterpret_cast<Words>(_mm512_shuffle_epi8(reinterpret_cast<__m512i>(x), order));
}

}  // namespace

uint32_t test_group_avx512(const PreparedWords& header, uint32_t first_nonce, uint32_t stride) {
  const Words numbers{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  const Lanes nonces{swap_bytes(numbers * stride + first_nonce)};
  const Lanes last = last_digest_words(header, nonces);
  const Words top = swap_bytes(last.v);
  return _mm512_cmple_epu32_mask(reinterpret_cast<__m512i>(top),
                                 reinterpret_cast<__m512i>(Lanes::all(header.target_top).v));
}

}  // namespace norvel::mining::kernels

#endif
