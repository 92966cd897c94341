// With the SHA extensions one nonce takes a chain of instructions of four cycles
// each, of which processors start one a cycle or every second; so several nonces
// are hashed side by side, step by step.

#if defined(__SHA__) && defined(__SSE4_1__)

#include <immintrin.h>

#include "mining/kernels/kernels.h"
#include "mining/kernels/sha256_words.h"

namespace norvel::mining::kernels {

namespace {

constexpr int kStreams = 4;
constexpr int kLanes = 16;

template <int i = 0, class Step>
[[gnu::always_inline]] inline void each(const Step& step) {
  if constexpr (i < kStreams) {
    step(i);
    each<i + 1>(step);
  }
}

[[gnu::always_inline]] inline __m128i quad(uint32_t x0, uint32_t x1, uint32_t x2, uint32_t x3) {
  return _mm_setr_epi32(static_cast<int>(x0), static_cast<int>(x1), static_cast<int>(x2), static_cast<int>(x3));
}

[[gnu::always_inline]] inline __m128i load(const uint32_t* words) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(words));
}

// The registers as the instructions pair them, most significant first, of `s`, a to h.
[[gnu::always_inline]] inline __m128i abef_of(const uint32_t (&s)[8]) {
  return quad(s[5], s[4], s[1], s[0]);
}

[[gnu::always_inline]] inline __m128i cdgh_of(const uint32_t (&s)[8]) {
  return quad(s[7], s[6], s[3], s[2]);
}

// Hashes of kStreams nonces. Words of the schedule stand in quads, of which w_
// holds the last four; t is the first word of one.
class Streams {
 public:
  // `swapped` holds the nonces as the message does: their bytes, big-endian.
  [[gnu::always_inline]] void hash_header(const PreparedWords& fixed, const uint32_t (&swapped)[kStreams]) {
    enter(fixed.fourth);
    const __m128i w4 =
        quad(kRoundConstants[4], kRoundConstants[5] + kPaddingWord, kRoundConstants[6], kRoundConstants[7]);
    __m128i nonce[kStreams];
    each([&](int i) __attribute__((always_inline)) {
      nonce[i] = _mm_cvtsi32_si128(static_cast<int>(swapped[i]));
      four_rounds(i, _mm_add_epi32(w4, nonce[i]));
    });
    rounds_of_fixed<8>(quad(0, 0, 0, 0));
    rounds_of_fixed<12>(quad(0, 0, 0, kHeaderBits));
    const uint32_t w19 = small_sigma1(fixed.w17) + fixed.w[3];
    const __m128i w16 = quad(fixed.w16, fixed.w17, fixed.w18, 0);
    const __m128i w20 = quad(small_sigma0(kPaddingWord), kPaddingWord, kHeaderBits, fixed.w16);
    each([&](int i) __attribute__((always_inline)) {
      word<16>(i) = _mm_insert_epi32(w16, static_cast<int>(w19 + small_sigma0(swapped[i])), 3);
      rounds<16>(i);
      word<20>(i) = _mm_sha256msg2_epu32(_mm_add_epi32(w20, nonce[i]), word<16>(i));
      rounds<20>(i);
    });
    each([&](int i) __attribute__((always_inline)) {
      word<24>(i) = _mm_sha256msg2_epu32(seventh_before<24>(i), word<20>(i));
      rounds<24>(i);
    });
    const __m128i w28 = quad(0, 0, small_sigma0(kHeaderBits), small_sigma0(fixed.w16) + kHeaderBits);
    each([&](int i) __attribute__((always_inline)) {
      word<28>(i) = _mm_sha256msg2_epu32(_mm_add_epi32(w28, seventh_before<28>(i)), word<24>(i));
      rounds<28>(i);
    });
    rounds_of_schedule<32, 64>();
    const __m128i abef = abef_of(fixed.midstate);
    const __m128i cdgh = cdgh_of(fixed.midstate);
    each([&](int i) __attribute__((always_inline)) {
      const __m128 x = _mm_castsi128_ps(_mm_add_epi32(abef_[i], abef));
      const __m128 y = _mm_castsi128_ps(_mm_add_epi32(cdgh_[i], cdgh));
      word<0>(i) = _mm_castps_si128(_mm_shuffle_ps(x, y, _MM_SHUFFLE(2, 3, 2, 3)));
      word<4>(i) = _mm_castps_si128(_mm_shuffle_ps(x, y, _MM_SHUFFLE(0, 1, 0, 1)));
    });
  }

  // Takes word 0 to 7 from there and leaves the digest's last word, without what it is added to.
  [[gnu::always_inline]] void hash_digest() {
    enter(kInitialState);
    each([&](int i) __attribute__((always_inline)) { rounds<0>(i); });
    each([&](int i) __attribute__((always_inline)) { rounds<4>(i); });
    const __m128i w8 = quad(kPaddingWord, 0, 0, 0);
    const __m128i w12 = quad(0, 0, 0, kDigestBits);
    rounds_of_fixed<8>(w8);
    rounds_of_fixed<12>(w12);
    each([&](int i) __attribute__((always_inline)) {
      word<8>(i) = w8;
      word<12>(i) = w12;
      word<16>(i) = _mm_sha256msg2_epu32(_mm_sha256msg1_epu32(word<0>(i), word<4>(i)), w12);
      rounds<16>(i);
    });
    each([&](int i) __attribute__((always_inline)) {
      next_word<20>(i);
      rounds<20>(i);
    });
    each([&](int i) __attribute__((always_inline)) {
      word<24>(i) = _mm_sha256msg2_epu32(_mm_add_epi32(w8, seventh_before<24>(i)), word<20>(i));
      rounds<24>(i);
    });
    rounds_of_schedule<28, 60>();
    each([&](int i) __attribute__((always_inline)) {
      next_word<60>(i);
      cdgh_[i] = _mm_sha256rnds2_epu32(cdgh_[i], abef_[i], _mm_add_epi32(word<60>(i), load(&kRoundConstants[60])));
    });
  }

  // After two more rounds than the digest's last word takes, it is the `f`.
  [[gnu::always_inline]] uint32_t last_digest_word(int i) {
    return static_cast<uint32_t>(_mm_cvtsi128_si32(cdgh_[i])) + kInitialState[7];
  }

 private:
  [[gnu::always_inline]] void enter(const uint32_t (&s)[8]) {
    const __m128i abef = abef_of(s);
    const __m128i cdgh = cdgh_of(s);
    each([&](int i) __attribute__((always_inline)) {
      abef_[i] = abef;
      cdgh_[i] = cdgh;
    });
  }

  template <int t>
  [[gnu::always_inline]] __m128i& word(int i) {
    return w_[t / 4 & 3][i];
  }

  // `sum` holds four words with their constants.
  [[gnu::always_inline]] void four_rounds(int i, __m128i sum) {
    cdgh_[i] = _mm_sha256rnds2_epu32(cdgh_[i], abef_[i], sum);
    abef_[i] = _mm_sha256rnds2_epu32(abef_[i], cdgh_[i], _mm_shuffle_epi32(sum, _MM_SHUFFLE(3, 2, 3, 2)));
  }

  template <int t>
  [[gnu::always_inline]] void rounds(int i) {
    four_rounds(i, _mm_add_epi32(word<t>(i), load(&kRoundConstants[t])));
  }

  template <int t>
  [[gnu::always_inline]] void rounds_of_fixed(__m128i words) {
    const __m128i sum = _mm_add_epi32(words, load(&kRoundConstants[t]));
    each([&](int i) __attribute__((always_inline)) { four_rounds(i, sum); });
  }

  // The words that stand seven before those of quad t.
  template <int t>
  [[gnu::always_inline]] __m128i seventh_before(int i) {
    return _mm_alignr_epi8(word<t - 4>(i), word<t - 8>(i), 4);
  }

  template <int t>
  [[gnu::always_inline]] void next_word(int i) {
    const __m128i early = _mm_sha256msg1_epu32(word<t - 16>(i), word<t - 12>(i));
    word<t>(i) = _mm_sha256msg2_epu32(_mm_add_epi32(early, seventh_before<t>(i)), word<t - 4>(i));
  }

  template <int t, int end>
  [[gnu::always_inline]] void rounds_of_schedule() {
    if constexpr (t < end) {
      each([&](int i) __attribute__((always_inline)) {
        next_word<t>(i);
        rounds<t>(i);
      });
      rounds_of_schedule<t + 4, end>();
    }
  }

  __m128i abef_[kStreams];
  __m128i cdgh_[kStreams];
  __m128i w_[4][kStreams];
};

}  // namespace

uint32_t test_group_sha_ni(const PreparedWords& header, uint32_t first_nonce, uint32_t stride) {
  uint32_t hits = 0;
  for (uint32_t done = 0; done < kLanes; done += kStreams) {
    uint32_t swapped[kStreams];
    each([&](int i) __attribute__((always_inline)) {
      swapped[i] = __builtin_bswap32(first_nonce + (done + static_cast<uint32_t>(i)) * stride);
    });
    Streams streams;
    streams.hash_header(header, swapped);
    streams.hash_digest();
    each([&](int i) __attribute__((always_inline)) {
      const uint32_t top = __builtin_bswap32(streams.last_digest_word(i));
      hits |= uint32_t{top <= header.target_top} << (done + static_cast<uint32_t>(i));
    });
  }
  return hits;
}

}  // namespace norvel::mining::kernels

#endif
