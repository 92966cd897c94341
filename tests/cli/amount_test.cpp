#include "cli/amount.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>

namespace norvel::cli {
namespace {

TEST(Coins, AreReadExactlyOrNotAtAll) {
  const struct {
    const char* label;
    const char* text;
    std::optional<int64_t> want;
  } rows[] = {
      {"whole coins", "12", 1'200'000'000},
      {"the smallest", "0.00000001", 1},
      {"nothing before the point", ".5", 50'000'000},
      {"nothing behind the point", "5.", 500'000'000},
      {"beyond what a double holds", "90071992.54740993", 9'007'199'254'740'993},
      {"the largest", "92233720368.54775807", std::numeric_limits<int64_t>::max()},
      {"one above", "92233720368.54775808", std::nullopt},
      {"nine decimals", "0.000000010", std::nullopt},
      {"a sign", "-1", std::nullopt},
      {"an exponent", "1e3", std::nullopt},
      {"two points", "1.2.3", std::nullopt},
      {"only a point", ".", std::nullopt},
      {"nothing", "", std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(parse_coins(row.text), row.want);
  }
}

TEST(Coins, AreWrittenWithAllPlaces) {
  EXPECT_EQ(coins_text(0), "0.00000000");
  EXPECT_EQ(coins_text(-1), "-0.00000001");
  EXPECT_EQ(coins_text(9'007'199'254'740'993), "90071992.54740993");
  EXPECT_EQ(coins_text(std::numeric_limits<int64_t>::min()), "-92233720368.54775808");
}

TEST(JsonUnits, AreRefusedWhereTheyMayBeRounded) {
  EXPECT_EQ(read_units(rpc::JsonValue(kJsonUnitsMax - 1), "it"), kJsonUnitsMax - 1);
  EXPECT_EQ(read_units(rpc::JsonValue(0), "it"), 0);
  const rpc::JsonValue refused[] = {rpc::JsonValue(kJsonUnitsMax), rpc::JsonValue(0.5), rpc::JsonValue(-1),
                                    rpc::JsonValue("1"), rpc::JsonValue()};
  for (const rpc::JsonValue& value : refused) {
    EXPECT_THROW(read_units(value, "it"), std::runtime_error) << value.to_string();
  }
}

}  // namespace
}  // namespace norvel::cli
