// The rules that a block must keep before it is connected.
//
// Errors: validators return false with the reason; on success the text is left
// alone. Threads: functions without state of their own; the caller holds the
// chain's lock, and verify_block_inputs() uses threads of its own while it runs.

#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "chain/utxo_set.h"
#include "chain/verified_inputs.h"
#include "consensus/treasury_state.h"
#include "core/block.h"

namespace norvel {

// Everything that needs no outputs: what Block::is_valid checks but for inputs,
// every transaction representable in the byte format, and no repeated one.
bool validate_context_free(const Block& block, ClockRule clock, std::string& error);

// Whether two transactions have the same id: the lone-element rule of the Merkle
// tree gives [a, b, c] and [a, b, c, c] one root.
bool repeats_transaction(const Block& block);

// Sum over the ordinary transactions of input value minus output value, each
// counted only when positive; the outputs made earlier in the block count as
// inputs too, and a transaction with an input that is found nowhere counts
// nothing. At most the largest int64_t.
int64_t block_fees(const Block& block, const UTXOSet& utxos);

// No outpoint is spent twice by the ordinary transactions of the block. A part of
// validate_block_transactions() that comes before any script runs: otherwise one
// costly output could be spent, and verified, a thousand times in a block that is
// refused in the end.
bool check_spends(const Block& block, std::string& error);

enum class InputCheck { DONE, STOPPED };

// Verifies the inputs of the block on all cores and remembers the good ones in
// `verified`, so that the rules below find them there. Judges nothing; inputs
// behind one that fails may be left out, and it ends early once `stop` is set.
// Takes the ids of all transactions.
InputCheck verify_block_inputs(const Block& block, const UTXOSet& utxos, VerifiedInputs& verified,
                               const std::atomic<bool>& stop);

// The transaction, coinbase and treasury rules of a block that is about to be
// connected on a state with these outputs and this treasury.
bool validate_block_transactions(const Block& block, const UTXOSet& utxos, const TreasuryState& treasury,
                                 VerifiedInputs& verified, std::string& error);

}  // namespace norvel
