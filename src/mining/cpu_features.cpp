#include "mining/cpu_features.h"

#if defined(__x86_64__)
#include <cpuid.h>
#endif

namespace norvel::mining {

namespace {

// Bits of CPUID leaf 1 ECX, of leaf 7 EBX and of XCR0, as the manuals of Intel
// and AMD number them.
constexpr uint32_t kSsse3 = 1u << 9;
constexpr uint32_t kSse41 = 1u << 19;
constexpr uint32_t kOsxsave = 1u << 27;
constexpr uint32_t kAvx = 1u << 28;

constexpr uint32_t kAvx2 = 1u << 5;
constexpr uint32_t kAvx512F = 1u << 16;
constexpr uint32_t kSha = 1u << 29;
constexpr uint32_t kAvx512Bw = 1u << 30;

constexpr uint64_t kAvxState = 0b110;           // XMM, upper halves of YMM
constexpr uint64_t kAvx512State = 0b1110'0000;  // opmasks, upper halves of ZMM, ZMM16 to 31

bool has_all(uint64_t value, uint64_t bits) {
  return (value & bits) == bits;
}

}  // namespace

CpuRegisters read_cpu_registers() {
  CpuRegisters registers;
#if defined(__x86_64__)
  uint32_t eax = 0;
  uint32_t ebx = 0;
  uint32_t ecx = 0;
  uint32_t edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0) {
    registers.leaf1_ecx = ecx;
  }
  if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) != 0) {
    registers.leaf7_ebx = ebx;
  }
  if (has_all(registers.leaf1_ecx, kOsxsave)) {
    asm volatile("xgetbv" : "=a"(eax), "=d"(edx) : "c"(0));
    registers.xcr0 = uint64_t{edx} << 32 | eax;
  }
#endif
  return registers;
}

bool has_avx512(const CpuRegisters& registers) {
  return has_avx2(registers) && has_all(registers.leaf7_ebx, kAvx512F | kAvx512Bw) &&
         has_all(registers.xcr0, kAvx512State);
}

bool has_sha_ni(const CpuRegisters& registers) {
  return has_all(registers.leaf1_ecx, kSsse3 | kSse41) && has_all(registers.leaf7_ebx, kSha);
}

bool has_avx2(const CpuRegisters& registers) {
  return has_all(registers.leaf1_ecx, kOsxsave | kAvx) && has_all(registers.leaf7_ebx, kAvx2) &&
         has_all(registers.xcr0, kAvxState);
}

}  // namespace norvel::mining
