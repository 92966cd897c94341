#include "crypto/secure_zero.h"

#include <gtest/gtest.h>

#include <array>

namespace norvel::crypto {
namespace {

TEST(WipeOnExit, WipesTheRangeAlone) {
  std::array<uint8_t, 4> secret = {1, 2, 3, 4};
  { const WipeOnExit wipe({secret.data() + 1, 2}); }
  EXPECT_EQ(secret, (std::array<uint8_t, 4>{1, 0, 0, 4}));
}

}  // namespace
}  // namespace norvel::crypto
