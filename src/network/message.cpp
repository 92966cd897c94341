#include "network/message.h"

#include <algorithm>
#include <stdexcept>

namespace norvel::network {

Bytes Message::serialize() const {
  Bytes out;
  out.reserve(kFrameHeaderBytes + payload.size());
  append(out, constants::MAGIC);
  out.push_back(static_cast<uint8_t>(type));
  append_le(out, static_cast<uint32_t>(payload.size()));
  append(out, payload);
  return out;
}

std::optional<Message> Message::deserialize(ByteView data, size_t max_payload) {
  if (data.size() < kFrameHeaderBytes || !std::ranges::equal(data.first(constants::MAGIC.size()), constants::MAGIC)) {
    return std::nullopt;
  }
  size_t offset = constants::MAGIC.size();
  const auto type = static_cast<MessageType>(data[offset++]);
  const size_t length = read_le<uint32_t>(data, offset);
  if (length > max_payload || length > data.size() - offset) {
    return std::nullopt;
  }
  const ByteView payload = take(data, offset, length);
  return Message{type, Bytes(payload.begin(), payload.end())};
}

Bytes InvVector::serialize() const {
  Bytes out;
  out.reserve(kBytes);
  out.push_back(type);
  append(out, hash.bytes());
  return out;
}

InvVector InvVector::deserialize(ByteView data, size_t& offset) {
  size_t at = offset;
  InvVector item;
  item.type = take(data, at, 1, "InvVector: not enough data")[0];
  item.hash = uint256::deserialize(data, at);
  offset = at;
  return item;
}

}  // namespace norvel::network
