// Pieces that the constructors of Transaction share.

#pragma once

#include <cstdint>

#include "core/bytes.h"
#include "core/transaction.h"

namespace norvel {

// An output of `value` base units with both the hash and its P2PKH script set.
// Throws std::runtime_error ("Invalid pubkey hash size") unless `pubkey_hash`
// has 20 bytes.
TxOut make_p2pkh_output(int64_t value, const Bytes& pubkey_hash);

}  // namespace norvel
