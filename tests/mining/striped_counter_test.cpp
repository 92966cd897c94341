#include "mining/striped_counter.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace norvel {

namespace {

TEST(StripedCounter, EachAdditionShowsAtOnceAndAnAssignmentMovesNoStripe) {
  StripedCounter counter(7);
  counter.reserve(3);
  EXPECT_EQ(counter, 7u);
  StripedCounter::Stripe& last = counter.stripe(2);
  StripedCounter::Stripe& first = counter.stripe(0);
  last.add_ones(1);
  EXPECT_EQ(counter, 8u);
  first.add_ones(3);
  EXPECT_EQ(counter, 11u);
  for (const uint64_t value : {uint64_t{0}, uint64_t{1'000}, ~uint64_t{0}}) {
    SCOPED_TRACE(value);
    const uint64_t counted = first.count();
    counter = value;
    EXPECT_EQ(counter.load(), value);
    EXPECT_EQ(first.count(), counted);
    first.add_ones(1);
    EXPECT_EQ(counter.load(), value + 1);
  }
  counter = 5;
  counter.stripe(2).add_ones(1);  // by who takes it over
  EXPECT_EQ(counter, 6u);
}

TEST(StripedCounter, ReadersSeeACountThatOnlyGrowsWhileWritersComeAndCount) {
  constexpr uint64_t kWriters = 4;
  constexpr uint64_t kEach = 100'000;
  StripedCounter counter;
  counter.reserve(kWriters);
  {
    std::vector<std::jthread> writers;
    for (uint64_t i = 0; i < kWriters; ++i) {
      writers.emplace_back([&counter, i] {
        StripedCounter::Stripe& stripe = counter.stripe(i);
        for (uint64_t k = 0; k < kEach; ++k) {
          stripe.add_ones(1);
        }
      });
    }
    for (uint64_t seen = 0, now = 0; seen < kWriters * kEach / 2; seen = now) {
      now = counter;
      ASSERT_GE(now, seen);
    }
  }
  EXPECT_EQ(counter, kWriters * kEach);
}

}  // namespace

}  // namespace norvel
