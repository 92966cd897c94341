// The payloads of the protocol's messages, as plain values. Integers are
// little-endian but for the IPv4 address of an ADDR entry, which is in network
// order.
//
//   VERSION           size  field
//   0                 4     protocol version
//   4                 8     services
//   12                8     seconds since the Unix epoch, at sending
//   20                4     height of the sender's best chain
//   24                2     the sender's listening port
//   26                1     n, length of the user agent
//   27                n     user agent, ASCII
//   27+n              8     nonce of the node
//
//   INV, GETDATA: items of InvVector::kBytes, no count.
//   GETBLOCKS:    start hash (32), stop hash (32); zero for no stop.
//   ADDR:         count (4), then entries of kAddressEntryBytes: IPv4 address (4),
//                 port (2), last seen in seconds (8), services (4).
//
// Errors: what does not decode is nothing; at most std::bad_alloc is thrown.
// Threads: free functions without state.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/bytes.h"
#include "core/uint256.h"
#include "network/message.h"

namespace norvel::network {

inline constexpr size_t kVersionBytesMin = 24;        // up to the height; the rest may be missing
inline constexpr size_t kInventoryItemsMax = 50'000;  // read of one payload
inline constexpr size_t kAddressesMax = 1'000;        // in one ADDR
inline constexpr size_t kAddressEntryBytes = 18;
inline constexpr size_t kGetBlocksBytes = 2 * uint256::kSize;
static_assert(kInventoryItemsMax * InvVector::kBytes < kPayloadBytesMax);

struct VersionPayload {
  uint32_t version = 0;
  uint64_t services = 0;
  uint64_t timestamp_s = 0;
  uint32_t start_height = 0;
  std::optional<uint16_t> port;
  std::optional<std::string> user_agent;  // at most 255 bytes
  std::optional<uint64_t> nonce;
};

// All fields, a missing one as zero or empty; of the user agent only the low byte
// of its length is written, and so many bytes.
Bytes encode_version(const VersionPayload& version);

// Nothing below kVersionBytesMin. Each of the last three is there when its bytes
// are: the port when there are 26, the user agent when its length byte (at 26, at
// 24 when there is no port) and the whole string are, the nonce behind it.
std::optional<VersionPayload> decode_version(ByteView payload);

// Payload of an INV or a GETDATA.
Bytes encode_inventory(const std::vector<InvVector>& items);

// At most kInventoryItemsMax items; a rest of less than one item is left out.
std::vector<InvVector> decode_inventory(ByteView payload);

struct GetBlocksPayload {
  uint256 start;  // the newest block that the sender has
  uint256 stop;   // zero: none

  bool operator==(const GetBlocksPayload&) const = default;
};

Bytes encode_get_blocks(const GetBlocksPayload& range);

// Nothing below kGetBlocksBytes; bytes beyond are not looked at.
std::optional<GetBlocksPayload> decode_get_blocks(ByteView payload);

struct AddressEntry {
  std::array<uint8_t, 4> ip{};  // 203.0.113.7 is {203, 0, 113, 7}
  uint16_t port = 0;
  uint64_t last_seen_s = 0;
  uint32_t services = 0;

  bool operator==(const AddressEntry&) const = default;
};

// At most kAddressesMax entries are written.
Bytes encode_addresses(const std::vector<AddressEntry>& entries);

// Nothing when the count is above kAddressesMax. Otherwise the entries that are
// there whole, so none of a payload without a count.
std::optional<std::vector<AddressEntry>> decode_addresses(ByteView payload);

}  // namespace norvel::network
