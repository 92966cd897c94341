// One worker's way through the nonces of a header: start nonce, start nonce +
// stride, ... modulo 2^32, tested in groups by a kernel and counted one by one.
//
// What a walk tests, counts and finds is what testing header by header would; a
// group only decides how often the caller gets to look at anything else. It ends
// early at a nonce that meets the target and at the end of a lap.
//
// Threads: single-threaded; the counter may be read by others.

#pragma once

#include <cstdint>

#include "core/block_header.h"
#include "mining/nonce_search.h"
#include "mining/striped_counter.h"

namespace norvel::mining {

class NonceWalk {
 public:
  struct Plan {
    uint32_t start_nonce = 0;
    uint32_t stride = 1;
    uint64_t lap_hashes = 0;  // hashes after which is_lap_done() tells, again and again; above 0
  };

  // `kernel` must run here; it and `counter`, of which the walk is the only
  // writer, must outlive the walk.
  NonceWalk(const SearchKernel& kernel, const Plan& plan, StripedCounter::Stripe& counter);

  // Goes on with `header` from the start nonce. The lap goes on too.
  void restart(const BlockHeader& header);

  // Goes on with another time in the header, from the nonce reached.
  void set_timestamp(uint64_t timestamp);

  // Tests a group, or what of it belongs to this lap, and counts each header as
  // soon as it is tested. True when the header with the nonce now reached meets
  // its target: that one is not counted yet, what stood behind it in the group
  // was not tested, and pass_found() must be called before the next group.
  bool search_group();

  // Counts the found header and goes a stride on, from the start nonce when
  // restart() was called in between.
  void pass_found() { pass(1); }

  // The lap's last hash is counted and no group was searched since.
  bool is_lap_done() const { return hashes_ == lap_end_; }

  // Since the walk was made.
  uint64_t hashes() const { return hashes_; }

  // With the nonce that is tested next.
  const BlockHeader& header() const { return header_; }

 private:
  void pass(uint32_t count);

  const SearchKernel& kernel_;
  const Plan plan_;
  StripedCounter::Stripe& counter_;

  BlockHeader header_;
  PreparedHeader prepared_;  // of header_, but for its nonce

  uint64_t hashes_ = 0;
  uint64_t lap_end_;
};

}  // namespace norvel::mining
