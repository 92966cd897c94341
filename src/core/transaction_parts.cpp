#include "core/transaction_parts.h"

#include "script/script.h"

namespace norvel {

TxOut make_p2pkh_output(int64_t value, const Bytes& pubkey_hash) {
  TxOut output(value, pubkey_hash);
  output.script_pubkey = Script::create_p2pkh_output(pubkey_hash).bytes;
  return output;
}

}  // namespace norvel
