#include "script/sighash.h"

#include <gtest/gtest.h>

#include "crypto/crypto_testing.h"
#include "crypto/hash.h"
#include "script/script.h"
#include "script/script_testing.h"

namespace norvel {
namespace {

// What the signature of input 1 of sample_transaction() covers, with script
// code 51 67 88, written out by hand.
Bytes expected_preimage() {
  return join({
      hex("02 1817161514131211 04030201"),  // type, timestamp, version
      hex("02"),                            // inputs
      Bytes(32, 0xa0), hex("24232221 00 34333231"), Bytes(32, 0xb0), hex("44434241 03 516788 54535251"),
      hex("02"),  // outputs
      hex("6867666564636261 02 5152 00"), hex("feffffffffffffff 19 76a914"), Bytes(20, 0x99), hex("88ac 01 4600"),
      hex("01 00000014"), Bytes(20, 0x77), Bytes(12, 0x66), Bytes(33, 0x55),  // the note
      hex("74737271"),                                                        // locktime
  });
}

TEST(SignatureHasher, WritesThePreimageFieldByField) {
  const Script script_code(hex("51 67 88"));
  EXPECT_EQ(SignatureHasher::serialize_for_signature(sample_transaction(), 1, script_code, 1), expected_preimage());
}

TEST(SignatureHasher, AppendsTheTypeAsFourBytes) {
  const Script script_code(hex("51 67 88"));
  for (const uint8_t type : Bytes{0x00, 0x01, 0xff}) {
    SCOPED_TRACE(static_cast<int>(type));
    const Bytes hashed = join({expected_preimage(), {type, 0, 0, 0}});
    EXPECT_EQ(SignatureHasher::compute_signature_hash(sample_transaction(), 1, script_code, type),
              crypto::hash256(hashed));
  }
}

TEST(SignatureHasher, CountsAreCompact) {
  const struct {
    size_t count;
    const char* written;
  } rows[] = {
      {0, "00"}, {252, "fc"}, {253, "fd fd 00"}, {65'535, "fd ff ff"}, {65'536, "fe 00 00 01 00"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.count);
    Transaction tx;
    tx.inputs.resize(row.count);
    tx.outputs.resize(row.count);
    const Bytes preimage = SignatureHasher::serialize_for_signature(tx, row.count, Script(), 1);
    const Bytes count = hex(row.written);
    const auto inputs = preimage.begin() + 1 + 8 + 4;
    const auto outputs = inputs + static_cast<ptrdiff_t>(count.size() + row.count * (36 + 1 + 4));
    EXPECT_TRUE(std::equal(count.begin(), count.end(), inputs));
    EXPECT_TRUE(std::equal(count.begin(), count.end(), outputs));
    EXPECT_EQ(preimage.end() - outputs, static_cast<ptrdiff_t>(count.size() + row.count * (8 + 1 + 1) + 4));
  }
}

TEST(SignatureHasher, RefusesAnInputThatDoesNotExist) {
  for (const size_t index : {size_t{2}, SIZE_MAX}) {
    EXPECT_EQ(
        crypto::thrown_by([&] { SignatureHasher::compute_signature_hash(sample_transaction(), index, Script(), 1); }),
        "Input index out of range");
  }
}

}  // namespace
}  // namespace norvel
