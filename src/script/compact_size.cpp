#include "script/compact_size.h"

#include <limits>

namespace norvel {

namespace {

constexpr uint8_t kTwoBytesFollow = 0xfd;
constexpr uint8_t kFourBytesFollow = 0xfe;
constexpr uint8_t kEightBytesFollow = 0xff;

}  // namespace

void append_compact_size(Bytes& out, uint64_t value) {
  if (value < kTwoBytesFollow) {
    out.push_back(static_cast<uint8_t>(value));
  } else if (value <= std::numeric_limits<uint16_t>::max()) {
    out.push_back(kTwoBytesFollow);
    append_le(out, static_cast<uint16_t>(value));
  } else if (value <= std::numeric_limits<uint32_t>::max()) {
    out.push_back(kFourBytesFollow);
    append_le(out, static_cast<uint32_t>(value));
  } else {
    out.push_back(kEightBytesFollow);
    append_le(out, value);
  }
}

uint64_t read_compact_size(ByteView data, size_t& offset, const char* message) {
  size_t at = offset;
  uint64_t value = read_le<uint8_t>(data, at, message);
  if (value == kTwoBytesFollow) {
    value = read_le<uint16_t>(data, at, message);
  } else if (value == kFourBytesFollow) {
    value = read_le<uint32_t>(data, at, message);
  } else if (value == kEightBytesFollow) {
    value = read_le<uint64_t>(data, at, message);
  }
  offset = at;
  return value;
}

}  // namespace norvel
