// Both compressions of a header hash, from the nonce to the digest's last word,
// on several nonces at once.
//
// Words that no nonce changes meet the others by addition only, apart from a
// few; so sums of them are made beforehand. The walk names each such sum where it
// is used; one run of it with a `lift` that stores them prepares a header, and the
// searches take them from there in the same order, so that what computes them
// here is dead code to them.
//
// Lanes is a vector of 32-bit words with +, the six functions of SHA-256 and
// all(), which makes one of a word; its majority() also gets b ^ c, which it
// may replace by a ^ b for the next round.
//
// The header's second block holds the words 0 to 3 (end of the Merkle root, time,
// bits), the nonce, the padding and its length; that of the second hash holds the
// digest, the padding and its length.

#pragma once

#include <cstdint>

#include "mining/kernels/prepared_words.h"
#include "mining/kernels/sha256_words.h"

namespace norvel::mining::kernels {

template <class Lanes, class Lift>
class LaneWalk {
 public:
  // `lift` makes lanes of a fixed word.
  [[gnu::always_inline]] LaneWalk(const PreparedWords& fixed, const Lift& lift) : fixed_(fixed), lift_(lift) {}

  // `nonce` as the message holds it: the bytes of the header's nonce, big-endian.
  [[gnu::always_inline]] Lanes last_digest_word(Lanes nonce) {
    hash_header(nonce);
    hash_digest();
    return digest_end_;
  }

 private:
  // The registers stand still while their names move on: `i` is 0 for a, 7 for h,
  // before round t.
  template <int t>
  [[gnu::always_inline]] Lanes& reg(int i) {
    return state_[(i - t) & 7];
  }

  template <int t>
  [[gnu::always_inline]] Lanes& word() {
    return w_[t & 15];
  }

  // Round t without `a`; `start` is h, the message word and the constant together.
  template <int t>
  [[gnu::always_inline]] Lanes half_round(Lanes start) {
    const Lanes e = reg<t>(4);
    const Lanes t1 = (start + choose(e, reg<t>(5), reg<t>(6))) + big_sigma1(e);
    reg<t>(3) = reg<t>(3) + t1;
    return t1;
  }

  template <int t>
  [[gnu::always_inline]] void round(Lanes start) {
    const Lanes t1 = half_round<t>(start);
    const Lanes a = reg<t>(0);
    reg<t>(7) = t1 + (big_sigma0(a) + majority(a, reg<t>(1), reg<t>(2), pair_));
  }

  template <int t>
  [[gnu::always_inline]] void round_of_word() {
    const Lanes start = reg<t>(7) + word<t>();
    round<t>(start + lift_(kRoundConstants[t]));
  }

  template <int t>
  [[gnu::always_inline]] void round_of_fixed(uint32_t word_t) {
    round<t>(reg<t>(7) + lift_(kRoundConstants[t] + word_t));
  }

  // Word t of the schedule, all of whose four sources depend on the nonce.
  template <int t>
  [[gnu::always_inline]] void next_word() {
    word<t>() = (word<t>() + small_sigma0(word<t - 15>())) + (word<t - 7>() + small_sigma1(word<t - 2>()));
  }

  template <int t, int end>
  [[gnu::always_inline]] void rounds_of_schedule() {
    if constexpr (t < end) {
      next_word<t>();
      round_of_word<t>();
      rounds_of_schedule<t + 1, end>();
    }
  }

  // As rounds_of_schedule, for words whose two early sources are zero.
  template <int t, int end>
  [[gnu::always_inline]] void rounds_of_short_words() {
    if constexpr (t < end) {
      word<t>() = small_sigma1(word<t - 2>()) + word<t - 7>();
      round_of_word<t>();
      rounds_of_short_words<t + 1, end>();
    }
  }

  // Rounds t to 15 with nothing but a message's padding: `last` is its length.
  template <int t>
  [[gnu::always_inline]] void rounds_of_padding(uint32_t last) {
    if constexpr (t < 16) {
      round_of_fixed<t>(t == 15 ? last : 0);
      rounds_of_padding<t + 1>(last);
    }
  }

  // Round t, the first that the nonce reaches, from `s` (a to h) through its
  // message word. Of `s`, what later rounds want becomes lanes; they find h in no
  // register for three more.
  template <int t>
  [[gnu::always_inline]] void enter(const uint32_t (&s)[8], Lanes word_t) {
    const uint32_t t1 = s[7] + big_sigma1(s[4]) + choose(s[4], s[5], s[6]) + kRoundConstants[t];
    const uint32_t t2 = big_sigma0(s[0]) + majority(s[0], s[1], s[2]);
    reg<t + 1>(0) = word_t + lift_(t1 + t2);
    reg<t + 1>(1) = lift_(s[0]);
    reg<t + 1>(2) = lift_(s[1]);
    reg<t + 1>(3) = lift_(s[2]);
    reg<t + 1>(4) = word_t + lift_(t1 + s[3]);
    reg<t + 1>(5) = lift_(s[4]);
    reg<t + 1>(6) = lift_(s[5]);
    pair_ = lift_(s[0] ^ s[1]);
  }

  [[gnu::always_inline]] void hash_header(Lanes nonce) {
    const uint32_t(&s)[8] = fixed_.fourth;
    enter<4>(s, nonce);
    round<5>(lift_(kRoundConstants[5] + kPaddingWord + s[6]));
    round<6>(lift_(kRoundConstants[6] + s[5]));
    round<7>(lift_(kRoundConstants[7] + s[4]));
    rounds_of_padding<8>(kHeaderBits);
    round_of_fixed<16>(fixed_.w16);
    round_of_fixed<17>(fixed_.w17);
    round_of_fixed<18>(fixed_.w18);
    word<19>() = small_sigma0(nonce) + lift_(small_sigma1(fixed_.w17) + fixed_.w[3]);
    round_of_word<19>();
    word<20>() = nonce + lift_(small_sigma1(fixed_.w18) + small_sigma0(kPaddingWord));
    round_of_word<20>();
    word<21>() = small_sigma1(word<19>()) + lift_(kPaddingWord);
    round_of_word<21>();
    word<22>() = small_sigma1(word<20>()) + lift_(kHeaderBits);
    round_of_word<22>();
    word<23>() = small_sigma1(word<21>()) + lift_(fixed_.w16);
    round_of_word<23>();
    word<24>() = small_sigma1(word<22>()) + lift_(fixed_.w17);
    round_of_word<24>();
    word<25>() = small_sigma1(word<23>()) + lift_(fixed_.w18);
    round_of_word<25>();
    rounds_of_short_words<26, 30>();
    word<30>() = small_sigma1(word<28>()) + word<23>() + lift_(small_sigma0(kHeaderBits));
    round_of_word<30>();
    word<31>() = small_sigma1(word<29>()) + word<24>() + lift_(small_sigma0(fixed_.w16) + kHeaderBits);
    round_of_word<31>();
    word<32>() = small_sigma1(word<30>()) + word<25>() + lift_(small_sigma0(fixed_.w17) + fixed_.w16);
    round_of_word<32>();
    word<33>() = small_sigma1(word<31>()) + word<26>() + lift_(small_sigma0(fixed_.w18) + fixed_.w17);
    round_of_word<33>();
    word<34>() = small_sigma1(word<32>()) + word<27>() + (small_sigma0(word<19>()) + lift_(fixed_.w18));
    round_of_word<34>();
    rounds_of_schedule<35, 63>();
    next_word<63>();
    finish_header_hash();
  }

  // Round 63 and the sums that make the digest, which are the words 0 to 7 of the
  // second hash; the round's constant goes into those of the two new registers.
  [[gnu::always_inline]] void finish_header_hash() {
    const Lanes t1 = half_round<63>(reg<63>(7) + word<63>());
    const Lanes a = reg<63>(0);
    const Lanes first = t1 + (big_sigma0(a) + majority(a, reg<63>(1), reg<63>(2), pair_));
    word<0>() = first + lift_(fixed_.midstate[0] + kRoundConstants[63]);
    word<1>() = reg<63>(0) + lift_(fixed_.midstate[1]);
    word<2>() = reg<63>(1) + lift_(fixed_.midstate[2]);
    word<3>() = reg<63>(2) + lift_(fixed_.midstate[3]);
    word<4>() = reg<63>(3) + lift_(fixed_.midstate[4] + kRoundConstants[63]);
    word<5>() = reg<63>(4) + lift_(fixed_.midstate[5]);
    word<6>() = reg<63>(5) + lift_(fixed_.midstate[6]);
    word<7>() = reg<63>(6) + lift_(fixed_.midstate[7]);
  }

  [[gnu::always_inline]] void hash_digest() {
    const uint32_t(&s)[8] = kInitialState;
    enter<0>(s, word<0>());
    round<1>(word<1>() + lift_(kRoundConstants[1] + s[6]));
    round<2>(word<2>() + lift_(kRoundConstants[2] + s[5]));
    round<3>(word<3>() + lift_(kRoundConstants[3] + s[4]));
    round_of_word<4>();
    round_of_word<5>();
    round_of_word<6>();
    round_of_word<7>();
    round_of_fixed<8>(kPaddingWord);
    rounds_of_padding<9>(kDigestBits);
    word<16>() = word<0>() + small_sigma0(word<1>());
    round_of_word<16>();
    word<17>() = word<1>() + small_sigma0(word<2>()) + lift_(small_sigma1(kDigestBits));
    round_of_word<17>();
    word<18>() = word<2>() + small_sigma0(word<3>()) + small_sigma1(word<16>());
    round_of_word<18>();
    word<19>() = word<3>() + small_sigma0(word<4>()) + small_sigma1(word<17>());
    round_of_word<19>();
    word<20>() = word<4>() + small_sigma0(word<5>()) + small_sigma1(word<18>());
    round_of_word<20>();
    word<21>() = word<5>() + small_sigma0(word<6>()) + small_sigma1(word<19>());
    round_of_word<21>();
    word<22>() = word<6>() + small_sigma0(word<7>()) + (small_sigma1(word<20>()) + lift_(kDigestBits));
    round_of_word<22>();
    word<23>() = word<7>() + word<16>() + (small_sigma1(word<21>()) + lift_(small_sigma0(kPaddingWord)));
    round_of_word<23>();
    word<24>() = small_sigma1(word<22>()) + word<17>() + lift_(kPaddingWord);
    round_of_word<24>();
    rounds_of_short_words<25, 30>();
    word<30>() = small_sigma1(word<28>()) + word<23>() + lift_(small_sigma0(kDigestBits));
    round_of_word<30>();
    word<31>() = small_sigma1(word<29>()) + word<24>() + (small_sigma0(word<16>()) + lift_(kDigestBits));
    round_of_word<31>();
    rounds_of_schedule<32, 57>();
    finish_digest_hash();
  }

  // The digest's last word is the `e` of round 60 and what h began with; no `a`
  // after round 56 reaches it.
  [[gnu::always_inline]] void finish_digest_hash() {
    next_word<57>();
    half_round<57>(reg<57>(7) + word<57>() + lift_(kRoundConstants[57]));
    next_word<58>();
    half_round<58>(reg<58>(7) + word<58>() + lift_(kRoundConstants[58]));
    next_word<59>();
    half_round<59>(reg<59>(7) + word<59>() + lift_(kRoundConstants[59]));
    next_word<60>();
    half_round<60>(reg<60>(7) + word<60>() + lift_(kRoundConstants[60] + kInitialState[7]));
    digest_end_ = reg<60>(3);
  }

  const PreparedWords& fixed_;
  const Lift& lift_;
  Lanes state_[8];
  Lanes w_[16];
  Lanes pair_;  // b ^ c of the round to come
  Lanes digest_end_;
};

// The digests' last words, for nonces as LaneWalk takes them.
template <class Lanes>
[[gnu::always_inline]] inline Lanes last_digest_words(const PreparedWords& header, Lanes nonces) {
  const uint32_t* next = header.lifted;
  const auto lift = [&next](uint32_t) __attribute__((always_inline)) {
    return Lanes::all(*next++);
  };
  return LaneWalk<Lanes, decltype(lift)>(header, lift).last_digest_word(nonces);
}

}  // namespace norvel::mining::kernels
