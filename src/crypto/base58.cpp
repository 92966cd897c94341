#include "crypto/base58.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string_view>

namespace norvel::crypto {

namespace {

constexpr std::string_view kAlphabet = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";
constexpr uint32_t kBase = 58;
static_assert(kAlphabet.size() == kBase);

// number = number * kFactor + value, for a number of at least one digit held in
// base kDigitBase, least significant digit first.
template <uint32_t kDigitBase, uint32_t kFactor>
void multiply_add(Bytes& number, uint32_t value) {
  uint32_t carry = value;
  for (uint8_t& digit : number) {
    const uint32_t x = digit * kFactor + carry;
    digit = static_cast<uint8_t>(x % kDigitBase);
    carry = x / kDigitBase;
  }
  for (; carry != 0; carry /= kDigitBase) {
    number.push_back(static_cast<uint8_t>(carry % kDigitBase));
  }
}

}  // namespace

bool is_base58_character(char character) {
  return kAlphabet.find(character) != std::string_view::npos;
}

std::string base58_encode(ByteView data) {
  Bytes digits(1, 0);
  for (const uint8_t byte : data) {
    multiply_add<kBase, 256>(digits, byte);
  }
  const auto zeros = std::find_if(data.begin(), data.end(), [](uint8_t byte) { return byte != 0; }) - data.begin();
  std::string text(static_cast<size_t>(zeros), kAlphabet.front());
  std::transform(digits.rbegin(), digits.rend(), std::back_inserter(text),
                 [](uint8_t digit) { return kAlphabet[digit]; });
  return text;
}

Bytes base58_decode(const std::string& text) {
  // Looked for first, so that a long text with one in it costs linear time.
  if (!std::all_of(text.begin(), text.end(), is_base58_character)) {
    throw std::runtime_error("base58_decode: invalid character");
  }
  Bytes bytes(1, 0);
  for (const char character : text) {
    multiply_add<256, kBase>(bytes, static_cast<uint32_t>(kAlphabet.find(character)));
  }
  const size_t ones = std::min(text.find_first_not_of(kAlphabet.front()), text.size());
  bytes.insert(bytes.end(), ones, 0);
  std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

}  // namespace norvel::crypto
