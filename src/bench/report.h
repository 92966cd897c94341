// What norvel-bench prints. Threads: no state.

#pragma once

#include <string>

#include "bench/measurement.h"

namespace norvel::bench {

// The core clock and a table of the rows; skipped kernels have a row that says so.
std::string table_text(const Measurement& measurement);

// One object on one line: core_ghz and rows, each with what, threads,
// hashes_per_second, cycles_per_hash and checksum. Skipped kernels are left out.
std::string json_text(const Measurement& measurement);

}  // namespace norvel::bench
