#include "core/bytes.h"

#include <stdexcept>

namespace norvel {

ByteView take(ByteView data, size_t& offset, size_t len, const char* message) {
  if (offset > data.size() || len > data.size() - offset) {
    throw std::runtime_error(message);
  }
  const ByteView field = data.subspan(offset, len);
  offset += len;
  return field;
}

void append(Bytes& out, ByteView tail) {
  out.insert(out.end(), tail.begin(), tail.end());
}

}  // namespace norvel
