// What a decoder may ask of the heap for counts that no data stand behind.

#include <gtest/gtest.h>

#include <functional>
#include <tuple>

#include "core/block.h"
#include "core/transaction.h"
#include "crypto/hex.h"
#include "support/allocations.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

TEST(DecoderMemory, FollowsTheDataAndNotTheCounts) {
  const std::string tx_start = "0101000000" + std::string(16, '0');
  const std::string output_start = tx_start + "0000" + "0100" + std::string(16, '0');
  const std::string header(2 * 88, '0');
  const auto read_tx = [](ByteView data) { Transaction::deserialize(data); };
  const auto read_block = [](ByteView data) { Block::deserialize(data); };
  const std::tuple<const char*, std::string, void (*)(ByteView)> rows[] = {
      {"65,535 inputs", tx_start + "ffff", read_tx},
      {"script of 2^64 - 1 bytes", output_start + "ffffffffffffffffff", read_tx},
      {"ciphertext of 4 MiB", output_start + "00" + "01" + "0500" + "0100400000", read_tx},
      {"2^32 - 1 transactions", header + "ffffffff" + "0000000000000000", read_block},
      {"transaction of 2^32 - 1 bytes", header + "01000000" + "ffffffff", read_block},
  };
  for (const auto& [label, hex, read] : rows) {
    SCOPED_TRACE(label);
    const Bytes data = crypto::hex_to_bytes(hex);
    allocations.largest_bytes = 0;
    EXPECT_TRUE(runtime_error_of(std::bind(read, ByteView(data))));
    EXPECT_LT(allocations.largest_bytes, 1'000u);
  }
}

}  // namespace
}  // namespace norvel
