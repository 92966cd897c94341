// Keys, random transactions and format tables for the tests of the ledger.

#pragma once

#include <functional>
#include <optional>
#include <random>
#include <span>
#include <string>

#include "core/transaction.h"

namespace norvel {

struct SampleKey {
  Bytes private_key;
  Bytes pubkey;
  Bytes pubkey_hash;
  std::string address;
};

// A valid key pair for each `seed` but 0.
SampleKey sample_key(uint8_t seed);

Bytes random_bytes(std::mt19937_64& random, size_t count);
uint256 random_uint256(std::mt19937_64& random);

// Any form of output: by hash, odd hash, scripts at the edges of their length prefix, notes of both versions.
TxOut random_output(std::mt19937_64& random);

Transaction random_transaction(std::mt19937_64& random);

// The message of the std::runtime_error that `call` throws; nothing when it returns.
std::optional<std::string> runtime_error_of(const std::function<void()>& call);

// One part of a byte format, and what a reader says when the data end inside it.
struct FormatField {
  std::string hex;
  const char* cut_message;
};

Bytes join_fields(std::span<const FormatField> fields);

// Hands `read` each proper prefix, in a heap block of its size, and expects the message of the field it ends in.
void expect_cut_messages(std::span<const FormatField> fields, const std::function<void(ByteView)>& read);

}  // namespace norvel
