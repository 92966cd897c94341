// Signing, verifying, and the whole verification of a P2PKH input: signature
// hash, two scripts and the check itself.

#include <benchmark/benchmark.h>

#include "crypto/keys.h"
#include "crypto/signature.h"
#include "sample_data.h"
#include "script/interpreter.h"

namespace norvel {

namespace {

const Bytes kKey(32, 0x17);

void sign_digest(benchmark::State& state) {
  Bytes message(32, 0x01);
  Bytes signature;
  for (auto _ : state) {
    ++message[0];
    signature = crypto::sign_message(message, kKey);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(bench::digest(signature));
}
BENCHMARK(sign_digest)->Unit(benchmark::kMicrosecond);

void verify_digest(benchmark::State& state) {
  const Bytes message(32, 0x01);
  const Bytes pubkey = crypto::derive_public_key(kKey);
  const Bytes signature = crypto::sign_message(message, kKey);
  bool valid = true;
  for (auto _ : state) {
    valid &= crypto::verify_signature(message, signature, pubkey);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(valid ? "valid" : "WRONG RESULT");
}
BENCHMARK(verify_digest)->Unit(benchmark::kMicrosecond);

void verify_p2pkh_input(benchmark::State& state) {
  const bench::Payment& payment = bench::sample_payment();
  const TxOut& spent = payment.spent.at(payment.tx.inputs[0].prevout);
  bool valid = true;
  for (auto _ : state) {
    valid &= ScriptInterpreter::verify_input_signature(payment.tx, 0, spent);
  }
  state.SetItemsProcessed(state.iterations());
  state.SetLabel(valid ? "valid" : "WRONG RESULT");
}
BENCHMARK(verify_p2pkh_input)->Unit(benchmark::kMicrosecond);

}  // namespace

}  // namespace norvel
