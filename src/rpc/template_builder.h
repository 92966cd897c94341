// Makes block templates for miners: every one, completed with its coinbase and
// mined, is accepted by the chain as long as its tip stands.
//
// A template is kept for all callers, since miners ask several times a second:
// it is made anew at once when the tip has moved, else for what has changed in the
// pool, when a second has passed since it was done and at least as long as making
// it took. Time and address are filled in at each call.
//
// Threads: safe from any thread. One mutex, held while chain and pool are asked,
// so that one thread builds and the others take what it built.

#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "chain/blockchain.h"
#include "core/sync.h"
#include "core/uint256.h"
#include "mempool/mempool.h"
#include "rpc/block_template.h"
#include "rpc/json.h"

namespace norvel::rpc {

// Most that the pool is asked for, in bytes of serialized transactions. What does
// not fit the block then is left out.
inline constexpr size_t kPoolBytesAsked = 1'048'576;

// How long a template serves while the tip stands; longer when it took longer.
inline constexpr int64_t kTemplateAgeMaxMs = 1'000;

// A miner writes its own clock into the header. What is locked by time is offered
// only when a clock this far behind ours makes a valid block of it.
inline constexpr uint64_t kMinerClockLagMaxS = 7'200;

// Where the time comes from; tests set their own.
struct TemplateClock {
  std::function<uint64_t()> unix_seconds;
  std::function<int64_t()> steady_ms;  // never goes back

  static TemplateClock system();
};

// The template that the next block is made of, without its mining address, at
// `unix_seconds`. Throws std::runtime_error ("No best block found") for a chain
// without a block or without its state.
BlockTemplate build_template(const Blockchain& chain, const Mempool& pool, uint64_t unix_seconds);

class TemplateBuilder {
 public:
  // Chain and pool outlive the builder.
  TemplateBuilder(const Blockchain& chain, const Mempool& pool, TemplateClock clock = TemplateClock::system());

  // The result of getblocktemplate. Throws as build_template().
  JsonValue get_template(const std::string& mining_address) EXCLUDES(mutex_);

 private:
  std::shared_ptr<const JsonValue> get_current() EXCLUDES(mutex_);

  const Blockchain& chain_;
  const Mempool& pool_;
  const TemplateClock clock_;

  Mutex mutex_;  // first in the order: chain and pool are locked while it is held
  std::shared_ptr<const JsonValue> current_ GUARDED_BY(mutex_);
  uint256 tip_ GUARDED_BY(mutex_);                // that current_ stands on
  int64_t good_until_ms_ GUARDED_BY(mutex_) = 0;  // steady clock; while the tip stands
};

}  // namespace norvel::rpc
