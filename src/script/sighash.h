// The digest of a transaction that the signature of one input commits to.
//
// Threads: stateless.

#pragma once

#include <cstddef>
#include <cstdint>

#include "core/bytes.h"
#include "core/uint256.h"

namespace norvel {

class Script;
class Transaction;

// The last byte of every signature. Any value is accepted and enters the
// digest; none changes what the digest covers.
enum class SigHashType : uint8_t {
  ALL = 1,
};

class SignatureHasher {
 public:
  // The bytes below, without the signature hash type. An `input_index` that
  // names no input leaves `script_code` out.
  //
  //   type          1
  //   timestamp     8
  //   version       4  after the timestamp, unlike in the transaction's own format
  //   input count   v  compact size
  //   inputs        v  prevout (36), script (compact size, then script_code for
  //                    the input being signed and nothing for the others), sequence (4)
  //   output count  v  compact size
  //   outputs       v  as TxOut::serialize() writes them
  //   locktime      4
  //
  // Integers are little-endian. O(size of the transaction): hashing every input
  // of a transaction is quadratic.
  static Bytes serialize_for_signature(const Transaction& tx, size_t input_index, const Script& script_code,
                                       uint8_t sighash_type);

  // hash256 of those bytes followed by `sighash_type` as 4 bytes. Throws
  // std::runtime_error ("Input index out of range").
  static uint256 compute_signature_hash(const Transaction& tx, size_t input_index, const Script& script_code,
                                        uint8_t sighash_type);
};

}  // namespace norvel
