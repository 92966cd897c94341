// How much memory a script can take, with the heap's own bytes.

#include <gtest/gtest.h>

#include "script/interpreter.h"
#include "script/script.h"
#include "script/script_testing.h"
#include "support/allocations.h"

namespace norvel {
namespace {

constexpr size_t kScriptBytes = 1'000'000;

struct Row {
  const char* label;
  Bytes start;   // once
  Bytes repeat;  // then this, as often as the script has room for it
  Bytes end;     // then this likewise, in a second script of the same size, until the stack is empty
  bool succeeds = true;
};

size_t peak_of(const Row& row) {
  const auto fill = [](Bytes program, const Bytes& part) {
    while (!part.empty() && program.size() + part.size() <= kScriptBytes) {
      append(program, part);
    }
    return Script(std::move(program));
  };
  Transaction tx = sample_transaction();
  tx.locktime = 0;
  const Script first = fill(row.start, row.repeat);
  const Script second = fill({}, row.end);
  const size_t before = allocations.peak_bytes = allocations.live_bytes;
  ScriptStack stack;
  EXPECT_EQ(ScriptInterpreter::execute_script(first, stack, tx, 0), row.succeeds);
  ScriptInterpreter::execute_script(second, stack, tx, 0);
  stack = ScriptStack();
  EXPECT_EQ(allocations.live_bytes, before);
  return allocations.peak_bytes - before;
}

Bytes half_megabyte(uint8_t fill) {
  return join({hex("4e 20a10700"), Bytes(500'000, fill)});
}

// The last five rows would not end within the time of a test if each step copied or hashed half a megabyte.
TEST(ScriptMemory, StaysBoundedForScriptsOfAMillionBytes) {
  const Row rows[] = {
      {"two-byte pushes", {}, hex("02 aabb"), {}},
      {"hashing in place", hex("02 aabb 76"), hex("a8"), {}},
      {"both digests kept", hex("02 aabb"), hex("76 76 a9 75 a8"), {}},
      {"chain hanging on one element", hex("02 aabb"), hex("76 a8"), hex("75")},
      {"unexecuted conditionals", hex("00"), hex("63"), {}, false},
      {"half a megabyte, duplicated", half_megabyte(0xab), hex("76"), hex("87 75")},
      {"half a megabyte, hashed", half_megabyte(0xab), hex("76 a8 75 76 a9 75"), {}},
      {"half a megabyte of zeros, decided on", half_megabyte(0), hex("76 63 67 b1 68"), {}},
      {"half a megabyte as signature and key", half_megabyte(0x30), hex("76 76 ac 75"), {}},
      {"one signature hash of the whole script", join({hex("21"), Bytes(33, 5)}), hex("76 76 ac 75"), {}},
  };
  // The tables that all scripts share are made on first use.
  ScriptElement(Bytes{1}).sha256();
  ScriptElement().sha256();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_LT(peak_of(row), 64'000'000 - kScriptBytes);
  }
}

}  // namespace
}  // namespace norvel
