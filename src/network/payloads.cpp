#include "network/payloads.h"

#include <algorithm>
#include <span>

namespace norvel::network {

namespace {

constexpr size_t kPortEnd = kVersionBytesMin + sizeof(uint16_t);
constexpr size_t kAddressCountBytes = sizeof(uint32_t);

static_assert(kAddressEntryBytes == 4 + sizeof(uint16_t) + sizeof(uint64_t) + sizeof(uint32_t));

bool has(ByteView data, size_t offset, size_t len) {
  return offset <= data.size() && len <= data.size() - offset;
}

AddressEntry read_address(ByteView data, size_t& offset) {
  AddressEntry entry;
  std::ranges::copy(take(data, offset, entry.ip.size()), entry.ip.begin());
  entry.port = read_le<uint16_t>(data, offset);
  entry.last_seen_s = read_le<uint64_t>(data, offset);
  entry.services = read_le<uint32_t>(data, offset);
  return entry;
}

}  // namespace

Bytes encode_version(const VersionPayload& version) {
  const std::string agent = version.user_agent.value_or("");
  const auto agent_length = static_cast<uint8_t>(agent.size());
  Bytes out;
  append_le(out, version.version);
  append_le(out, version.services);
  append_le(out, version.timestamp_s);
  append_le(out, version.start_height);
  append_le(out, version.port.value_or(uint16_t{0}));
  out.push_back(agent_length);
  out.insert(out.end(), agent.begin(), agent.begin() + agent_length);
  append_le(out, version.nonce.value_or(0));
  return out;
}

std::optional<VersionPayload> decode_version(ByteView payload) {
  if (payload.size() < kVersionBytesMin) {
    return std::nullopt;
  }
  VersionPayload version;
  size_t offset = 0;
  version.version = read_le<uint32_t>(payload, offset);
  version.services = read_le<uint64_t>(payload, offset);
  version.timestamp_s = read_le<uint64_t>(payload, offset);
  version.start_height = read_le<uint32_t>(payload, offset);
  if (payload.size() >= kPortEnd) {
    version.port = read_le<uint16_t>(payload, offset);
  }
  if (!has(payload, offset, 1)) {
    return version;
  }
  const size_t agent_length = payload[offset++];
  if (!has(payload, offset, agent_length)) {
    return version;
  }
  const ByteView agent = take(payload, offset, agent_length);
  version.user_agent.emplace(agent.begin(), agent.end());
  if (has(payload, offset, sizeof(uint64_t))) {
    version.nonce = read_le<uint64_t>(payload, offset);
  }
  return version;
}

Bytes encode_inventory(const std::vector<InvVector>& items) {
  Bytes out;
  out.reserve(items.size() * InvVector::kBytes);
  for (const InvVector& item : items) {
    out.push_back(item.type);
    append(out, item.hash.bytes());
  }
  return out;
}

std::vector<InvVector> decode_inventory(ByteView payload) {
  const size_t count = std::min(payload.size() / InvVector::kBytes, kInventoryItemsMax);
  std::vector<InvVector> items;
  items.reserve(count);
  size_t offset = 0;
  while (items.size() < count) {
    items.push_back(InvVector::deserialize(payload, offset));
  }
  return items;
}

Bytes encode_get_blocks(const GetBlocksPayload& range) {
  Bytes out;
  append(out, range.start.bytes());
  append(out, range.stop.bytes());
  return out;
}

std::optional<GetBlocksPayload> decode_get_blocks(ByteView payload) {
  if (payload.size() < kGetBlocksBytes) {
    return std::nullopt;
  }
  size_t offset = 0;
  GetBlocksPayload range;
  range.start = uint256::deserialize(payload, offset);
  range.stop = uint256::deserialize(payload, offset);
  return range;
}

Bytes encode_addresses(const std::vector<AddressEntry>& entries) {
  const size_t count = std::min(entries.size(), kAddressesMax);
  Bytes out;
  out.reserve(kAddressCountBytes + count * kAddressEntryBytes);
  append_le(out, static_cast<uint32_t>(count));
  for (const AddressEntry& entry : std::span(entries).first(count)) {
    append(out, entry.ip);
    append_le(out, entry.port);
    append_le(out, entry.last_seen_s);
    append_le(out, entry.services);
  }
  return out;
}

std::optional<std::vector<AddressEntry>> decode_addresses(ByteView payload) {
  std::vector<AddressEntry> entries;
  if (payload.size() < kAddressCountBytes) {
    return entries;
  }
  size_t offset = 0;
  const size_t announced = read_le<uint32_t>(payload, offset);
  if (announced > kAddressesMax) {
    return std::nullopt;
  }
  const size_t count = std::min(announced, (payload.size() - offset) / kAddressEntryBytes);
  entries.reserve(count);
  while (entries.size() < count) {
    entries.push_back(read_address(payload, offset));
  }
  return entries;
}

}  // namespace norvel::network
