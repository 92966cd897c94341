// The members of Transaction that sign inputs and verify signatures.

#include <stdexcept>
#include <utility>

#include "core/console.h"
#include "core/transaction.h"
#include "crypto/keys.h"
#include "crypto/signature.h"
#include "script/interpreter.h"
#include "script/script.h"
#include "script/sighash.h"

namespace norvel {

namespace {

constexpr auto kSigHashAll = static_cast<uint8_t>(SigHashType::ALL);

struct InputSignature {
  Bytes der;
  Bytes pubkey;  // 33 bytes
};

InputSignature make_signature(const Transaction& tx, size_t input_index, const Bytes& private_key,
                              const Script& script_code) {
  const uint256 hash = tx.get_signature_hash(input_index, script_code);
  return {crypto::sign_message(hash.bytes(), private_key), crypto::derive_public_key(private_key)};
}

void set_unlocking_script(TxIn& input, Script unlocking) {
  input.signature = std::move(unlocking.bytes);
  input.pubkey.assign(TxIn::kHtlcMarker.begin(), TxIn::kHtlcMarker.end());
}

// As OP_CHECKSIG expects it: DER, then the signature hash type.
Bytes with_hash_type(Bytes der) {
  der.push_back(kSigHashAll);
  return der;
}

}  // namespace

uint256 Transaction::get_signature_hash(size_t input_index, const Script& script_code) const {
  return SignatureHasher::compute_signature_hash(*this, input_index, script_code, kSigHashAll);
}

void Transaction::sign_input(size_t input_index, const Bytes& private_key, const Script& script_code) {
  if (input_index >= inputs.size()) {
    throw std::runtime_error("Invalid input index");
  }
  InputSignature signature = make_signature(*this, input_index, private_key, script_code);
  inputs[input_index].signature = std::move(signature.der);
  inputs[input_index].pubkey = std::move(signature.pubkey);
  invalidate_cache();
}

void Transaction::sign_htlc_input_claim(size_t input_index, const Bytes& private_key, const Script& htlc_script,
                                        const Bytes& preimage) {
  if (input_index >= inputs.size()) {
    throw std::runtime_error("sign_htlc_input_claim: invalid input index");
  }
  const InputSignature signature = make_signature(*this, input_index, private_key, htlc_script);
  set_unlocking_script(inputs[input_index],
                       Script::create_htlc_input_claim(with_hash_type(signature.der), signature.pubkey, preimage));
  invalidate_cache();
}

void Transaction::sign_htlc_input_refund(size_t input_index, const Bytes& private_key, const Script& htlc_script) {
  if (input_index >= inputs.size()) {
    throw std::runtime_error("sign_htlc_input_refund: invalid input index");
  }
  const InputSignature signature = make_signature(*this, input_index, private_key, htlc_script);
  set_unlocking_script(inputs[input_index],
                       Script::create_htlc_input_refund(with_hash_type(signature.der), signature.pubkey));
  invalidate_cache();
}

bool Transaction::verify_all_signatures(const std::map<OutPoint, TxOut>& spent) const {
  return verify_all_signatures(spent, [](const Transaction& tx, size_t input_index, const TxOut& output) {
    return ScriptInterpreter::verify_input_signature(tx, input_index, output);
  });
}

bool Transaction::verify_all_signatures(const std::map<OutPoint, TxOut>& spent, const InputVerifier& verify) const {
  for (size_t i = 0; i < inputs.size(); ++i) {
    const auto found = spent.find(inputs[i].prevout);
    if (found == spent.end()) {
      console::error_line("[Transaction] UTXO not found for input " + std::to_string(i));
      return false;
    }
    if (!verify(*this, i, found->second)) {
      console::error_line("[Transaction] Signature verification failed for input " + std::to_string(i));
      return false;
    }
  }
  return true;
}

}  // namespace norvel
