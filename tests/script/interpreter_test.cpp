#include "script/interpreter.h"

#include <gtest/gtest.h>

#include <optional>
#include <tuple>

#include "script/script.h"
#include "script/script_testing.h"
#include "script/sighash.h"

namespace norvel {
namespace {

using Stack = std::vector<Bytes>;

// The stack that `script` leaves; nullopt when it fails.
std::optional<Stack> run(const Bytes& script, const Transaction& tx = sample_transaction(), size_t input_index = 0) {
  ScriptStack stack;
  if (!ScriptInterpreter::execute_script(Script(script), stack, tx, input_index)) {
    return std::nullopt;
  }
  return Stack(stack.begin(), stack.end());
}

const Bytes kZero = {0};
const Bytes kOne = {1};
const std::nullopt_t kFails = std::nullopt;

// What each opcode does to the stack is compared with a model, in model_test.cpp.
TEST(ScriptInterpreter, LongPushesAndWhatFails) {
  const std::tuple<const char*, Bytes, std::optional<Stack>> rows[] = {
      {"longest direct push", join({hex("4b"), Bytes(75, 9)}), Stack{Bytes(75, 9)}},
      {"PUSHDATA2, length above 255", join({hex("4d 0201"), Bytes(258, 3)}), Stack{Bytes(258, 3)}},
      {"PUSHDATA4, length above 65,535", join({hex("4e 01000100"), Bytes(65'537, 3)}), Stack{Bytes(65'537, 3)}},
      {"EQUALVERIFY of unequal", hex("53 52 51 88"), kFails},
      {"ELSE without IF", hex("51 67"), kFails},
      {"ENDIF without IF", hex("51 68"), kFails},
      {"unterminated inside", hex("51 51 63 51 63 68"), kFails},
  };
  for (const auto& [label, script, want] : rows) {
    EXPECT_EQ(run(script), want) << label;
  }
  EXPECT_EQ(run(hex("51 52 ac"), sample_transaction(), 2), kFails) << "CHECKSIG, no such input";
  EXPECT_EQ(run(hex("00 52 ac"), sample_transaction(), 2), Stack{kZero}) << "CHECKSIG of nothing, no such input";
}

TEST(ScriptInterpreter, OpcodesFailWithoutTheirElementsAndOtherBytesWhenExecuted) {
  const Bytes known = hex("63 64 67 68 6d 75 76 87 88 a8 a9 ac b1");
  for (const uint8_t opcode : known) {
    EXPECT_EQ(run({opcode}), kFails) << int{opcode};
  }
  for (const uint8_t opcode : hex("6d 87 88 ac")) {
    EXPECT_EQ(run({0x51, opcode}), kFails) << int{opcode};
  }
  for (int value = 0x4f; value <= 0xff; ++value) {
    const auto opcode = static_cast<uint8_t>(value);
    const bool is_small_number = opcode >= 0x51 && opcode <= 0x60;
    if (!is_small_number && std::find(known.begin(), known.end(), opcode) == known.end()) {
      EXPECT_EQ(run({0x51, opcode}), kFails) << value;
      EXPECT_EQ(run({0x51, 0x00, 0x63, opcode, 0x68}), Stack{kOne}) << value;
    }
  }
}

TEST(ScriptInterpreter, PushesHideTheirDataAndFailWhenCut) {
  for (const char* push : {"02 68ff", "4c 02 68ff", "4d 0200 68ff", "4e 02000000 68ff"}) {
    SCOPED_TRACE(push);
    const Bytes whole = hex(push);
    EXPECT_EQ(run(whole), (Stack{{0x68, 0xff}}));
    EXPECT_EQ(run(join({hex("00 63"), whole, hex("68 51")})), Stack{kOne}) << "unexecuted";
    for (size_t len = 1; len < whole.size(); ++len) {
      EXPECT_EQ(run(cut(whole, len)), kFails) << len;
    }
  }
  EXPECT_EQ(run(hex("4e ffffffff 07")), kFails);
  EXPECT_EQ(run(hex("00 63 4e ffffffff 68")), kFails) << "unexecuted";
}

TEST(ScriptInterpreter, ChecksLockTimes) {
  constexpr uint32_t kThreshold = 500'000'000;  // 0x1dcd6500
  const std::tuple<const char*, const char*, uint32_t, bool> rows[] = {
      {"height equal", "64", 100, true},
      {"height above", "65", 100, false},
      {"empty is 0, largest height", "", kThreshold - 1, true},
      {"empty is 0, smallest time", "", kThreshold, false},
      {"short negative zero", "80", 0, true},
      {"minus one", "81", 100, false},
      {"eight bytes, negative with low bits 0", "0000000000000081", 100, false},
      {"five bytes, low four equal", "6400000001", 100, true},
      {"five bytes, low four too large", "6500000001", 100, false},
      {"five bytes, sign of the fourth is magnitude", "0000008000", 0xffffffff, true},
      {"five bytes, fourth above the lock time", "0000008000", 0x7fffffff, false},
      {"largest height on itself", "ff64cd1d", kThreshold - 1, true},
      {"smallest time on itself", "0065cd1d", kThreshold, true},
      {"smallest time, lock time is a height", "0065cd1d", kThreshold - 1, false},
  };
  for (const auto& [label, element, locktime, want] : rows) {
    SCOPED_TRACE(label);
    Transaction tx = sample_transaction();
    tx.locktime = locktime;
    Script script;
    script.push_data(hex(element));
    script.push_opcode(OpCode::OP_CHECKLOCKTIMEVERIFY);
    const std::optional<Stack> left = want ? std::optional(Stack{hex(element)}) : std::nullopt;
    EXPECT_EQ(run(script.bytes, tx, 0), left);
    tx.inputs[0].sequence = 0xffffffff;
    EXPECT_EQ(run(script.bytes, tx, 0), kFails) << "final sequence";
    EXPECT_EQ(run(script.bytes, tx, 1), left) << "the other input is not final";
    EXPECT_EQ(run(script.bytes, tx, 2), left) << "no such input";
  }
}

TEST(ScriptInterpreter, RunsTakeTheirCostFromTheBudget) {
  const auto check = [](uint8_t type) { return join({hex("02 07"), {type}, {0x21}, Bytes(33, 2), hex("ac")}); };
  const auto preimage_bytes = [](const Bytes& script) {
    return SignatureHasher::serialize_for_signature(sample_transaction(), 0, Script(script), 9).size() + 4;
  };
  const Bytes same_type = join({check(9), check(9)});
  const Bytes two_types = join({check(9), check(8)});
  const struct {
    const char* label;
    Bytes script;
    uint64_t checks;
    uint64_t bytes;
  } rows[] = {
      {"nothing costs", hex("51 76 87 00 a8 51 a9 00 63 51 51 ac a8 68"), 0, 0},
      {"a digest of a digest", hex("03 070809 a8 a9"), 0, 67},
      {"digests that are kept", hex("03 070809 76 76 a8 75 a9 75 76 a8 75 a9"), 0, 38},
      {"checks of no signature and no key", hex("00 51 ac 02 0708 51 ac"), 2, 0},
      {"one type twice", same_type, 2, preimage_bytes(same_type)},
      {"two types", two_types, 2, 2 * preimage_bytes(two_types)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto runs = [&](ScriptBudget budget) {
      ScriptStack stack;
      const bool done = ScriptInterpreter::execute_script(Script(row.script), stack, sample_transaction(), 0, &budget);
      EXPECT_NE(done, budget.exceeded);
      return done;
    };
    const uint64_t size = row.script.size() + row.checks * kSignatureCheckBytes;
    EXPECT_TRUE(runs({row.checks, row.bytes, size}));
    EXPECT_TRUE(row.checks == 0 || !runs({row.checks - 1, row.bytes, size}));
    EXPECT_TRUE(row.bytes == 0 || !runs({row.checks, row.bytes - 1, size}));
    EXPECT_FALSE(runs({row.checks, row.bytes, size - 1}));
  }
}

TEST(ScriptInterpreter, VerdictIsTheTruthOfTheTop) {
  const auto verdict = [](const char* unlocking, const char* locking, size_t input_index = 0) {
    return ScriptInterpreter::verify_script(sample_transaction(), input_index, Script(hex(unlocking)),
                                            Script(hex(locking)));
  };
  EXPECT_FALSE(verdict("", ""));
  EXPECT_FALSE(verdict("51", "02 0000"));
  EXPECT_TRUE(verdict("52", "52 87")) << "the stack passes over";
  EXPECT_FALSE(verdict("51 63", "51 68")) << "conditionals do not";
  EXPECT_FALSE(verdict("", "51", 2)) << "no such input";
}

}  // namespace
}  // namespace norvel
