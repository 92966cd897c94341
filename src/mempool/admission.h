// The one way into the pool for transactions from peers, from RPC and from
// blocks that left the active chain: looks the inputs up in the chain and the
// pool, validates, applies relay policy, and inserts.
//
// A transaction is checked against one state of the chain and pool and inserted
// afterwards. Whenever the chain's change number grew in between, and always for
// a child of a pool transaction, its inputs and lock time are then checked again,
// and it leaves the pool when they no longer hold. Changes that come later find
// it in the pool: those of the chain when the chain tells of them, evictions
// when the call that evicted follows them up. Until then the pool may hold
// transactions that no block can; once nothing is under way it holds none, a
// clock that was set back excepted. A transaction may also go that a change not
// yet told of would have kept.
//
// Errors: refusals are outcomes with a reason. At most std::bad_alloc is thrown;
// the transaction is then not in the pool, and a removal that was under way is
// done by the next call. Threads: safe from any thread. Takes the chain's lock
// and the pool's, one after the other.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "chain/transaction_rules.h"
#include "core/block.h"
#include "core/transaction.h"
#include "core/uint256.h"
#include "script/script_budget.h"

namespace norvel {

class Blockchain;
class Mempool;

// The numbers are those of the relay rules.
enum class AdmissionOutcome {
  ACCEPTED = 0,
  KNOWN = 1,           // in the pool or in the chain
  MISSING_PARENT = 2,  // "missing parent " and the txid
  INVALID = 3,         // breaks a rule of blocks: the sender is to blame
  NOT_TAKEN = 4,       // refused without blame: not final yet, policy, or the pool's refusal
};

// A transaction whose scripts cost more than this is not relayed.
inline constexpr uint64_t kPolicySignatureChecksMax = 2'000;
inline constexpr uint64_t kPolicyHashBytesMax = 200'000'000;

// Of scripts run. Locking scripts are prepared at leisure, a small transaction
// may spend many, and a million bytes of them take up to 0.8 s. Claims of
// contracts, of some 240 bytes each, make too many checks before they come to this.
inline constexpr uint64_t kPolicyScriptBytesMax = 1'500'000;
static_assert(kPolicySignatureChecksMax * (kSignatureCheckBytes + 240) < kPolicyScriptBytesMax);
static_assert(kPolicyScriptBytesMax > kTransactionBytesMax, "an output of the largest script can be spent");

// The most, in base units, that a block's coinbase can account for: it shares
// half of the fees with the treasury and pays out at most kCoinbaseFeesMax
// beyond the subsidy.
inline constexpr int64_t kPolicyFeeMax = 2 * kCoinbaseFeesMax;

// Leaves a block room for its header and coinbase.
inline constexpr size_t kPolicyTransactionBytesMax = kBlockBytesMax - 1'000;

class TransactionAdmission {
 public:
  TransactionAdmission(const Blockchain& chain, Mempool& pool);

  // Offers `tx` to the pool. `reason` is set unless ACCEPTED; `fee` (base units)
  // when ACCEPTED. The first that holds decides: known, with kAlreadyInPool or
  // "Transaction already in chain"; an input found neither in the chain nor in
  // the pool; a rule of blocks, or scripts over the budget; policy on fee and
  // size; not final for the next block; a refusal of the pool. Of what the pool
  // evicts for it, children that can no longer be mined go as well.
  AdmissionOutcome accept(const Transaction& tx, std::string& reason, int64_t& fee);

  // The same for a transaction of a block that left the chain: without budget
  // and policy, which whoever mined it need not have kept to.
  AdmissionOutcome accept_returned(const Transaction& tx);

  // Removes those of the pool's transactions `txids` that are in the chain, then
  // those that spend an output which neither the chain nor the pool has, with
  // their descendants.
  void remove_stranded(const std::set<uint256>& txids);

  // Removes what no block on top of the active chain could hold by its lock
  // time, with its descendants.
  void remove_not_final();

 private:
  enum class Policy { RELAY, NONE };

  AdmissionOutcome admit(const Transaction& tx, Policy policy, std::string& reason, int64_t& fee);
  bool is_known(const uint256& txid, std::string& reason) const;
  bool is_in_chain(const uint256& txid) const;
  bool has_output(const OutPoint& outpoint) const;
  std::optional<OutPoint> collect_spent(const Transaction& tx, OutputsByOutpoint& spent, bool& spends_pool) const;
  std::optional<OutPoint> copy_spent(const std::vector<OutPoint>& outpoints, OutputsByOutpoint& spent,
                                     bool& spends_pool) const;
  AdmissionOutcome check(const Transaction& tx, const OutputsByOutpoint& spent, Policy policy,
                         std::string& reason) const;
  AdmissionOutcome check_rules(const Transaction& tx, const OutputsByOutpoint& spent, Policy policy,
                               std::string& reason) const;
  AdmissionOutcome check_scripts(const Transaction& tx, const OutputsByOutpoint& spent, std::string& reason) const;
  void remove_stranded_by_eviction();
  AdmissionOutcome confirm(const Transaction& tx, std::string& reason);
  bool still_stands(const std::vector<OutPoint>& outpoints) const;
  bool remove_fallen(const uint256& txid);
  bool is_final_for_next_block(const Transaction& tx) const;

  const Blockchain& chain_;
  Mempool& pool_;
};

}  // namespace norvel
