// A payment made from the outputs of one key: which outputs may be spent, what
// fee it carries and the finished transaction.
//
// Errors: std::runtime_error with the reason. Threads: no state.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "cli/key_file.h"
#include "cli/options.h"
#include "core/bytes.h"
#include "core/transaction.h"
#include "rpc/json.h"

namespace norvel::cli {

// Fee of a payment without --fee, per byte of the transaction; what its note
// costs comes on top. Any fee is relayed; miners take the best paying first.
inline constexpr int64_t kFeeUnitsPerByte = 10;

// Fees above this are taken for a slip of the hand: no block can account for
// more than 200 coins in all.
inline constexpr int64_t kFeeUnitsMax = 10 * kCoin;

// Inputs of a payment: nodes relay no transaction with more signature checks.
inline constexpr size_t kInputsMax = 2'000;

// The outputs that getutxos lists, those of `taken` left out. Each pays the hash
// of `address`. Throws for a value that JSON may have rounded and for a txid or
// index that is none.
SpendableOutputs read_spendable(const rpc::JsonValue& utxos, const std::string& address,
                                const std::set<OutPoint>& taken);

// The signed payment that `order` asks for, change back to `sender`; each input is
// signed once. `recipient_key` is needed for a message and must be the key of the
// address. Throws before signing when it would need more than kInputsMax inputs.
Transaction make_payment(const PaymentOrder& order, const KeyPair& sender, const SpendableOutputs& spendable,
                         const Bytes& recipient_key);

// What `tx` takes from `spendable` beyond its outputs.
int64_t fee_of(const Transaction& tx, const SpendableOutputs& spendable);

}  // namespace norvel::cli
