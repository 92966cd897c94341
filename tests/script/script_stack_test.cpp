#include "script/script_stack.h"

#include <gtest/gtest.h>

#include "crypto/hash.h"
#include "script/script_testing.h"

namespace norvel {
namespace {

TEST(ScriptElement, TruthAndSignFollowTheBytes) {
  const struct {
    const char* label;
    const char* bytes;
    bool is_true;
    bool is_negative;
  } rows[] = {
      {"empty", "", false, false},
      {"zero", "00", false, false},
      {"one", "01", true, false},
      {"a lone sign bit is true, and negative zero", "80", true, false},
      {"minus one", "81", true, true},
      {"zeros", "00 00 00 00 00", false, false},
      {"long negative zero", "00 00 00 00 80", true, false},
      {"long, only the first byte set", "01 00 00 00 00", true, false},
      {"long, first byte and sign set", "01 00 00 00 80", true, true},
      {"long, last byte set below the sign", "00 00 00 00 c0", true, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const ScriptElement element(hex(row.bytes));
    EXPECT_EQ(element.is_true(), row.is_true);
    EXPECT_EQ(element.is_negative(), row.is_negative);
  }
}

TEST(ScriptElement, ComparesByBytes) {
  for (const char* bytes : {"", "07", "07 08", "00 00"}) {
    SCOPED_TRACE(bytes);
    EXPECT_EQ(ScriptElement(hex(bytes)), ScriptElement(hex(bytes)));
  }
  EXPECT_FALSE(ScriptElement(hex("")) == ScriptElement(hex("00")));
  EXPECT_FALSE(ScriptElement(hex("00")) == ScriptElement(hex("00 00")));
  EXPECT_FALSE(ScriptElement(hex("07 08")) == ScriptElement(hex("07 09")));
}

TEST(ScriptElement, CopiesShareTheirBytesAndDigests) {
  const ScriptElement original(Bytes(1000, 0xab));
  const ScriptElement copy = original;
  EXPECT_EQ(copy.begin(), original.begin());
  EXPECT_EQ(original.sha256().begin(), copy.sha256().begin());
  EXPECT_EQ(original.hash160().begin(), copy.hash160().begin());
}

TEST(ScriptElement, DigestsAreThoseOfTheHashFunctions) {
  for (const Bytes& bytes : {Bytes(), Bytes{0}, Bytes{255}, Bytes{1, 2}, Bytes(1000, 0xab)}) {
    SCOPED_TRACE(bytes.size());
    const ScriptElement element(bytes);
    const ScriptElement copy = element;
    for (int round = 0; round < 2; ++round) {  // computed, then kept
      EXPECT_EQ(Bytes(element.sha256()), crypto::sha256(bytes).to_bytes());
      EXPECT_EQ(Bytes(copy.hash160()), crypto::hash160(bytes));
    }
  }
}

TEST(ScriptElement, DigestOutlivesItsSource) {
  ScriptElement digest;
  {
    const ScriptElement source(Bytes(50, 1));
    const ScriptElement copy = source;
    digest = source.sha256();
    const ScriptElement of_digest = digest.hash160();
    EXPECT_EQ(of_digest, digest.hash160());
  }
  EXPECT_EQ(Bytes(digest), crypto::sha256(Bytes(50, 1)).to_bytes());
  EXPECT_EQ(Bytes(digest.sha256()), crypto::hash256(Bytes(50, 1)).to_bytes());
}

}  // namespace
}  // namespace norvel
