// What a decoder may ask of the heap for counts that no data stand behind.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "core/block.h"
#include "core/transaction.h"
#include "crypto/hex.h"
#include "support/ledger_samples.h"

static size_t largest_request = 0;  // bytes; this program has one thread

void* operator new(size_t size) {
  largest_request = std::max(largest_request, size);
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
  } rows[] = {
      {"65,535 inputs", tx_start + "ffff", read_tx},
      {"script of 2^64 - 1 bytes", output_start + "ffffffffffffffffff", read_tx},
      {"ciphertext of 4 MiB", output_start + "00" + "01" + "0500" + "0100400000", read_tx},
      {"2^32 - 1 transactions", header + "ffffffff" + "0000000000000000", read_block},
      {"transaction of 2^32 - 1 bytes", header + "01000000" + "ffffffff", read_block},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const Bytes data = crypto::hex_to_bytes(row.hex);
    largest_request = 0;
    EXPECT_TRUE(runtime_error_of([&] { row.read(data); }));
    EXPECT_LT(largest_request, 1'000u);
  }
}

}  // namespace
}  // namespace norvel
