#include "rpc/json.h"

#include <array>
#include <cctype>
#include <charconv>

namespace norvel::rpc {

namespace {

bool is_blank(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

char unescape(char c) {
  switch (c) {
    case 'n':
      return '\n';
    case 'r':
      return '\r';
    case 't':
      return '\t';
    default:
      return c;
  }
}

// Recursive descent over one text.
//
// Invariant: value() is entered with at least one value left, since the text
// ends with the last one and a container is only entered when a second is left.
class Parser {
 public:
  Parser(std::string_view text, const JsonLimits& limits)
      : text_(text), depth_left_(limits.depth), values_left_(limits.values) {}

  JsonValue value() {
    skip_blanks();
    --values_left_;
    JsonValue parsed = dispatch();
    if (values_left_ == 0) {
      position_ = text_.size();
    }
    return parsed;
  }

  size_t values_left() const { return values_left_; }

 private:
  // The current character; NUL, which begins nothing, at the end of the text.
  char peek() const { return position_ < text_.size() ? text_[position_] : '\0'; }

  bool consume(char expected) {
    if (peek() != expected) {
      return false;
    }
    ++position_;
    return true;
  }

  bool consume_word(std::string_view word) {
    if (!text_.substr(position_).starts_with(word)) {
      return false;
    }
    position_ += word.size();
    return true;
  }

  void skip_blanks() {
    while (position_ < text_.size() && is_blank(text_[position_])) {
      ++position_;
    }
  }

  JsonValue dispatch() {
    const char c = peek();
    if (c == '"') {
      return JsonValue(quoted());
    }
    if (c == '[' || c == '{') {
      return container(c);
    }
    if (c == '-' || is_digit(c)) {
      return number();
    }
    if (consume_word("true")) {
      return JsonValue(true);
    }
    if (consume_word("false")) {
      return JsonValue(false);
    }
    consume_word("null");
    return JsonValue();
  }

  JsonValue container(char opening) {
    if (depth_left_ == 0 || values_left_ == 0) {
      return JsonValue();
    }
    --depth_left_;
    ++position_;
    skip_blanks();
    JsonValue parsed = opening == '[' ? array() : object();
    ++depth_left_;
    return parsed;
  }

  JsonValue array() {
    std::vector<JsonValue> elements;
    if (!consume(']')) {
      do {
        elements.push_back(value());
        skip_blanks();
      } while (consume(','));
      consume(']');
    }
    return JsonValue(std::move(elements));
  }

  JsonValue object() {
    JsonValue members = JsonValue::make_object();
    if (!consume('}')) {
      do {
        skip_blanks();
        std::string key = quoted();
        skip_blanks();
        consume(':');
        members.set(std::move(key), value());
        skip_blanks();
      } while (consume(','));
      consume('}');
    }
    return members;
  }

  // The text up to the closing quote or the end; empty, and nothing consumed,
  // where no quote opens.
  std::string quoted() {
    std::string out;
    if (!consume('"')) {
      return out;
    }
    while (position_ < text_.size()) {
      const size_t run = position_;
      position_ = plain_end();
      out.append(text_, run, position_ - run);
      if (position_ == text_.size() || consume('"')) {
        break;
      }
      ++position_;  // the backslash, which stands for itself at the end of the text
      out += position_ < text_.size() ? unescape(text_[position_++]) : '\\';
    }
    return out;
  }

  // End of the characters from here on that stand for themselves in a string;
  // locals only, since most bytes of a template pass through this loop.
  size_t plain_end() const {
    const char* const end = text_.data() + text_.size();
    const char* at = text_.data() + position_;
    while (at != end && *at != '"' && *at != '\\') {
      ++at;
    }
    return static_cast<size_t>(at - text_.data());
  }

  JsonValue number() {
    const size_t start = position_;
    consume('-');
    while (is_digit(peek()) || peek() == '.') {
      ++position_;
    }
    return JsonValue(std::stod(std::string(text_.substr(start, position_ - start))));
  }

  const std::string_view text_;
  size_t position_ = 0;
  size_t depth_left_;
  size_t values_left_;
};

void write_number(double number, std::string& out) {
  const int64_t integer = to_i64(number);
  std::array<char, 32> digits;
  if (static_cast<double>(integer) == number) {
    out.append(digits.data(), std::to_chars(digits.begin(), digits.end(), integer).ptr);
  } else if (std::isnan(number)) {
    out += "nan";  // whatever the sign bit, which arithmetic sets at will
  } else {
    // The output of a stream in its default format.
    out.append(digits.data(), std::to_chars(digits.begin(), digits.end(), number, std::chars_format::general, 6).ptr);
  }
}

// For each character the one after the backslash; NUL where none is needed.
constexpr std::array<char, 256> kEscapes = [] {
  std::array<char, 256> escapes{};
  escapes['"'] = '"';
  escapes['\\'] = '\\';
  escapes['\n'] = 'n';
  escapes['\r'] = 'r';
  escapes['\t'] = 't';
  return escapes;
}();

void write_string(std::string_view text, std::string& out) {
  out += '"';
  size_t run = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const char escaped = kEscapes[static_cast<unsigned char>(text[i])];
    if (escaped != '\0') {
      out.append(text, run, i - run);
      out += '\\';
      out += escaped;
      run = i + 1;
    }
  }
  out.append(text, run);
  out += '"';
}

void write_value(const JsonValue& value, std::string& out);

void write_array(const JsonValue& value, std::string& out) {
  out += '[';
  const char* separator = "";
  for (const JsonValue& element : value.array) {
    out += separator;
    write_value(element, out);
    separator = ",";
  }
  out += ']';
}

void write_object(const JsonValue& value, std::string& out) {
  out += '{';
  const char* separator = "\"";
  for (const auto& [key, member] : value.object) {
    out += separator;
    out += key;
    out += "\":";
    write_value(member, out);
    separator = ",\"";
  }
  out += '}';
}

void write_value(const JsonValue& value, std::string& out) {
  switch (value.type) {
    case JsonType::kNull:
      out += "null";
      return;
    case JsonType::kBoolean:
      out += value.boolean ? "true" : "false";
      return;
    case JsonType::kNumber:
      return write_number(value.number, out);
    case JsonType::kString:
      return write_string(value.string, out);
    case JsonType::kArray:
      return write_array(value, out);
    case JsonType::kObject:
      return write_object(value, out);
  }
}

}  // namespace

JsonValue JsonValue::make_object() {
  JsonValue value;
  value.type = JsonType::kObject;
  return value;
}

JsonValue JsonValue::parse(std::string_view text, const JsonLimits& limits) {
  size_t values_read = 0;
  return parse(text, limits, values_read);
}

JsonValue JsonValue::parse(std::string_view text, const JsonLimits& limits, size_t& values_read) {
  Parser parser(text, limits);
  JsonValue parsed = parser.value();
  values_read = limits.values - parser.values_left();
  return parsed;
}

std::string JsonValue::to_string() const {
  std::string out;
  append_to(out);
  return out;
}

void JsonValue::append_to(std::string& out) const {
  write_value(*this, out);
}

const JsonValue& JsonValue::get(const std::string& key) const {
  static const JsonValue missing;
  if (type != JsonType::kObject) {
    return missing;
  }
  const auto found = object.find(key);
  return found == object.end() ? missing : found->second;
}

const JsonValue& JsonValue::operator[](size_t index) const {
  static const JsonValue missing;
  return type == JsonType::kArray && index < array.size() ? array[index] : missing;
}

void JsonValue::set(std::string key, JsonValue value) {
  if (type == JsonType::kNull) {
    type = JsonType::kObject;
  }
  object.insert_or_assign(std::move(key), std::move(value));
}

}  // namespace norvel::rpc
