// What a transaction must be before a block may hold it or the pool take it,
// apart from where it stands.
//
// Errors: validators return false with the reason; on success the text is left
// alone. Threads: free functions without state.

#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "core/transaction.h"
#include "core/transaction_verification.h"

namespace norvel {

// Most that may exist, in base units, and so the most that a value or a sum may be.
inline constexpr int64_t kMoneyMax = 314'159'265'300'000'000;

inline constexpr size_t kTransactionBytesMax = 1'000'000;

// Why blocks refuse a transaction that is_final() does not hold for.
inline constexpr const char kNotFinalReason[] = "Transaction is not final";

using OutputsByOutpoint = std::map<OutPoint, TxOut>;

// An ordinary transaction (type 1, 2 or 4) that spends outputs of `spent`:
// inputs and outputs present, each outpoint once and none of them null, every
// input found, values and sums between 0 and kMoneyMax, outputs at most inputs,
// at most kTransactionBytesMax bytes, representable in the byte format, and
// every input unlocked by `verify`. The rules are checked in an order that
// leaves the expensive ones for last.
bool validate_transaction(const Transaction& tx, const OutputsByOutpoint& spent, const InputVerifier& verify,
                          std::string& reason);

// No outpoint is null and none stands twice: a part of validate_transaction()
// that needs no outputs and no scripts.
bool check_outpoints(const Transaction& tx, std::string& reason);

// Whether the lock time lets the transaction into a block of `height` stamped
// `time` (seconds): lock time 0, or a height below `height`, or a time below
// `time`, or every input final.
bool is_final(const Transaction& tx, uint32_t height, uint64_t time);

// Whether counts and lengths fit the fields of the byte format and an output's
// hash and script agree, so that the object is what its bytes say. An output may
// hold either of the two alone.
bool fits_byte_format(const Transaction& tx);

// Sum of input values minus output values; nothing when an input is missing or a
// sum leaves the range of 64 bits.
std::optional<int64_t> transaction_fee(const Transaction& tx, const OutputsByOutpoint& spent);

}  // namespace norvel
