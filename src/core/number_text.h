// Numbers as people read them. Threads: free functions without state.

#pragma once

#include <string>

namespace norvel {

// `value` in fixed notation with `decimals` places, rounded to nearest.
std::string to_fixed(double value, int decimals);

}  // namespace norvel
