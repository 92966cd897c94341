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
    norvel::require(copy.to_string() == value.to_string());
    JsonValue::parse(value.to_string());
  } catch (const std::invalid_argument&) {
    // A number without digits.
  } catch (const std::out_of_range&) {
    // A number that no double holds.
  }
  return 0;
}
