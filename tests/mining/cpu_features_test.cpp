#include "mining/cpu_features.h"

#include <gtest/gtest.h>

namespace norvel::mining {
namespace {

TEST(CpuFeatures, NeedTheInstructionsAndTheirSavedRegisters) {
  constexpr uint32_t kSse = 1u << 9 | 1u << 19;  // SSSE3, SSE4.1
  constexpr uint32_t kSaving = 1u << 27;         // OSXSAVE
  constexpr uint32_t kAvx = 1u << 28;
  constexpr uint32_t kLeaf1 = kSse | kSaving | kAvx;
  constexpr uint32_t kAvx2 = 1u << 5;
  constexpr uint32_t kFoundation = 1u << 16;
  constexpr uint32_t kSha = 1u << 29;
  constexpr uint32_t kBytesAndWords = 1u << 30;
  constexpr uint32_t kLeaf7 = kAvx2 | kFoundation | kSha | kBytesAndWords;
  const struct {
    const char* label;
    CpuRegisters registers;
    bool avx512, sha_ni, avx2;
  } rows[] = {
      {"nothing", {}, false, false, false},
      {"everything, saved", {kLeaf1, kLeaf7, 0xe7}, true, true, true},
      {"system without XGETBV", {kLeaf1 & ~kSaving, kLeaf7, 0}, false, true, false},
      {"saves nothing wide", {kLeaf1, kLeaf7, 0x3}, false, true, false},
      {"saves YMM without XMM", {kLeaf1, kLeaf7, 0xe5}, false, true, false},
      {"saves YMM only", {kLeaf1, kLeaf7, 0x7}, false, true, true},
      {"saves no opmasks", {kLeaf1, kLeaf7, 0xc7}, false, true, true},
      {"saves no upper halves", {kLeaf1, kLeaf7, 0xa7}, false, true, true},
      {"saves no ZMM16 to 31", {kLeaf1, kLeaf7, 0x67}, false, true, true},
      {"saves ZMM without YMM", {kLeaf1, kLeaf7, 0xe3}, false, true, false},
      {"no AVX", {kLeaf1 & ~kAvx, kLeaf7, 0xe7}, false, true, false},
      {"no AVX2", {kLeaf1, kLeaf7 & ~kAvx2, 0xe7}, false, true, false},
      {"no AVX-512 foundation", {kLeaf1, kLeaf7 & ~kFoundation, 0xe7}, false, true, true},
      {"no AVX-512 bytes and words", {kLeaf1, kLeaf7 & ~kBytesAndWords, 0xe7}, false, true, true},
      {"no SHA", {kLeaf1, kLeaf7 & ~kSha, 0xe7}, true, false, true},
      {"SHA without SSSE3", {kLeaf1 & ~(1u << 9), kLeaf7, 0xe7}, true, false, true},
      {"SHA without SSE4.1", {kLeaf1 & ~(1u << 19), kLeaf7, 0xe7}, true, false, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(has_avx512(row.registers), row.avx512);
    EXPECT_EQ(has_sha_ni(row.registers), row.sha_ni);
    EXPECT_EQ(has_avx2(row.registers), row.avx2);
  }
}

// The compiler's runtime finds out by itself.
TEST(CpuFeatures, AgreeWithTheCompilersRuntime) {
#if defined(__x86_64__)
  const CpuRegisters registers = read_cpu_registers();
  EXPECT_EQ(has_avx2(registers), __builtin_cpu_supports("avx2") != 0);
  EXPECT_EQ(has_avx512(registers), __builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512bw") != 0);
#else
  GTEST_SKIP() << "not an x86-64 processor";
#endif
}

}  // namespace
}  // namespace norvel::mining
