// The frames of the peer-to-peer protocol: a one-byte type and an opaque payload
// behind a nine-byte header, and the inventory item that several payloads are
// made of. Integers are little-endian; there is no checksum.
//
//   offset  size    frame
//   0       4       magic, the ASCII bytes "NRVL"
//   4       1       type
//   5       4       payload length in bytes
//   9       length  payload
//
// Threads: plain values.

#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "core/bytes.h"
#include "core/uint256.h"

namespace norvel::network {

namespace constants {

inline constexpr std::array<uint8_t, 4> MAGIC = {'N', 'R', 'V', 'L'};
inline constexpr uint32_t kProtocolVersion = 70'015;
inline constexpr const char kUserAgent[] = "NorvelNode/v10.2.1";

}  // namespace constants

inline constexpr size_t kFrameHeaderBytes = 9;
static_assert(kFrameHeaderBytes == constants::MAGIC.size() + 1 + sizeof(uint32_t));

// Holds the largest block four times over.
inline constexpr size_t kPayloadBytesMax = 4'194'304;

// Any other byte is carried through and has no effect.
enum class MessageType : uint8_t {
  VERSION = 1,
  VERACK = 2,
  PING = 3,
  PONG = 4,
  GETBLOCKS = 5,
  BLOCKS = 6,  // never sent, ignored on receipt
  GETDATA = 7,
  BLOCK = 8,
  TX = 9,
  MEMPOOL = 10,
  GETADDR = 11,
  ADDR = 12,
  REJECT = 13,
  INV = 14,
};

struct Message {
  MessageType type = MessageType::VERSION;
  Bytes payload;

  // The frame: kFrameHeaderBytes and the payload.
  Bytes serialize() const;

  // The frame at the start of `data`; bytes after it are not looked at. Nothing
  // unless the header is whole, the magic right, the length at most `max_payload`
  // and the payload whole.
  static std::optional<Message> deserialize(ByteView data, size_t max_payload);
};

inline constexpr uint8_t kInvTransaction = 1;
inline constexpr uint8_t kInvBlock = 2;

struct InvVector {
  uint8_t type = 0;  // kInvTransaction, kInvBlock; others are carried through
  uint256 hash;      // txid or block hash

  static constexpr size_t kBytes = 33;  // the type, then the 32 bytes of the hash

  Bytes serialize() const;

  // The item at `offset`, which moves past it. Throws std::runtime_error
  // ("InvVector: not enough data", or what the hash's reader says), leaving
  // `offset` as it was.
  static InvVector deserialize(ByteView data, size_t& offset);

  bool operator==(const InvVector&) const = default;
};

static_assert(InvVector::kBytes == 1 + sizeof(uint256));

}  // namespace norvel::network
