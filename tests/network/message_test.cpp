// Frames and inventory items, byte by byte.

#include "network/message.h"

#include <gtest/gtest.h>

#include "support/byte_strings.h"
#include "support/ledger_samples.h"

namespace norvel::network {
namespace {

const Bytes kPing = {'N', 'R', 'V', 'L', 3, 2, 0, 0, 0, 0xaa, 0xbb};

Bytes changed(size_t index, uint8_t value) {
  Bytes data = kPing;
  data[index] = value;
  return data;
}

TEST(Message, DecodesWholeFramesOnly) {
  const struct {
    const char* label;
    Bytes data;
    size_t max_payload;
    bool decodes;
  } rows[] = {
      {"as it is", kPing, 2, true},
      {"more behind", join({kPing, {'N'}}), 2, true},
      {"an undefined type", changed(4, 255), 2, true},
      {"payload cut", cut(kPing, 10), 2, false},
      {"above the limit, though all there", kPing, 1, false},
      {"first byte of the magic", changed(0, 'M'), 2, false},
      {"last byte of the magic", changed(3, 'M'), 2, false},
      {"length with its top byte set", changed(8, 0xff), kPayloadBytesMax, false},
      {"eight bytes", cut(kPing, 8), 2, false},
      {"nothing", {}, 2, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto message = Message::deserialize(row.data, row.max_payload);
    ASSERT_EQ(message.has_value(), row.decodes);
    if (message) {
      EXPECT_EQ(static_cast<uint8_t>(message->type), row.data[4]);
      EXPECT_EQ(message->payload, (Bytes{0xaa, 0xbb}));
    }
  }
}

TEST(Message, EncodesTheFrame) {
  EXPECT_EQ((Message{MessageType::PING, {0xaa, 0xbb}}.serialize()), kPing);
  EXPECT_EQ((Message{MessageType::VERACK, {}}.serialize()), (Bytes{'N', 'R', 'V', 'L', 2, 0, 0, 0, 0}));
}

TEST(InvVector, ReadsOneAndLeavesTheOffsetOnFailure) {
  Bytes data(2 * InvVector::kBytes - 1, 7);
  data[0] = 9;
  size_t offset = 0;
  const InvVector item = InvVector::deserialize(data, offset);
  EXPECT_EQ(item.type, 9);
  EXPECT_EQ(item.serialize(), cut(data, 33));
  const auto read = [&] { InvVector::deserialize(data, offset); };
  EXPECT_TRUE(runtime_error_of(read));
  EXPECT_EQ(offset, 33u);
  offset = data.size();
  EXPECT_EQ(runtime_error_of(read), "InvVector: not enough data");
}

}  // namespace
}  // namespace norvel::network
