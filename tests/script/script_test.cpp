#include "script/script.h"
#include "script/compact_size.h"

#include <gtest/gtest.h>

#include "crypto/crypto_testing.h"
#include "script/script_testing.h"

namespace norvel {
namespace {

using crypto::thrown_by;

TEST(Script, PushesDataInTheShortestForm) {
  const struct {
    size_t length;
    const char* prefix;
  } rows[] = {
      {0, "00"},      {1, "01"},         {75, "4b"},           {76, "4c 4c"},
      {255, "4c ff"}, {256, "4d 00 01"}, {65'535, "4d ff ff"}, {65'536, "4e 00 00 01 00"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.length);
    const Bytes data(row.length, 0xab);
    Script script(hex("75"));
    script.push_data(data);
    EXPECT_EQ(script.bytes, join({hex("75"), hex(row.prefix), data}));
  }
}

TEST(Script, SerializesAndReadsBackEveryPrefixWidth) {
  const struct {
    size_t length;
    const char* prefix;
  } rows[] = {
      {0, "00"}, {252, "fc"}, {253, "fd fd 00"}, {65'535, "fd ff ff"}, {65'536, "fe 00 00 01 00"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.length);
    const Script script(Bytes(row.length, 0xab));
    const Bytes wire = script.serialize();
    EXPECT_EQ(wire, join({hex(row.prefix), script.bytes}));
    const Bytes framed = join({hex("01 02"), wire, hex("03")});
    size_t offset = 2;
    EXPECT_EQ(Script::deserialize(framed, offset), script);
    EXPECT_EQ(offset, framed.size() - 1);
  }
}

TEST(CompactSize, WidensAtTheEdgesOfFourBytes) {
  const struct {
    uint64_t value;
    const char* wire;
  } rows[] = {
      {0xffffffff, "fe ff ff ff ff"},
      {0x100000000, "ff 00 00 00 00 01 00 00 00"},
      {UINT64_MAX, "ff ff ff ff ff ff ff ff ff"},
  };
  for (const auto& row : rows) {
    Bytes out;
    append_compact_size(out, row.value);
    EXPECT_EQ(out, hex(row.wire));
    size_t offset = 0;
    EXPECT_EQ(read_compact_size(out, offset), row.value);
  }
}

TEST(Script, ReadsPrefixesThatAreLongerThanNeeded) {
  for (const char* wire : {"fd 02 00 51 52", "fe 02 00 00 00 51 52", "ff 02 00 00 00 00 00 00 00 51 52"}) {
    SCOPED_TRACE(wire);
    size_t offset = 0;
    EXPECT_EQ(Script::deserialize(hex(wire), offset).bytes, hex("51 52"));
  }
}

TEST(Script, RefusesWhatEndsEarlyAndLeavesTheOffset) {
  constexpr const char* kOutOfRange = "Invalid script data: offset out of range";
  constexpr const char* kBadLength = "Invalid script length encoding";
  constexpr const char* kTooShort = "Invalid script data: insufficient bytes";
  const struct {
    const char* label;
    const char* data;
    size_t offset;
    const char* message;
  } rows[] = {
      {"no data", "", 0, kOutOfRange},
      {"offset at the end", "00", 1, kOutOfRange},
      {"offset past the end", "00", 2, kOutOfRange},
      {"2-byte length without a byte", "fd", 0, kBadLength},
      {"2-byte length cut", "fd 01", 0, kBadLength},
      {"4-byte length cut", "fe 01 00 00", 0, kBadLength},
      {"8-byte length cut", "ff 01 00 00 00 00 00 00", 0, kBadLength},
      {"one byte short", "03 51 52", 0, kTooShort},
      {"4 GiB of nothing", "fe ff ff ff ff 51", 0, kTooShort},
      {"length 2^64 - 1", "ff ff ff ff ff ff ff ff ff 51", 0, kTooShort},
      {"length that wraps to the start", "ff f7 ff ff ff ff ff ff ff 51", 0, kTooShort},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    size_t offset = row.offset;
    EXPECT_EQ(thrown_by([&] { Script::deserialize(hex(row.data), offset); }), row.message);
    EXPECT_EQ(offset, row.offset);
  }
}

const Bytes kKeyHash(20, 0xaa);
const Bytes kOtherHash(20, 0xbb);
const Bytes kPaymentHash(32, 0xcc);

TEST(Script, BuildsTheStandardTemplates) {
  const Bytes signature = hex("30 01");
  const Bytes key = hex("02 03");
  const struct {
    const char* label;
    Script built;
    Bytes want;
  } rows[] = {
      {"P2PKH output", Script::create_p2pkh_output(kKeyHash), join({hex("76 a9 14"), kKeyHash, hex("88 ac")})},
      {"P2PKH input", Script::create_p2pkh_input(signature, key), hex("02 3001 02 0203")},
      {"HTLC output, small lock time", Script::create_htlc_output(kKeyHash, kOtherHash, kPaymentHash, 1),
       join({hex("63 a8 20"), kPaymentHash, hex("88 76 a9 14"), kKeyHash, hex("88 ac 67 04 01000000 b1 75 76 a9 14"),
             kOtherHash, hex("88 ac 68")})},
      {"HTLC claim", Script::create_htlc_input_claim(signature, key, hex("0a0b0c")),
       hex("02 3001 02 0203 03 0a0b0c 51")},
      {"HTLC claim with an empty preimage", Script::create_htlc_input_claim(signature, key, {}),
       hex("02 3001 02 0203 00 51")},
      {"HTLC refund", Script::create_htlc_input_refund(signature, key), hex("02 3001 02 0203 00")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(row.built.bytes, row.want);
  }
}

TEST(Script, BuildersRefuseHashesOfAnotherSizeInOrder) {
  const Bytes bad(21);
  EXPECT_EQ(thrown_by([&] { Script::create_p2pkh_output(Bytes(19)); }), "Invalid pubkey hash size");
  EXPECT_EQ(thrown_by([&] { Script::create_p2pkh_output(bad); }), "Invalid pubkey hash size");
  EXPECT_EQ(thrown_by([&] { Script::create_htlc_output(bad, bad, bad, 0); }), "recipient_pkh must be 20 bytes");
  EXPECT_EQ(thrown_by([&] { Script::create_htlc_output(kKeyHash, bad, bad, 0); }), "refund_pkh must be 20 bytes");
  EXPECT_EQ(thrown_by([&] { Script::create_htlc_output(kKeyHash, kKeyHash, bad, 0); }),
            "payment_hash must be 32 bytes");
}

TEST(Script, RecognisesTheShapeOfAnHtlc) {
  const auto shaped = [](size_t length, uint8_t first, uint8_t second, uint8_t last) {
    Bytes script(length, 0xff);
    script[0] = first;
    script[1] = second;
    script.back() = last;
    return script;
  };
  EXPECT_TRUE(Script::is_htlc_script(shaped(60, 0x63, 0xa8, 0x68)));
  EXPECT_TRUE(Script::is_htlc_script(Script::create_htlc_output(kKeyHash, kOtherHash, kPaymentHash, 9).bytes));
  EXPECT_FALSE(Script::is_htlc_script(shaped(59, 0x63, 0xa8, 0x68)));
  EXPECT_FALSE(Script::is_htlc_script(shaped(60, 0x64, 0xa8, 0x68)));
  EXPECT_FALSE(Script::is_htlc_script(shaped(60, 0x63, 0xa9, 0x68)));
  EXPECT_FALSE(Script::is_htlc_script(shaped(60, 0x63, 0xa8, 0x67)));
  EXPECT_FALSE(Script::is_htlc_script({}));
}

TEST(Script, ExtractsTheHashOfAP2pkhScriptOnly) {
  const Script p2pkh = Script::create_p2pkh_output(kKeyHash);
  EXPECT_EQ(p2pkh.extract_pubkey_hash(), kKeyHash);
  for (const size_t fixed : {0u, 1u, 2u, 23u, 24u}) {
    SCOPED_TRACE(fixed);
    Script changed = p2pkh;
    changed.bytes[fixed] ^= 1;
    EXPECT_EQ(changed.extract_pubkey_hash(), Bytes());
  }
  EXPECT_EQ(Script(join({p2pkh.bytes, hex("00")})).extract_pubkey_hash(), Bytes());
  EXPECT_EQ(Script(Bytes(p2pkh.bytes.begin(), p2pkh.bytes.end() - 1)).extract_pubkey_hash(), Bytes());
  EXPECT_EQ(Script().extract_pubkey_hash(), Bytes());
}

}  // namespace
}  // namespace norvel
