// The JSON value of the system (RFC 8259, read leniently): a small reader that
// never reports a syntax error and a writer that emits no blanks.
//
// Lookups never fail: a missing member or element is a null value, and a null's
// fields are empty, its number 0. Numbers are doubles, so integers beyond 2^53
// lose precision.
//
// Threads: a plain value; the shared null values are immutable.

#pragma once

#include <cmath>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace norvel::rpc {

// `number` truncated toward zero; the nearest limit of T when it lies outside,
// 0 when it is not a number.
template <std::integral T>
T saturate(double number) {
  using Limits = std::numeric_limits<T>;
  // 2^digits, the first double above every T, is exact; the maximum itself need not be.
  const double above = std::ldexp(1.0, Limits::digits);
  if (std::isnan(number)) {
    return 0;
  }
  if (number >= above) {
    return Limits::max();
  }
  if (number < static_cast<double>(Limits::min())) {
    return Limits::min();
  }
  return static_cast<T>(number);
}

inline int64_t to_i64(double number) {
  return saturate<int64_t>(number);
}
inline uint32_t to_u32(double number) {
  return saturate<uint32_t>(number);
}

enum class JsonType : int32_t {
  kNull = 0,
  kBoolean = 1,
  kNumber = 2,
  kString = 3,
  kArray = 4,
  kObject = 5,
};

// What one text may make the reader build, so that a hostile text exhausts
// neither the stack (in reading, copying or destroying) nor the memory.
struct JsonLimits {
  size_t depth = 512;         // containers within each other; a deeper one reads as null
  size_t values = 4'000'000;  // at least 1; at the limit the text counts as ended
};

struct JsonValue {
  JsonType type = JsonType::kNull;
  bool boolean = false;
  double number = 0;
  std::string string;
  std::vector<JsonValue> array;
  std::map<std::string, JsonValue> object;  // in ascending order of the key's bytes

  JsonValue() = default;
  JsonValue(const char* text) : JsonValue(std::string(text)) {}
  JsonValue(std::string text) : type(JsonType::kString), string(std::move(text)) {}
  JsonValue(std::vector<JsonValue> elements) : type(JsonType::kArray), array(std::move(elements)) {}
  JsonValue(std::nullptr_t) = delete;

  // A boolean from bool, else a number.
  template <typename T>
  requires std::is_arithmetic_v<T> JsonValue(T value) {
    if constexpr (std::is_same_v<T, bool>) {
      type = JsonType::kBoolean;
      boolean = value;
    } else {
      type = JsonType::kNumber;
      number = static_cast<double>(value);
    }
  }

  // An object without members.
  static JsonValue make_object();

  // The first value of `text`; what follows it is ignored. Malformed text gives
  // nulls and containers cut short. O(text). Throws only std::invalid_argument
  // and std::out_of_range ("stod") for a number that does not convert.
  static JsonValue parse(std::string_view text, const JsonLimits& limits = {});

  // The same; tells how many values were read, those that a repeated key replaced
  // included. limits.values of them: the text may go on.
  static JsonValue parse(std::string_view text, const JsonLimits& limits, size_t& values_read);

  // The value without blanks, members in ascending order of their keys. Integral
  // numbers of the signed 64-bit range are written in full, others with six
  // significant digits. Strings escape quote, backslash, LF, CR and tab only;
  // keys are written as they are.
  std::string to_string() const;

  // Adds to_string() to `out`.
  void append_to(std::string& out) const;

  // The member, or a null. The reference is good until this value changes.
  const JsonValue& get(const std::string& key) const;

  // The element, or a null. As above.
  const JsonValue& operator[](size_t index) const;

  // Inserts or replaces a member; a null becomes an object first. A value of
  // another type keeps its type.
  void set(std::string key, JsonValue value);
};

static_assert(std::is_nothrow_move_constructible_v<JsonValue>, "growing arrays must move their elements");

}  // namespace norvel::rpc
