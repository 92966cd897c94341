#include "script/script.h"

#include <gtest/gtest.h>

#include <tuple>

#include "script/compact_size.h"
#include "script/script_testing.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

TEST(Script, PushesAndSerializesWithTheShortestPrefix) {
  const std::tuple<size_t, const char*, const char*> rows[] = {
      {0, "00", "00"},
      {75, "4b", "4b"},
      {76, "4c 4c", "4c"},
      {252, "4c fc", "fc"},
      {253, "4c fd", "fd fd 00"},
      {255, "4c ff", "fd ff 00"},
      {256, "4d 00 01", "fd 00 01"},
      {65'535, "4d ff ff", "fd ff ff"},
      {65'536, "4e 00 00 01 00", "fe 00 00 01 00"},
  };
  for (const auto& [length, push_prefix, wire_prefix] : rows) {
    SCOPED_TRACE(length);
    const Bytes data(length, 0xab);
    Script pushed(hex("75"));
    pushed.push_data(data);
    EXPECT_EQ(pushed.bytes, join({hex("75"), hex(push_prefix), data}));

    const Bytes wire = Script(data).serialize();
    EXPECT_EQ(wire, join({hex(wire_prefix), data}));
    size_t offset = 2;
    EXPECT_EQ(Script::deserialize(join({hex("01 02"), wire, hex("03")}), offset).bytes, data);
    EXPECT_EQ(offset, 2 + wire.size());
  }
  Bytes longest;
  append_compact_size(longest, 0xffffffff);
  EXPECT_EQ(longest, hex("fe ff ff ff ff"));
}

TEST(Script, ReadsEveryPrefixAndRefusesWhatEndsEarly) {
  const auto error_of = [](const Bytes& data, size_t start) {
    size_t offset = start;
    const auto error = runtime_error_of([&] { Script::deserialize(data, offset); });
    EXPECT_EQ(offset, start);
    return error;
  };
  constexpr const char* kTooShort = "Invalid script data: insufficient bytes";
  for (const char* wire : {"02 51 52", "fd 0200 51 52", "fe 02000000 51 52", "ff 0200000000000000 51 52"}) {
    const Bytes whole = hex(wire);
    size_t offset = 0;
    EXPECT_EQ(Script::deserialize(whole, offset).bytes, hex("51 52"));
    for (size_t len = 1; len < whole.size(); ++len) {
      const char* want = len < whole.size() - 2 ? "Invalid script length encoding" : kTooShort;
      EXPECT_EQ(error_of(cut(whole, len), 0), want) << len;
    }
  }
  EXPECT_EQ(error_of(hex("ff ff ff ff ff ff ff ff ff 51"), 0), kTooShort) << "2^64 - 1 bytes";
  for (const size_t start : {1u, 2u}) {
    EXPECT_EQ(error_of({0}, start), "Invalid script data: offset out of range");
  }
}

const Bytes kKeyHash(20, 0xaa);
const Bytes kOtherHash(20, 0xbb);
const Bytes kPaymentHash(32, 0xcc);

TEST(Script, BuildsTheStandardTemplates) {
  const Bytes signature = hex("30 01");
  const Bytes key = hex("02 03");
  EXPECT_EQ(Script::create_p2pkh_output(kKeyHash).bytes, join({hex("76 a9 14"), kKeyHash, hex("88 ac")}));
  EXPECT_EQ(Script::create_p2pkh_input(signature, key).bytes, hex("02 3001 02 0203"));
  EXPECT_EQ(Script::create_htlc_output(kKeyHash, kOtherHash, kPaymentHash, 1).bytes,
            join({hex("63 a8 20"), kPaymentHash, hex("88 76 a9 14"), kKeyHash,
                  hex("88 ac 67 04 01000000 b1 75 76 a9 14"), kOtherHash, hex("88 ac 68")}));
  EXPECT_EQ(Script::create_htlc_input_claim(signature, key, hex("0a0b0c")).bytes, hex("02 3001 02 0203 03 0a0b0c 51"));
  EXPECT_EQ(Script::create_htlc_input_refund(signature, key).bytes, hex("02 3001 02 0203 00"));
}

TEST(Script, BuildersRefuseHashesOfAnotherSize) {
  const auto contract_error = [](const Bytes& recipient, const Bytes& refund, const Bytes& payment) {
    return runtime_error_of([&] { Script::create_htlc_output(recipient, refund, payment, 0); });
  };
  EXPECT_EQ(runtime_error_of([] { Script::create_p2pkh_output(Bytes(19)); }), "Invalid pubkey hash size");
  EXPECT_EQ(contract_error(Bytes(21), Bytes(21), Bytes(31)), "recipient_pkh must be 20 bytes");
  EXPECT_EQ(contract_error(Bytes(20), Bytes(21), Bytes(31)), "refund_pkh must be 20 bytes");
  EXPECT_EQ(contract_error(Bytes(20), Bytes(20), Bytes(31)), "payment_hash must be 32 bytes");
}

TEST(Script, RecognisesTheStandardTemplates) {
  const Bytes contract = join({hex("63 a8"), Bytes(57), hex("68")});
  const Bytes p2pkh = Script::create_p2pkh_output(kKeyHash).bytes;
  const auto changed = [](Bytes program, size_t at) {
    program[at] ^= 1;
    return program;
  };
  EXPECT_TRUE(Script::is_htlc_script(contract));
  EXPECT_EQ(Script::extract_pubkey_hash(p2pkh), kKeyHash);
  for (const size_t fixed : {0u, 1u, 59u}) {
    EXPECT_FALSE(Script::is_htlc_script(changed(contract, fixed))) << fixed;
  }
  for (const size_t fixed : {0u, 1u, 2u, 23u, 24u}) {
    EXPECT_EQ(Script::extract_pubkey_hash(changed(p2pkh, fixed)), Bytes()) << fixed;
  }
  EXPECT_FALSE(Script::is_htlc_script(join({hex("63 a8"), Bytes(56), hex("68")})));
  EXPECT_FALSE(Script::is_htlc_script({}));
  EXPECT_EQ(Script::extract_pubkey_hash(join({p2pkh, hex("00")})), Bytes());
}

}  // namespace
}  // namespace norvel
