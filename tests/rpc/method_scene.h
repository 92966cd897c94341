// What the tests of a node's methods share.

#pragma once

#include <memory>
#include <sstream>
#include <string>
#include <string_view>

#include "core/transaction.h"
#include "crypto/hex.h"
#include "rpc/json.h"
#include "script/script.h"
#include "support/ledger_samples.h"

namespace norvel::rpc {

inline std::string hex_of(const Transaction& tx) {
  return crypto::bytes_to_hex(tx.serialize());
}

inline JsonValue object_of(const std::string& key, const JsonValue& value) {
  JsonValue object;
  object.set(key, value);
  return object;
}

// `text` with the values in the places of its percent signs.
template <typename... Values>
std::string fill(std::string_view text, const Values&... values) {
  std::ostringstream out;
  ((out << text.substr(0, text.find('%')) << values, text.remove_prefix(text.find('%') + 1)), ...);
  out << text;
  return out.str();
}

// A component that the test owns.
template <typename T>
std::shared_ptr<T> borrow(T& component) {
  return std::shared_ptr<T>(std::shared_ptr<void>(), &component);
}

// With a signature of sample_key(1) for every input, which all pay it.
inline Transaction signed_again(Transaction tx) {
  tx.invalidate_cache();
  for (size_t i = 0; i < tx.inputs.size(); ++i) {
    tx.sign_input(i, sample_key(1).private_key, Script::create_p2pkh_output(sample_key(1).pubkey_hash));
  }
  return tx;
}

}  // namespace norvel::rpc
