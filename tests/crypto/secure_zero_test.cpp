#include "crypto/secure_zero.h"

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>

namespace norvel::crypto {
namespace {

TEST(SecureZero, ZeroesOnlyTheRange) {
  std::array<uint8_t, 4> data = {1, 2, 3, 4};
  secure_zero(data.data() + 1, 2);
  EXPECT_EQ(data, (std::array<uint8_t, 4>{1, 0, 0, 4}));
  secure_zero(nullptr, 0);
}

TEST(SecureZero, EmptiesAVectorAndKeepsItsCapacity) {
  Bytes data(100, 0xff);
  const size_t capacity = data.capacity();
  secure_zero(data);
  EXPECT_TRUE(data.empty());
  EXPECT_EQ(data.capacity(), capacity);
  data.resize(0);
  secure_zero(data);
}

TEST(WipeOnExit, WipesWhenAnExceptionPasses) {
  std::array<uint8_t, 3> secret = {7, 8, 9};
  try {
    const WipeOnExit wipe(secret);
    throw std::runtime_error("on purpose");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(secret, (std::array<uint8_t, 3>{}));
}

}  // namespace
}  // namespace norvel::crypto
