#include "mining/nonce_search.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <chrono>
#include <cstddef>

#include "consensus/difficulty.h"
#include "core/clock.h"
#include "mining/cpu_features.h"
#include "mining/kernels/kernels.h"
#include "mining/kernels/lane_walk.h"
#include "mining/kernels/sha256_words.h"

namespace norvel::mining {

namespace {

using kernels::PreparedWords;

// Lanes that hold nothing: a walk with them only names what it lifts.
struct NoLanes {
  friend NoLanes operator+(NoLanes, NoLanes) { return {}; }
  friend NoLanes big_sigma0(NoLanes) { return {}; }
  friend NoLanes big_sigma1(NoLanes) { return {}; }
  friend NoLanes small_sigma0(NoLanes) { return {}; }
  friend NoLanes small_sigma1(NoLanes) { return {}; }
  friend NoLanes choose(NoLanes, NoLanes, NoLanes) { return {}; }
  friend NoLanes majority(NoLanes, NoLanes, NoLanes, NoLanes&) { return {}; }
};

// The rounds first to end - 1 on `s`, a to h, with their message words.
void run_rounds(std::span<uint32_t, 8> s, std::span<const uint32_t> words, size_t end) {
  for (size_t t = 0; t < end; ++t) {
    const uint32_t t1 =
        s[7] + kernels::big_sigma1(s[4]) + kernels::choose(s[4], s[5], s[6]) + kernels::kRoundConstants[t] + words[t];
    const uint32_t t2 = kernels::big_sigma0(s[0]) + kernels::majority(s[0], s[1], s[2]);
    std::shift_right(s.begin(), s.end(), 1);
    s[4] += t1;
    s[0] = t1 + t2;
  }
}

std::array<uint32_t, 64> message_schedule(std::span<const uint32_t> block) {
  std::array<uint32_t, 64> w{};
  std::ranges::copy(block, w.begin());
  for (size_t t = 16; t < w.size(); ++t) {
    w[t] = kernels::small_sigma1(w[t - 2]) + w[t - 7] + kernels::small_sigma0(w[t - 15]) + w[t - 16];
  }
  return w;
}

uint32_t read_be(const uint8_t* bytes) {
  return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

PreparedWords prepare(const BlockHeader& header, const uint256& target) {
  const auto bytes = header.to_array();
  std::array<uint32_t, BlockHeader::kSize / 4> words;
  for (size_t i = 0; i < words.size(); ++i) {
    words[i] = read_be(&bytes[4 * i]);
  }
  const std::span message(words);
  PreparedWords out{};
  std::ranges::copy(kernels::kInitialState, out.midstate);
  run_rounds(out.midstate, message_schedule(message.first<16>()), 64);
  for (size_t i = 0; i < 8; ++i) {
    out.midstate[i] += kernels::kInitialState[i];
  }

  std::array<uint32_t, 16> second{words[16], words[17], words[18], words[19], 0, kernels::kPaddingWord};
  second[15] = kernels::kHeaderBits;
  const auto w = message_schedule(second);
  std::ranges::copy(out.midstate, out.fourth);
  run_rounds(out.fourth, w, 4);
  std::copy_n(w.begin(), 4, out.w);
  out.w16 = w[16];
  out.w17 = w[17];
  out.w18 = w[18];
  size_t top_offset = uint256::kSize - 4;
  out.target_top = read_le<uint32_t>(target.bytes(), top_offset);

  size_t count = 0;
  const auto lift = [&](uint32_t word) {
    assert(count < kernels::kLiftedCount);
    out.lifted[count++] = word;
    return NoLanes{};
  };
  kernels::LaneWalk<NoLanes, decltype(lift)>(out, lift).last_digest_word({});
  assert(count == kernels::kLiftedCount);
  return out;
}

bool runs_avx512() {
  return has_avx512(read_cpu_registers());
}

bool runs_sha_ni() {
  return has_sha_ni(read_cpu_registers());
}

bool runs_avx2() {
  return has_avx2(read_cpu_registers());
}

bool always() {
  return true;
}

template <auto& kTestGroup>
uint32_t on_words(const PreparedHeader& header, uint32_t first_nonce, uint32_t stride) {
  return kTestGroup(header.words(), first_nonce, stride);
}

// Nanoseconds a nonce, the least of some short runs: what disturbs a run only lengthens it.
double measure_cost(const SearchKernel& kernel) {
  constexpr int kRuns = 9;
  constexpr uint32_t kNonces = 1'024;
  const PreparedHeader header{BlockHeader()};
  auto least = std::chrono::nanoseconds::max();
  for (int run = 0; run < kRuns; ++run) {
    const auto start = thread_processor_time();
    for (uint32_t done = 0; done < kNonces; done += kernel.lanes) {
      kernel.test_group(header, done, 1);
    }
    least = std::min(least, thread_processor_time() - start);
  }
  return static_cast<double>(least.count()) / kNonces;
}

// The order of the table is that of the processors measured; on another the
// differences may be small, or turned round.
const SearchKernel& measure_best(std::span<const SearchKernel> kernels) {
  constexpr double kClearlyFaster = 0.97;
  const SearchKernel* best = nullptr;
  double best_cost = 0;
  for (const SearchKernel& kernel : kernels) {
    const double cost = kernel.runs_here() ? measure_cost(kernel) : 0;
    if (kernel.runs_here() && (best == nullptr || cost < kClearlyFaster * best_cost)) {
      best = &kernel;
      best_cost = cost;
    }
  }
  return *best;
}

constexpr SearchKernel kKernels[] = {
#if defined(__x86_64__)
    {"avx512", 16, &runs_avx512, &on_words<kernels::test_group_avx512>},
    {"sha-ni", 16, &runs_sha_ni, &on_words<kernels::test_group_sha_ni>},
    {"avx2", 8, &runs_avx2, &on_words<kernels::test_group_avx2>},
#endif
    {"portable", 4, &always, &on_words<kernels::test_group_portable>},
};

}  // namespace

PreparedHeader::PreparedHeader(const BlockHeader& header)
    : PreparedHeader(header, difficulty::bits_to_target(header.bits)) {}

PreparedHeader::PreparedHeader(const BlockHeader& header, const uint256& target) : words_(prepare(header, target)) {}

std::span<const SearchKernel> search_kernels() {
  return kKernels;
}

const SearchKernel& best_search_kernel() {
  static const SearchKernel& best = measure_best(kKernels);
  return best;
}

const SearchKernel* find_search_kernel(std::string_view name) {
  const auto found = std::ranges::find(kKernels, name, &SearchKernel::name);
  return found != std::end(kKernels) ? &*found : nullptr;
}

}  // namespace norvel::mining
