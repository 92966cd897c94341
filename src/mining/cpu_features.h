// What the processor and the operating system offer to the search kernels.
//
// Threads: pure functions and reads of the processor's own description.

#pragma once

#include <cstdint>

namespace norvel::mining {

// The registers that tell of instructions, as the processor gives them on x86;
// all zero on others.
struct CpuRegisters {
  uint32_t leaf1_ecx = 0;  // CPUID leaf 1
  uint32_t leaf7_ebx = 0;  // CPUID leaf 7, subleaf 0
  uint64_t xcr0 = 0;       // register sets that the operating system saves; 0 unless it enabled XGETBV
};

// Reads those of the processor that this thread runs on.
CpuRegisters read_cpu_registers();

// Whether a kernel's instructions are there and the registers it uses are saved.
bool has_avx512(const CpuRegisters& registers);  // the foundation and byte-and-word sets
bool has_sha_ni(const CpuRegisters& registers);  // with SSSE3 and SSE4.1
bool has_avx2(const CpuRegisters& registers);

}  // namespace norvel::mining
