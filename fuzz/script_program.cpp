#include "core/transaction.h"
#include "fuzz_target.h"
#include "script/interpreter.h"
#include "script/script.h"

namespace {

using namespace norvel;

// Two inputs, so that one is not being signed; not final, so that lock times count.
Transaction make_transaction() {
  Transaction tx;
  tx.inputs.resize(2);
  tx.inputs[0].sequence = 0;
  tx.outputs.emplace_back(1'000, Bytes(20, 0x22));
  tx.locktime = 1'000;
  return tx;
}

}  // namespace

// The first byte tells how many of the following belong to the unlocking
// script; the rest is the locking script.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Transaction tx = make_transaction();
  if (size == 0) {
    return 0;
  }
  const ByteView programs(data + 1, size - 1);
  const size_t split = programs.size() * data[0] / 255;
  const ByteView unlocking = programs.first(split);
  const ByteView locking = programs.subspan(split);
  const Script script_sig(Bytes(unlocking.begin(), unlocking.end()));
  const Script script_pubkey(Bytes(locking.begin(), locking.end()));
  ScriptInterpreter::verify_script(tx, 0, script_sig, script_pubkey);

  Transaction spending = tx;
  spending.inputs[0].signature = script_sig.bytes;
  spending.inputs[0].pubkey.assign(TxIn::kHtlcMarker.begin(), TxIn::kHtlcMarker.end());
  TxOut spent;
  spent.script_pubkey = script_pubkey.bytes;
  require(ScriptInterpreter::verify_input_signature(spending, 0, spent) ==
          ScriptInterpreter::verify_script(spending, 0, script_sig, script_pubkey));

  const Bytes encoded = script_pubkey.serialize();
  size_t offset = 0;
  require(Script::deserialize(encoded, offset).bytes == script_pubkey.bytes && offset == encoded.size());
  try {
    offset = 0;
    Script::deserialize(programs, offset);
    require(offset <= programs.size());
  } catch (const std::exception&) {
    // Cut off.
  }
  return 0;
}
