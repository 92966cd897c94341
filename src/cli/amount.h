// Amounts as people write them, in coins, and as the system counts them, in
// base units. Never by way of a floating-point number, except where JSON gives
// one, which is then refused unless it is exact. Threads: no state.

#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "rpc/json.h"

namespace norvel::cli {

// Decimal places of a coin.
inline constexpr size_t kCoinDecimals = 8;

// Base units from here on may have been rounded on their way through JSON.
inline constexpr int64_t kJsonUnitsMax = int64_t{1} << 53;

// The base units of a decimal number of coins such as "12", "0.5" or ".00000001".
// Nothing for any other text (signs, exponents, blanks, more than kCoinDecimals
// places) and for one beyond the signed 64-bit range.
std::optional<int64_t> parse_coins(std::string_view text);

// `units` in coins with all decimal places: "-0.00000001".
std::string coins_text(int64_t units);

// Base units given as a JSON number. Throws std::runtime_error that names `what`
// unless it is a whole number of [0, kJsonUnitsMax).
int64_t read_units(const rpc::JsonValue& value, const std::string& what);

}  // namespace norvel::cli
