// The transaction of the tests in this folder.

#pragma once

#include "core/transaction.h"
#include "support/byte_strings.h"

namespace norvel {

// Every field differs from its neighbours; output 0 has a script of its own, output 1 a key hash and a note.
inline Transaction sample_transaction() {
  Transaction tx;
  tx.type = TransactionType::MESSAGE;
  tx.version = 0x01020304;
  tx.timestamp = 0x1112131415161718;
  tx.locktime = 0x71727374;
  tx.inputs.resize(2);
  tx.inputs[0] = {{uint256(Bytes(32, 0xa0)), 0x21222324}, Bytes(70, 0xee), Bytes(33, 0xdd), 0x31323334};
  tx.inputs[1] = {{uint256(Bytes(32, 0xb0)), 0x41424344}, Bytes(71, 0xcc), Bytes(33, 0xbb), 0x51525354};
  tx.outputs.resize(2);
  tx.outputs[0].value = 0x6162636465666768;
  tx.outputs[0].script_pubkey = hex("51 52");
  tx.outputs[1] = TxOut(-2, Bytes(20, 0x99));
  tx.outputs[1].message = crypto::EncryptedMessage{1, Bytes(20, 0x77), Bytes(12, 0x66), Bytes(33, 0x55)};
  return tx;
}

}  // namespace norvel
