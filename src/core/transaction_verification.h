// How those who check blocks and transactions are told to check one input.

#pragma once

#include <cstddef>
#include <functional>

namespace norvel {

class Transaction;
struct TxOut;

// Whether input `input_index` unlocks `spent`. Called from several threads.
using InputVerifier = std::function<bool(const Transaction& tx, size_t input_index, const TxOut& spent)>;

}  // namespace norvel
