// The clock of the core that the caller runs on. Threads: no state.

#pragma once

namespace norvel::bench {

// In GHz, from a chain of dependent multiplications of three cycles each, timed
// for some ten milliseconds. Additions would not do: some cores fold dependent
// ones of constants away.
double measure_core_ghz();

}  // namespace norvel::bench
