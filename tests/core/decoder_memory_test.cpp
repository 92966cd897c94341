// What a decoder may ask of the heap for counts that no data stand behind.

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "core/block.h"
#include "core/transaction.h"
#include "crypto/hex.h"
#include "support/ledger_samples.h"

namespace {

size_t largest_request = 0;  // bytes; this program has one thread

}  // namespace

void* operator new(size_t size) {
  if (size > largest_request) {
    largest_request = size;
  }
  if (void* memory = std::malloc(size)) {
    return memory;
  }
  throw std::bad_alloc();
}

// Kept out of line, where the compiler can see that both sides are malloc's.
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
  std::free(memory);
}

namespace norvel {
namespace {

TEST(DecoderMemory, FollowsTheDataAndNotTheCounts) {
  const std::string tx_start = "0101000000" + std::string(16, '0');
  const std::string output_start = tx_start + "0000" + "0100" + std::string(16, '0');
  const std::string header(2 * 88, '0');
  const auto read_tx = [](ByteView data) { Transaction::deserialize(data); };
  const auto read_block = [](ByteView data) { Block::deserialize(data); };
  const struct {
    const char* label;
    std::string hex;
    void (*read)(ByteView);
    const char* message;
  } rows[] = {
      {"65,535 inputs", tx_start + "ffff", read_tx, "Not enough bytes to deserialize uint256"},
      {"65,535 outputs", tx_start + "0000" + "ffff", read_tx, "Not enough data for TxOut value"},
      {"signature of 65,535 bytes", tx_start + "0100" + std::string(72, '0') + "ffff", read_tx,
       "Not enough data for signature"},
      {"script of 2^32 - 1 bytes", output_start + "feffffffff", read_tx, "Invalid script data: insufficient bytes"},
      {"script of 2^64 - 1 bytes", output_start + "ffffffffffffffffff", read_tx,
       "Invalid script data: insufficient bytes"},
      {"note of 65,535 bytes", output_start + "00" + "01" + "ffff", read_tx, "Not enough data for message"},
      {"ciphertext of 4 MiB", output_start + "00" + "01" + "0500" + "0100400000", read_tx,
       "EncryptedMessage::deserialize: truncated body"},
      {"2^32 - 1 transactions", header + "ffffffff", read_block, "Not enough data"},
      {"transaction of 2^32 - 1 bytes", header + "01000000" + "ffffffff", read_block, "Not enough data"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const Bytes data = crypto::hex_to_bytes(row.hex);
    largest_request = 0;
    const auto message = runtime_error_of([&] { row.read(data); });
    const size_t largest = largest_request;
    EXPECT_EQ(message, row.message);
    EXPECT_LT(largest, 1'000u);
  }
}

}  // namespace
}  // namespace norvel
