// Keys, random transactions and format tables for the tests of the ledger.
// Everything follows from the seeds that the caller gives.

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

// Any form of output: payment by hash or by script, contract, no script, odd
// hash, scripts at the edges of their length prefix, notes of both versions.
TxOut random_output(std::mt19937_64& random);

// Of any type, with up to three inputs and outputs.
Transaction random_transaction(std::mt19937_64& random);

// The message of the std::runtime_error that `call` throws; nothing when it
// returns. Other exceptions pass.
std::optional<std::string> runtime_error_of(const std::function<void()>& call);

// One part of a byte format, in hexadecimal, and what a reader says when the
// data end inside it.
struct FormatField {
  std::string hex;
  const char* cut_message;
};

Bytes join_fields(std::span<const FormatField> fields);

// Hands `read` each proper prefix of the joined fields, in a heap block of
// exactly its size, and expects the message of the field that it ends in.
void expect_cut_messages(std::span<const FormatField> fields, const std::function<void(ByteView)>& read);

}  // namespace norvel
