// What the payloads say, cut at every byte.

#include "network/payloads.h"

#include <gtest/gtest.h>

#include "support/byte_strings.h"

namespace norvel::network {
namespace {

const VersionPayload kVersion{.version = 70'015,
                              .services = 1,
                              .timestamp_s = 0x0102030405060708,
                              .start_height = 0x0a0b0c0d,
                              .port = 8333,
                              .user_agent = "abc",
                              .nonce = 0x1122334455667788};

const Bytes kVersionBytes = {0x7f, 0x11, 1,   0,   1,    0,    0,    0,    0,    0,    0,    0,    8,
                             7,    6,    5,   4,   3,    2,    1,    0x0d, 0x0c, 0x0b, 0x0a, 0x8d, 0x20,
                             3,    'a',  'b', 'c', 0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11};

TEST(VersionPayload, TakesThePartsThatAreThere) {
  EXPECT_EQ(encode_version(kVersion), kVersionBytes);
  for (size_t size = 0; size <= kVersionBytes.size(); ++size) {
    SCOPED_TRACE(size);
    const auto version = decode_version(ByteView(kVersionBytes).first(size));
    ASSERT_EQ(version.has_value(), size >= 24);
    if (!version) {
      continue;
    }
    EXPECT_EQ(version->version, kVersion.version);
    EXPECT_EQ(version->timestamp_s, kVersion.timestamp_s);
    EXPECT_EQ(version->start_height, kVersion.start_height);
    EXPECT_EQ(version->port.has_value(), size >= 26);
    EXPECT_EQ(version->user_agent.has_value(), size >= 30);
    EXPECT_EQ(version->nonce.has_value(), size >= 38);
  }
  EXPECT_EQ(decode_version(kVersionBytes)->nonce, kVersion.nonce);
}

TEST(VersionPayload, LooksForTheUserAgentBehindAMissingPort) {
  const auto version = decode_version(join({cut(kVersionBytes, 24), {0}}));
  ASSERT_TRUE(version);
  EXPECT_FALSE(version->port);
  EXPECT_EQ(version->user_agent, "");
}

TEST(Inventory, StopsAtTheLimitAndAtAFragment) {
  const InvVector item{kInvBlock, uint256(uint64_t{77})};
  EXPECT_EQ(decode_inventory(join({encode_inventory({item}), {1}})), std::vector<InvVector>{item});
  EXPECT_TRUE(decode_inventory(Bytes(32)).empty());
  EXPECT_EQ(decode_inventory(Bytes((kInventoryItemsMax + 1) * InvVector::kBytes)).size(), kInventoryItemsMax);
}

TEST(GetBlocks, NeedsBothHashes) {
  const GetBlocksPayload range{uint256(uint64_t{1}), uint256(uint64_t{2})};
  Bytes data = encode_get_blocks(range);
  ASSERT_EQ(data.size(), 64u);
  EXPECT_EQ(data[0], 1);
  EXPECT_EQ(data[32], 2);
  data.push_back(9);
  EXPECT_EQ(decode_get_blocks(data), range);
  EXPECT_FALSE(decode_get_blocks(ByteView(data).first(63)));
}

TEST(Addresses, ReadTheEntriesThatAreThere) {
  const AddressEntry entry{{203, 0, 113, 7}, 0x208d, 0x0102030405060708, 0x0a0b0c0d};
  const Bytes one = {1, 0, 0, 0, 203, 0, 113, 7, 0x8d, 0x20, 8, 7, 6, 5, 4, 3, 2, 1, 0x0d, 0x0c, 0x0b, 0x0a};
  EXPECT_EQ(encode_addresses({entry}), one);
  const auto announced = [&](uint32_t count, size_t entries) {
    Bytes data;
    append_le(data, count);
    for (size_t i = 0; i < entries; ++i) {
      append(data, ByteView(one).subspan(4));
    }
    return data;
  };
  const struct {
    const char* label;
    Bytes data;
    std::optional<size_t> entries;
  } rows[] = {
      {"no count", {1, 0, 0}, 0},
      {"a count of 0", announced(0, 1), 0},
      {"one", one, 1},
      {"one cut by a byte", cut(one, one.size() - 1), 0},
      {"fewer than announced", announced(5, 2), 2},
      {"1000", announced(1'000, 1'000), 1'000},
      {"1001", announced(1'001, 1'001), std::nullopt},
      {"largest count", announced(0xffffffff, 0), std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto entries = decode_addresses(row.data);
    ASSERT_EQ(entries.has_value(), row.entries.has_value());
    if (entries) {
      EXPECT_EQ(*entries, std::vector<AddressEntry>(*row.entries, entry));
    }
  }
  EXPECT_EQ(encode_addresses(std::vector<AddressEntry>(1'001, entry)).size(), 4 + 1'000 * kAddressEntryBytes);
}

}  // namespace
}  // namespace norvel::network
