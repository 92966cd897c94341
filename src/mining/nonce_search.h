// The nonce search for one header: what does not depend on the nonce is prepared
// once, then kernels test groups of nonces with the instructions of one kind of
// processor.
//
// Threads: a PreparedHeader is a plain value; the table of kernels never changes.

#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "core/block_header.h"
#include "mining/kernels/prepared_words.h"

namespace norvel::mining {

// A header without its nonce, as the kernels want it.
class PreparedHeader {
 public:
  explicit PreparedHeader(const BlockHeader& header);

  // With a target of its own instead of that of the header's bits.
  PreparedHeader(const BlockHeader& header, const uint256& target);

  const kernels::PreparedWords& words() const { return words_; }

 private:
  kernels::PreparedWords words_;
};

// One way to test nonces.
struct SearchKernel {
  // Nonces that the largest group of any kernel holds.
  static constexpr uint32_t kLanesMax = 32;

  std::string_view name;
  uint32_t lanes;  // nonces a call tests, at most kLanesMax; a call takes under a microsecond where `name` is chosen

  // True when the processor has the instructions and the operating system saves their registers.
  bool (*runs_here)();

  // Tests first_nonce, first_nonce + stride, ... modulo 2^32. Bit i of the
  // result is set when the header with nonce i may meet its target: each that
  // does is named, and of others those whose most significant 32 bits equal the
  // target's. The caller confirms with BlockHeader::check_proof_of_work().
  uint32_t (*test_group)(const PreparedHeader& header, uint32_t first_nonce, uint32_t stride);
};

// All kernels that this program was built with, the fastest first as measured.
std::span<const SearchKernel> search_kernels();

// The fastest that runs here, measured once in a few milliseconds; of such as
// differ by less than 3 % the first. The portable one always runs.
const SearchKernel& best_search_kernel();

// nullptr when there is none of that name; the one returned need not run here.
const SearchKernel* find_search_kernel(std::string_view name);

}  // namespace norvel::mining
