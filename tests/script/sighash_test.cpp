#include "script/sighash.h"

#include <gtest/gtest.h>

#include "crypto/hash.h"
#include "script/script.h"
#include "script/script_testing.h"
#include "support/ledger_samples.h"

namespace norvel {
namespace {

// The preimage of input 1 with script code 51 67 88 is written out by hand.
TEST(SignatureHasher, HashesThePreimageFieldByField) {
  const Bytes preimage = join({
      hex("02 1817161514131211 04030201"),  // type, timestamp, version
      hex("02"),                            // inputs
      Bytes(32, 0xa0), hex("24232221 00 34333231"), Bytes(32, 0xb0), hex("44434241 03 516788 54535251"),
      hex("02"),  // outputs
      hex("6867666564636261 02 5152 00"), hex("feffffffffffffff 19 76a914"), Bytes(20, 0x99), hex("88ac 01 4600"),
      hex("01 00000014"), Bytes(20, 0x77), Bytes(12, 0x66), Bytes(33, 0x55),  // the note
      hex("74737271"),                                                        // locktime
  });
  const Script script_code(hex("51 67 88"));
  EXPECT_EQ(SignatureHasher::serialize_for_signature(sample_transaction(), 1, script_code, 1), preimage);
  for (const uint8_t type : Bytes{0x00, 0x01, 0xff}) {
    EXPECT_EQ(SignatureHasher::compute_signature_hash(sample_transaction(), 1, script_code, type),
              crypto::hash256(join({preimage, {type, 0, 0, 0}})))
        << int{type};
  }
  EXPECT_EQ(runtime_error_of([&] { SignatureHasher::compute_signature_hash(sample_transaction(), 2, script_code, 1); }),
            "Input index out of range");
}

TEST(SignatureHasher, CountsAreCompact) {
  Transaction tx;
  tx.inputs.resize(253);
  tx.outputs.resize(65'536);
  const Bytes preimage = SignatureHasher::serialize_for_signature(tx, SIZE_MAX, Script(), 1);
  const auto inputs = preimage.begin() + 1 + 8 + 4;
  const auto outputs = inputs + 3 + 253 * (36 + 1 + 4);
  EXPECT_EQ(Bytes(inputs, inputs + 3), hex("fd fd 00"));
  EXPECT_EQ(Bytes(outputs, outputs + 5), hex("fe 00 00 01 00"));
  EXPECT_EQ(preimage.end() - outputs, 5 + 65'536 * (8 + 1 + 1) + 4);
}

}  // namespace
}  // namespace norvel
