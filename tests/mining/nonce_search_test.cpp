// Every kernel against the digests of the whole header.

#include "mining/nonce_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "consensus/difficulty.h"

namespace norvel::mining {
namespace {

uint32_t top_word(const uint256& value) {
  return static_cast<uint32_t>((value >> 224).low64());
}

// What test_group() must give.
uint32_t expected_hits(BlockHeader header, uint32_t lanes, uint32_t first_nonce, uint32_t stride) {
  const uint32_t target_top = top_word(difficulty::bits_to_target(header.bits));
  uint32_t hits = 0;
  for (uint32_t i = 0; i < lanes; ++i) {
    header.nonce = first_nonce + i * stride;
    const bool named = top_word(header.get_hash()) <= target_top;
    EXPECT_TRUE(named || !header.check_proof_of_work());
    hits |= uint32_t{named} << i;
  }
  return hits;
}

class RandomHeaders {
 public:
  uint32_t word() { return static_cast<uint32_t>(random_()); }

  BlockHeader header(uint32_t bits) {
    BlockHeader header{word(), {}, {}, uint64_t{word()} << 32 | word(), bits, word()};
    for (uint256* field : {&header.prev_hash, &header.merkle_root}) {
      std::ranges::generate(field->bytes(), [this] { return static_cast<uint8_t>(random_()); });
    }
    return header;
  }

 private:
  std::mt19937 random_{6};
};

// One whose hash is below 2^224: with this nonce, as found by trying all.
BlockHeader header_with_zero_top() {
  BlockHeader header;
  header.prev_hash = uint256(uint64_t{0x0123456789abcdef});
  header.merkle_root = ~header.prev_hash;
  header.timestamp = 1'700'000'000;
  header.bits = 0x1d00ffff;
  header.nonce = 1'114'800'509;
  return header;
}

uint64_t pair_count() {
  const char* wanted = std::getenv("NORVEL_SEARCH_PAIRS");
#ifdef NORVEL_SANITIZED
  constexpr uint64_t kDefault = 20'000;
#else
  constexpr uint64_t kDefault = 200'000;
#endif
  return wanted != nullptr ? std::strtoull(wanted, nullptr, 10) : kDefault;
}

class Kernel : public testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    const SearchKernel* kernel = find_search_kernel(GetParam());
    if (kernel == nullptr || !kernel->runs_here()) {
      GTEST_SKIP() << "kernel " << GetParam() << " does not run on this machine";
    }
    kernel_ = *kernel;
    ASSERT_LE(kernel_.lanes, SearchKernel::kLanesMax);
  }

  void expect_agreement(const BlockHeader& header, uint32_t first_nonce, uint32_t stride) const {
    const uint32_t hits = kernel_.test_group(PreparedHeader(header), first_nonce, stride);
    EXPECT_EQ(hits, expected_hits(header, kernel_.lanes, first_nonce, stride))
        << "bits " << header.bits << ", nonces from " << first_nonce << " by " << stride;
  }

  SearchKernel kernel_{};
};

TEST_P(Kernel, AgreesWithWholeDigests) {
  constexpr uint32_t kTargets[] = {0x2100ffff, 0x217fffff, 0x20ffffff, 0x207fffff, 0x2000ffff,
                                   0x1f7fffff, 0x1e0fffff, 0x1d01ffff, 0x1d00ffff, 0};
  RandomHeaders random;
  const uint64_t groups = pair_count() / kernel_.lanes;
  for (uint64_t i = 0; i < groups && !HasFailure(); ++i) {
    const uint32_t bits = i % 2 == 0 ? kTargets[i / 2 % std::size(kTargets)] : 0x20000000 | (random.word() & 0xffffff);
    const uint32_t stride = i % 4 == 0 ? random.word() : 1 + random.word() % 64;
    expect_agreement(random.header(bits), random.word(), stride);
  }
}

TEST_P(Kernel, WrapsWithTheNonce) {
  const BlockHeader header = RandomHeaders().header(0x207fffff);
  for (const uint32_t stride : {0u, 1u, 3u, 0x10000000u, 0xffffffffu}) {
    for (uint32_t before = 0; before <= kernel_.lanes; ++before) {
      expect_agreement(header, 0u - before * stride, stride);
      expect_agreement(header, 0u - before, stride);
    }
  }
}

// A hash stands in each lane in turn, its top word just within the target's and just beyond.
TEST_P(Kernel, ComparesTopWordsExactly) {
  constexpr uint32_t kStride = 5;
  RandomHeaders random;
  for (int i = 0; i < 50; ++i) {
    const BlockHeader header = random.header(0x207fffff);
    const uint32_t top = top_word(header.get_hash());
    for (const uint32_t target_top : {top, top - 1, top + 1}) {
      const PreparedHeader prepared(header, uint256(uint64_t{target_top}) << 224);
      for (uint32_t lane = 0; lane < kernel_.lanes; ++lane) {
        const uint32_t hits = kernel_.test_group(prepared, header.nonce - lane * kStride, kStride);
        EXPECT_EQ(hits >> lane & 1, uint32_t{top <= target_top}) << "lane " << lane;
      }
    }
  }
}

TEST_P(Kernel, FindsHashesOfHardTargets) {
  const BlockHeader header = header_with_zero_top();
  ASSERT_EQ(top_word(header.get_hash()), 0u);
  for (const uint32_t target_bits : {0x1d01ffffu, 0x1d00ffffu, 0x1b00ffffu, 0x03000001u, 0u}) {
    const PreparedHeader prepared(header, difficulty::bits_to_target(target_bits));
    for (uint32_t lane = 0; lane < kernel_.lanes; ++lane) {
      for (const uint32_t stride : {1u, 2u, 7u}) {
        EXPECT_EQ(kernel_.test_group(prepared, header.nonce - lane * stride, stride), 1u << lane);
      }
    }
  }
}

std::string identifier(const testing::TestParamInfo<const char*>& info) {
  std::string name = info.param;
  std::ranges::replace(name, '-', '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(All, Kernel, testing::Values("avx512", "sha-ni", "avx2", "portable"), identifier);

TEST(SearchKernels, AreKnownByNameAndTheBestRuns) {
  const auto kernels = search_kernels();
  EXPECT_TRUE(best_search_kernel().runs_here());
  EXPECT_EQ(kernels.back().name, "portable");
  EXPECT_EQ(find_search_kernel("portable"), &kernels.back());
  EXPECT_EQ(find_search_kernel("none"), nullptr);
}

}  // namespace
}  // namespace norvel::mining
