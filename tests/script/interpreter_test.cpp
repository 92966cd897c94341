#include "script/interpreter.h"

#include <gtest/gtest.h>

#include <optional>

#include "crypto/hash.h"
#include "script/script.h"
#include "script/script_testing.h"

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

struct Row {
  const char* label;
  Bytes script;
  std::optional<Stack> want;
};

void expect_rows(const std::vector<Row>& rows) {
  for (const Row& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(run(row.script), row.want);
  }
}

const Bytes kZero = {0};
const Bytes kOne = {1};
const std::nullopt_t kFails = std::nullopt;

TEST(ScriptInterpreter, PushesData) {
  expect_rows({
      {"empty script", {}, Stack{}},
      {"0", hex("00"), Stack{{}}},
      {"direct", hex("01 07"), Stack{{7}}},
      {"longest direct", join({hex("4b"), Bytes(75, 9)}), Stack{Bytes(75, 9)}},
      {"direct, no data", hex("01"), kFails},
      {"direct, one byte short", join({hex("4b"), Bytes(74, 9)}), kFails},
      {"PUSHDATA1", hex("4c 02 0708"), Stack{{7, 8}}},
      {"PUSHDATA1 of nothing", hex("4c 00"), Stack{{}}},
      {"PUSHDATA1 without length", hex("4c"), kFails},
      {"PUSHDATA1, one byte short", hex("4c 02 07"), kFails},
      {"PUSHDATA2", hex("4d 0200 0708"), Stack{{7, 8}}},
      {"PUSHDATA2, length above 255", join({hex("4d 0201"), Bytes(258, 3)}), Stack{Bytes(258, 3)}},
      {"PUSHDATA2, length cut", hex("4d 02"), kFails},
      {"PUSHDATA2, one byte short", hex("4d 0200 07"), kFails},
      {"PUSHDATA4", hex("4e 02000000 0708"), Stack{{7, 8}}},
      {"PUSHDATA4, length above 65,535", join({hex("4e 01000100"), Bytes(65'537, 3)}), Stack{Bytes(65'537, 3)}},
      {"PUSHDATA4, length cut", hex("4e 020000"), kFails},
      {"PUSHDATA4, 4 GiB of nothing", hex("4e ffffffff 07"), kFails},
      {"1 and 16", hex("51 60"), Stack{{1}, {16}}},
  });
}

TEST(ScriptInterpreter, OpcodesActOnTheTop) {
  const Bytes sha = crypto::sha256(hex("0708")).to_bytes();
  const Bytes hash = crypto::hash160(hex("0708"));
  expect_rows({
      {"2DROP", hex("51 52 53 6d"), Stack{{1}}},
      {"2DROP of one", hex("51 6d"), kFails},
      {"DROP", hex("51 52 75"), Stack{{1}}},
      {"DROP of none", hex("75"), kFails},
      {"DUP", hex("51 52 76"), Stack{{1}, {2}, {2}}},
      {"DUP of none", hex("76"), kFails},
      {"EQUAL", hex("53 52 02 0708 02 0708 87"), Stack{{3}, {2}, kOne}},
      {"EQUAL of unequal", hex("52 53 87"), Stack{kZero}},
      {"EQUAL of two empty", hex("00 00 87"), Stack{kOne}},
      {"EQUAL of empty and zero", hex("00 01 00 87"), Stack{kZero}},
      {"EQUAL of a duplicate", hex("02 0708 76 87"), Stack{kOne}},
      {"EQUAL of one", hex("51 87"), kFails},
      {"EQUALVERIFY", hex("53 52 52 88"), Stack{{3}}},
      {"EQUALVERIFY of unequal", hex("53 52 51 88"), kFails},
      {"EQUALVERIFY of one", hex("51 88"), kFails},
      {"SHA256", hex("51 02 0708 a8"), Stack{{1}, sha}},
      {"SHA256 of a duplicate, both copies", hex("02 0708 76 a8 75 a8"), Stack{sha}},
      {"SHA256 of none", hex("a8"), kFails},
      {"HASH160", hex("51 02 0708 a9"), Stack{{1}, hash}},
      {"HASH160 of none", hex("a9"), kFails},
      {"CHECKSIG, empty signature", hex("53 00 51 ac"), Stack{{3}, kZero}},
      {"CHECKSIG, type byte only", hex("53 51 52 ac"), Stack{{3}, kZero}},
      {"CHECKSIG of one", hex("51 ac"), kFails},
      {"CHECKLOCKTIMEVERIFY of none", hex("b1"), kFails},
  });
}

TEST(ScriptInterpreter, EveryOtherByteFailsWhenExecutedAndIsSkippedWhenNot) {
  const Bytes known = hex("63 64 67 68 6d 75 76 87 88 a8 a9 ac b1");
  for (int value = 0x4f; value <= 0xff; ++value) {
    const auto opcode = static_cast<uint8_t>(value);
    const bool is_small_number = opcode >= 0x51 && opcode <= 0x60;
    if (is_small_number || std::find(known.begin(), known.end(), opcode) != known.end()) {
      continue;
    }
    SCOPED_TRACE(value);
    EXPECT_EQ(run({0x51, opcode}), kFails);
    EXPECT_EQ(run({0x51, 0x00, 0x63, opcode, 0x68}), Stack{kOne});
  }
}

TEST(ScriptInterpreter, ConditionalsChooseTheirBranch) {
  expect_rows({
      {"IF taken", hex("51 63 52 67 53 68"), Stack{{2}}},
      {"IF not taken", hex("00 63 52 67 53 68"), Stack{{3}}},
      {"IF of a lone sign bit is taken", hex("01 80 63 52 68"), Stack{{2}}},
      {"IF of zeros is not taken", hex("02 0000 63 52 68"), Stack{}},
      {"NOTIF taken", hex("00 64 52 67 53 68"), Stack{{2}}},
      {"NOTIF not taken", hex("51 64 52 67 53 68"), Stack{{3}}},
      {"ELSE again and again", hex("51 63 52 67 53 67 54 67 55 68"), Stack{{2}, {4}}},
      {"IF on an empty stack", hex("63 68"), kFails},
      {"NOTIF on an empty stack", hex("64 68"), kFails},
      {"unexecuted IF takes nothing", hex("00 63 63 64 68 67 68 68 51"), Stack{kOne}},
      {"inner ELSE of an unexecuted branch", hex("00 63 51 63 52 67 53 68 67 54 68"), Stack{{4}}},
      {"inner branch of an executed one", hex("51 63 00 63 52 67 53 68 67 54 68"), Stack{{3}}},
      {"ELSE inside a false outer branch stays unexecuted", hex("00 63 00 64 67 ff 68 68"), Stack{}},
      {"ELSE without IF", hex("51 67"), kFails},
      {"ENDIF without IF", hex("51 68"), kFails},
      {"ENDIF twice", hex("51 51 63 68 68"), kFails},
      {"ELSE after ENDIF", hex("51 51 63 68 67"), kFails},
      {"unterminated, top true", hex("51 51 63"), kFails},
      {"unterminated inside", hex("51 51 63 51 63 68"), kFails},
  });
}

TEST(ScriptInterpreter, UnexecutedPushesHideTheirData) {
  expect_rows({
      {"direct", hex("00 63 02 68ff 68 51"), Stack{kOne}},
      {"PUSHDATA1", hex("00 63 4c 02 68ff 68 51"), Stack{kOne}},
      {"PUSHDATA2", hex("00 63 4d 0200 68ff 68 51"), Stack{kOne}},
      {"PUSHDATA4", hex("00 63 4e 02000000 68ff 68 51"), Stack{kOne}},
      {"direct past the end", hex("00 63 02 68"), kFails},
      {"PUSHDATA1 without length", hex("00 63 4c"), kFails},
      {"PUSHDATA2, length cut", hex("00 63 4d 68"), kFails},
      {"PUSHDATA4, length cut", hex("00 63 4e 686868"), kFails},
      {"PUSHDATA4 of 4 GiB", hex("00 63 4e ffffffff 68"), kFails},
  });
}

TEST(ScriptInterpreter, ChecksLockTimes) {
  constexpr uint32_t kThreshold = 500'000'000;  // 0x1dcd6500
  const struct {
    const char* label;
    const char* element;
    uint32_t locktime;
    bool want;
  } rows[] = {
      {"height below", "63", 100, true},
      {"height equal", "64", 100, true},
      {"height above", "65", 100, false},
      {"empty is 0", "", 0, true},
      {"empty, largest height", "", kThreshold - 1, true},
      {"empty, smallest time", "", kThreshold, false},
      {"negative zero", "00000080", 0, true},
      {"short negative zero", "80", 0, true},
      {"long negative zero", "0000000000000080", 0, true},
      {"minus one", "81", 100, false},
      {"four bytes, negative", "01000080", 100, false},
      {"eight bytes, negative with low bits 0", "0000000000000081", 100, false},
      {"five bytes count with the low four", "6400000001", 100, true},
      {"five bytes, low four too large", "6500000001", 100, false},
      {"five bytes, sign of the fourth is magnitude", "0000008000", 0xffffffff, true},
      {"five bytes, fourth above the lock time", "0000008000", 0x7fffffff, false},
      {"nine bytes", "640000000000000001", 100, true},
      {"largest height on itself", "ff64cd1d", kThreshold - 1, true},
      {"largest height, lock time is a time", "ff64cd1d", kThreshold, false},
      {"smallest time on itself", "0065cd1d", kThreshold, true},
      {"smallest time, lock time is a height", "0065cd1d", kThreshold - 1, false},
      {"time below", "0065cd1d", 0xffffffff, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    Transaction tx = sample_transaction();
    tx.locktime = row.locktime;
    Script script;
    script.push_data(hex(row.element));
    script.push_opcode(OpCode::OP_CHECKLOCKTIMEVERIFY);
    const std::optional<Stack> left = row.want ? std::optional(Stack{hex(row.element)}) : std::nullopt;
    EXPECT_EQ(run(script.bytes, tx, 0), left);
    tx.inputs[0].sequence = 0xffffffff;
    EXPECT_EQ(run(script.bytes, tx, 0), kFails) << "final sequence";
    EXPECT_EQ(run(script.bytes, tx, 1), left) << "the other input is not final";
    EXPECT_EQ(run(script.bytes, tx, 2), left) << "no such input";
  }
}

TEST(ScriptInterpreter, SignatureCheckOfNoInputFailsUnlessTheSignatureIsEmpty) {
  EXPECT_EQ(run(hex("51 52 ac"), sample_transaction(), 2), kFails);
  EXPECT_EQ(run(hex("00 52 ac"), sample_transaction(), 2), Stack{kZero});
}

TEST(ScriptInterpreter, VerdictIsTheTruthOfTheTop) {
  const struct {
    const char* label;
    const char* unlocking;
    const char* locking;
    size_t input_index;
    bool want;
  } rows[] = {
      {"nothing at all", "", "", 0, false},
      {"1 alone", "", "51", 0, true},
      {"1 from the unlocking script", "51", "", 1, true},
      {"only the top counts", "00", "51", 0, true},
      {"false on top", "51", "00", 0, false},
      {"zeros on top", "51", "02 0000", 0, false},
      {"a lone sign bit on top", "", "01 80", 0, true},
      {"the stack passes over", "52", "52 87", 0, true},
      {"conditionals do not", "51 63", "51 68", 0, false},
      {"unlocking script fails", "51 ff", "51", 0, false},
      {"locking script fails", "51", "88", 0, false},
      {"stack emptied", "51", "75", 0, false},
      {"no such input", "", "51", 2, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(ScriptInterpreter::verify_script(sample_transaction(), row.input_index, Script(hex(row.unlocking)),
                                               Script(hex(row.locking))),
              row.want);
  }
}

}  // namespace
}  // namespace norvel
