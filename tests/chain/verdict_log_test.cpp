#include "chain/verdict_log.h"

#include <gtest/gtest.h>

namespace norvel {
namespace {

uint256 hash_of(uint64_t number) {
  return uint256(number + 1);
}

TEST(VerdictLog, KeepsTheNewestAndTellsWhoHoldsAForgottenOne) {
  VerdictLog log;
  const auto oldest = log.remember(hash_of(0), "oldest");
  log.inherit(uint256(uint64_t{1} << 40), oldest);
  for (uint64_t i = 1; i < VerdictLog::kVerdictsMax; ++i) {
    log.remember(hash_of(i), "bad");
  }
  EXPECT_TRUE(log.find(hash_of(0)));
  log.remember(hash_of(VerdictLog::kVerdictsMax), "newest");
  EXPECT_EQ(log.size(), VerdictLog::kVerdictsMax);
  EXPECT_FALSE(log.find(hash_of(0)));
  EXPECT_TRUE(oldest->forgotten);
  EXPECT_FALSE(log.find(uint256(uint64_t{1} << 40))) << "its descendant";
  EXPECT_TRUE(log.find(hash_of(1)));
}

TEST(VerdictLog, GivesDescendantsTheNewReasonOfAKnownVerdict) {
  VerdictLog log;
  log.inherit(hash_of(1), log.remember(hash_of(0), "first"));
  log.remember(hash_of(0), "second");
  ASSERT_TRUE(log.find(hash_of(1)));
  EXPECT_EQ(log.find(hash_of(1))->reason, "second");
  EXPECT_EQ(log.size(), 1u);
}

}  // namespace
}  // namespace norvel
