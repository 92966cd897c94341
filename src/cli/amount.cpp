#include "cli/amount.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <stdexcept>

#include "core/transaction.h"

namespace norvel::cli {

std::optional<int64_t> parse_coins(std::string_view text) {
  const size_t point = text.find('.');
  const std::string_view places = point == std::string_view::npos ? std::string_view() : text.substr(point + 1);
  std::string digits(text.substr(0, point));
  digits += places;
  const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
  if (digits.empty() || places.size() > kCoinDecimals || !std::ranges::all_of(digits, is_digit)) {
    return std::nullopt;
  }
  digits.append(kCoinDecimals - places.size(), '0');
  int64_t units = 0;
  const std::from_chars_result read = std::from_chars(digits.data(), digits.data() + digits.size(), units);
  return read.ec == std::errc() ? std::optional(units) : std::nullopt;
}

std::string coins_text(int64_t units) {
  const bool negative = units < 0;
  const uint64_t size = negative ? uint64_t{0} - static_cast<uint64_t>(units) : static_cast<uint64_t>(units);
  const std::string places = std::to_string(size % uint64_t{kCoin});
  std::string text = negative ? "-" : "";
  text += std::to_string(size / uint64_t{kCoin});
  text += '.';
  text.append(kCoinDecimals - places.size(), '0');
  return text += places;
}

int64_t read_units(const rpc::JsonValue& value, const std::string& what) {
  const double number = value.number;
  const bool exact = value.type == rpc::JsonType::kNumber && number >= 0 &&
                     number < static_cast<double>(kJsonUnitsMax) && std::trunc(number) == number;
  if (!exact) {
    throw std::runtime_error("The node gave no exact amount as " + what);
  }
  return rpc::to_i64(number);
}

static_assert(kCoin == 100'000'000 && kCoinDecimals == 8, "decimal places and base units say the same");

}  // namespace norvel::cli
