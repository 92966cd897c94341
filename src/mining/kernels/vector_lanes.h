// Lanes of the compiler's own vectors: registers where the instruction set has
// them, plain words elsewhere.

#pragma once

#include <cstdint>

namespace norvel::mining::kernels {

template <int kCount>
struct VectorLanes {
  using Words [[gnu::vector_size(4 * kCount)]] = uint32_t;

  Words v;

  [[gnu::always_inline]] static Words rotate(Words x, int n) { return x >> n | x << (32 - n); }

  [[gnu::always_inline]] friend VectorLanes operator+(VectorLanes x, VectorLanes y) { return {x.v + y.v}; }

  [[gnu::always_inline]] friend VectorLanes big_sigma0(VectorLanes x) {
    return {rotate(x.v, 2) ^ rotate(x.v, 13) ^ rotate(x.v, 22)};
  }

  [[gnu::always_inline]] friend VectorLanes big_sigma1(VectorLanes x) {
    return {rotate(x.v, 6) ^ rotate(x.v, 11) ^ rotate(x.v, 25)};
  }

  [[gnu::always_inline]] friend VectorLanes small_sigma0(VectorLanes x) {
    return {rotate(x.v, 7) ^ rotate(x.v, 18) ^ x.v >> 3};
  }

  [[gnu::always_inline]] friend VectorLanes small_sigma1(VectorLanes x) {
    return {rotate(x.v, 17) ^ rotate(x.v, 19) ^ x.v >> 10};
  }

  [[gnu::always_inline]] friend VectorLanes choose(VectorLanes e, VectorLanes f, VectorLanes g) {
    return {g.v ^ (e.v & (f.v ^ g.v))};
  }

  // b ^ ((a ^ b) & (b ^ c)): of the two in brackets, the round before made one.
  [[gnu::always_inline]] friend VectorLanes majority(VectorLanes a, VectorLanes b, VectorLanes /*c*/,
                                                     VectorLanes& pair) {
    const Words b_xor_c = pair.v;
    pair.v = a.v ^ b.v;
    return {b.v ^ (pair.v & b_xor_c)};
  }

  // The same word in all lanes.
  [[gnu::always_inline]] static VectorLanes all(uint32_t word) { return {Words{} + word}; }
};

}  // namespace norvel::mining::kernels
