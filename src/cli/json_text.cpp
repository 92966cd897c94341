#include "cli/json_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <vector>

#include "core/console.h"
#include "rpc/http_reply.h"

namespace norvel::cli {

namespace {

using rpc::JsonType;
using rpc::JsonValue;

constexpr size_t kDepthMax = rpc::JsonLimits{}.depth;

// What a short number with an exponent grows to is bounded by the number alone;
// many of them together, by the size of a reply.
constexpr size_t kPlainBytesMax = rpc::HttpReply::kBytesMax;

// The longest normal double in fixed notation has 308 digits and a sign, or a
// sign, "0." and 324 of them.
constexpr size_t kFixedCharactersMax = 400;

// Recursive descent without building anything but a list of the numbers that have
// an exponent; each member tells whether its piece was there and moves behind it.
class Checker {
 public:
  explicit Checker(std::string_view text) : rest_(text) {}

  bool whole() {
    const bool found = value();
    skip_blanks();
    return found && rest_.empty();
  }

  // Numbers with an exponent, in the order of the text.
  const std::vector<std::string_view>& exponent_numbers() const { return exponent_numbers_; }

 private:
  void skip_blanks() { rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t\r\n"), rest_.size())); }

  bool consume(std::string_view word) {
    if (!rest_.starts_with(word)) {
      return false;
    }
    rest_.remove_prefix(word.size());
    return true;
  }

  bool value() {
    skip_blanks();
    if (rest_.starts_with('"')) {
      return quoted();
    }
    if (rest_.starts_with('[') || rest_.starts_with('{')) {
      return container();
    }
    return consume("true") || consume("false") || consume("null") || number();
  }

  bool container() {
    if (depth_ == kDepthMax) {
      return false;
    }
    ++depth_;
    const bool is_object = rest_.front() == '{';
    const std::string_view end = is_object ? "}" : "]";
    rest_.remove_prefix(1);
    skip_blanks();
    bool whole = consume(end);
    if (!whole) {
      do {
        if (is_object && !key()) {
          return false;
        }
        if (!value()) {
          return false;
        }
        skip_blanks();
      } while (consume(","));
      whole = consume(end);
    }
    --depth_;
    return whole;
  }

  bool key() {
    skip_blanks();
    if (!quoted()) {
      return false;
    }
    skip_blanks();
    return consume(":");
  }

  bool quoted() {
    if (!consume("\"")) {
      return false;
    }
    for (;;) {
      const size_t stop = rest_.find_first_of("\"\\");
      if (stop == std::string_view::npos) {
        return false;
      }
      rest_.remove_prefix(stop);
      if (consume("\"")) {
        return true;
      }
      if (rest_.size() < 2) {
        return false;
      }
      rest_.remove_prefix(2);
    }
  }

  bool digits() {
    const size_t count = std::min(rest_.find_first_not_of("0123456789"), rest_.size());
    rest_.remove_prefix(count);
    return count > 0;
  }

  bool number() {
    const std::string_view from_here = rest_;
    if (!decimal()) {
      return false;
    }
    if (!consume("e") && !consume("E")) {
      return true;
    }
    if (!consume("+")) {
      consume("-");
    }
    if (!digits()) {
      return false;
    }
    exponent_numbers_.push_back(from_here.substr(0, from_here.size() - rest_.size()));
    return true;
  }

  bool decimal() {
    consume("-");
    const bool starts_with_zero = rest_.starts_with('0');
    const size_t before = rest_.size();
    if (!digits() || (starts_with_zero && before - rest_.size() > 1)) {
      return false;
    }
    return !consume(".") || digits();
  }

  std::string_view rest_;
  size_t depth_ = 0;
  std::vector<std::string_view> exponent_numbers_;
};

std::string fixed_text(double number) {
  std::array<char, kFixedCharactersMax> text;
  const auto end = std::to_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed).ptr;
  return {text.data(), end};
}

// The same number without an exponent; nothing beyond the normal doubles, which
// end at exponents of 308 and -308.
std::optional<std::string> without_exponent(std::string_view text) {
  double number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool is_held = failure == std::errc() && end == text.data() + text.size();
  return is_held && (number == 0 || std::isnormal(number)) ? std::optional(fixed_text(number)) : std::nullopt;
}

// `text` with those numbers of it written plainly, as the reader of JsonValue
// knows no exponents.
std::optional<std::string> without_exponents(std::string_view text, const std::vector<std::string_view>& numbers) {
  std::string out;
  const char* copied = text.data();
  for (const std::string_view number : numbers) {
    const auto plain = without_exponent(number);
    if (!plain || out.size() > kPlainBytesMax) {
      return std::nullopt;
    }
    out.append(copied, number.data());
    out += *plain;
    copied = number.data() + number.size();
  }
  out.append(copied, text.data() + text.size());
  return out;
}

// Nothing for a text of more values than the reader makes: it would take what
// follows them for absent.
std::optional<JsonValue> parse_whole(std::string_view text) {
  const rpc::JsonLimits limits;
  size_t values_read = 0;
  JsonValue value = JsonValue::parse(text, limits, values_read);
  return values_read < limits.values ? std::optional(std::move(value)) : std::nullopt;
}

void write_lines(const JsonValue& value, size_t indent, std::string& out);

// One member or element on a line of its own.
void begin_line(size_t indent, bool first, std::string& out) {
  out += first ? "\n" : ",\n";
  out.append(indent, ' ');
}

void end_container(size_t indent, bool empty, char closing, std::string& out) {
  if (!empty) {
    out += '\n';
    out.append(indent, ' ');
  }
  out += closing;
}

void write_object(const JsonValue& value, size_t indent, std::string& out) {
  out += '{';
  bool first = true;
  for (const auto& [key, member] : value.object) {
    begin_line(indent + 2, first, out);
    out += printable_whole(JsonValue(key).to_string()) + ": ";
    write_lines(member, indent + 2, out);
    first = false;
  }
  end_container(indent, first, '}', out);
}

void write_array(const JsonValue& value, size_t indent, std::string& out) {
  out += '[';
  bool first = true;
  for (const JsonValue& element : value.array) {
    begin_line(indent + 2, first, out);
    write_lines(element, indent + 2, out);
    first = false;
  }
  end_container(indent, first, ']', out);
}

void write_lines(const JsonValue& value, size_t indent, std::string& out) {
  if (value.type == JsonType::kObject) {
    write_object(value, indent, out);
  } else if (value.type == JsonType::kArray) {
    write_array(value, indent, out);
  } else if (value.type == JsonType::kNumber && static_cast<double>(rpc::to_i64(value.number)) != value.number) {
    out += fixed_text(value.number);
  } else {
    out += printable_whole(value.to_string());
  }
}

bool is_continuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

}  // namespace

bool is_json(std::string_view text) {
  return Checker(text).whole();
}

std::optional<JsonValue> read_json(std::string_view text) {
  Checker checker(text);
  if (!checker.whole()) {
    return std::nullopt;
  }
  try {
    if (checker.exponent_numbers().empty()) {
      return parse_whole(text);
    }
    const auto plain = without_exponents(text, checker.exponent_numbers());
    return plain ? parse_whole(*plain) : std::nullopt;
  } catch (const std::logic_error&) {  // a number beyond every double
    return std::nullopt;
  }
}

JsonValue read_parameter(const std::string& text) {
  const auto value = read_json(text);
  const bool is_sent_as_typed = value && (value->type != JsonType::kNumber || value->to_string() == text);
  return is_sent_as_typed ? *value : JsonValue(text);
}

std::string result_text(const JsonValue& value) {
  if (value.type == JsonType::kString) {
    return printable_whole(value.string);
  }
  std::string out;
  write_lines(value, 0, out);
  return out;
}

std::string printable_whole(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    size_t size = std::min(text.size(), console::kPrintableBytesMax);
    // No character is cut in two; the longest has four bytes.
    for (size_t back = 0; back < 3 && size < text.size() && size > 1 && is_continuation(text[size]); ++back) {
      --size;
    }
    out += console::printable(text.substr(0, size));
    text.remove_prefix(size);
  }
  return out;
}

}  // namespace norvel::cli
