#include "rpc/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <stdexcept>

namespace norvel::rpc {
namespace {

using namespace std::string_literals;

std::string repeat(size_t count, const std::string& text) {
  std::string out;
  for (size_t i = 0; i < count; ++i) {
    out += text;
  }
  return out;
}

std::string reprint(const std::string& text, const JsonLimits& limits = {}) {
  return JsonValue::parse(text, limits).to_string();
}

TEST(JsonParse, ReadsWhatItCanAndNeverComplains) {
  const struct {
    const char* label;
    std::string in;
    std::string want;
  } rows[] = {
      {"blanks around everything", " \t\n\r{ \"a\" :\v[ 1 ,\f2 ] , \"b\":{ } } ", R"({"a":[1,2],"b":{}})"},
      {"words", "[null,true,false]", "[null,true,false]"},
      {"cut word consumes nothing", "[tru,1]", "[null]"},
      {"zero byte", "[\0,1]"s, "[null]"},
      {"point after minus does", "-.5", "-0.5"},
      {"second point ends the conversion, not the number", "[1.2.3,4]", "[1.2,4]"},
      {"escapes", R"("\n\r\t\"\\\/\b\f\u0041")", R"("\n\r\t\"\\/bfu0041")"},
      {"bytes of any kind", "\"\x01\x80\xff\0\""s, "\"\x01\x80\xff\0\""s},
      {"unterminated string", "[\"ab", "[\"ab\"]"},
      {"backslash at the end of the text", "\"a\\", "\"a\\\\\""},
      {"empty containers", "[[ ],{ }]", "[[],{}]"},
      {"comma before the bracket", "[1,]", "[1,null]"},
      {"keys come out in byte order", R"({"b":1,"a":2,"B":3,"":4})", R"({"":4,"B":3,"a":2,"b":1})"},
      {"missing colon", R"({"a" 1})", R"({"a":1})"},
      {"key without quotes", "{a:1}", R"({"":null})"},
      {"object that ends after a comma", R"({"a":1,)", R"({"":null,"a":1})"},
      {"escape in a key is read and not written", R"({"a\"b":1})", "{\"a\"b\":1}"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(reprint(row.in), row.want) << row.label;
  }
}

TEST(JsonParse, OnlyNumbersCanFail) {
  for (const std::string text : {"-", "--1", "-.", "{\"a\":[-x]}"}) {
    EXPECT_THROW(JsonValue::parse(text), std::invalid_argument) << text;
  }
  EXPECT_THROW(JsonValue::parse(repeat(1'000'000, "9")), std::out_of_range);
  EXPECT_EQ(JsonValue::parse("0." + repeat(1'000'000, "3")).number, 1.0 / 3.0);
}

TEST(JsonParse, DeeperThan512ReadsAsNull) {
  const std::string fits = repeat(512, "[") + repeat(512, "]");
  const std::string cut = repeat(512, "[") + "null" + repeat(512, "]");
  EXPECT_EQ(reprint(fits), fits);
  EXPECT_EQ(reprint("[" + fits + "]"), cut);
  EXPECT_EQ(reprint(repeat(1'000'000, "[")), cut);
  EXPECT_EQ(reprint(repeat(1'000'000, "{\"a\":")), repeat(512, "{\"a\":") + "null" + repeat(512, "}"));
  const std::string wide = "[" + repeat(999, "[[]],") + "[[]]]";
  EXPECT_EQ(reprint(wide), wide);
  const JsonValue bomb = JsonValue::parse(repeat(1'000'000, "[{\"a\":"));
  const JsonValue copy = bomb;
  EXPECT_EQ(copy.to_string(), bomb.to_string());
}

TEST(JsonParse, EndsAtTheValueLimit) {
  const char* const want_by_limit[] = {
      "null",     "[1]",
      "[1,null]",  // an array and its element would be one too many
      "[1,[2]]",  "[1,[2],null]", R"([1,[2],{"a":3}])", R"([1,[2],{"a":3,"b":4}])",
  };
  size_t limit = 0;
  for (const char* want : want_by_limit) {
    EXPECT_EQ(reprint(R"([1,[2],{"a":3,"b":4}])", {.values = ++limit}), want);
  }
  size_t values_read = 0;
  for (const size_t most : {size_t{4}, size_t{5}, size_t{6}}) {
    JsonValue::parse(R"({"a":0,"a":0,"a":0,"a":0})", {.values = most}, values_read);
    EXPECT_EQ(values_read, std::min<size_t>(most, 5));
  }
  // A repeated key takes no memory.
  EXPECT_EQ(reprint("{" + repeat(3'999'998, "\"a\":0,") + "\"last\":1,\"beyond\":2}"), R"({"a":0,"last":1})");
}

TEST(JsonWrite, Numbers) {
  const struct {
    double in;
    const char* want;
  } rows[] = {
      {-0.0, "0"},
      {2.5, "2.5"},
      {1234567.891, "1.23457e+06"},
      {1e20, "1e+20"},
      {-9223372036854777856.0, "-9.22337e+18"},
      {9223372036854775808.0, "9223372036854775807"},  // saturated, which is the same double
      {9223372036854777856.0, "9.22337e+18"},
      {-std::nan(""), "nan"},
      {HUGE_VAL, "inf"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(JsonValue(row.in).to_string(), row.want);
  }
}

TEST(JsonValue, SetTurnsOnlyANullIntoAnObject) {
  JsonValue null;
  null.set("a", 1);
  null.set("a", null);  // a copy of itself as its own member
  EXPECT_EQ(null.to_string(), R"({"a":{"a":1}})");
  JsonValue text("x");
  text.set("a", 1);
  EXPECT_EQ(text.to_string(), "\"x\"");
  EXPECT_EQ(text.get("a").type, JsonType::kNull);
  EXPECT_EQ(JsonValue::parse("[]")[0].type, JsonType::kNull);
}

TEST(JsonSaturate, EdgesOfTheIntegerTypes) {
  const struct {
    double in;
    uint32_t u32;
    int64_t i64;
  } rows[] = {
      {-1.9, 0, -1},
      {4294967294.9, 4294967294, 4294967294},
      {9223372036854774784.0, 4294967295, 9223372036854774784},
      {9223372036854775808.0, 4294967295, INT64_MAX},
      {-9223372036854774784.0, 0, -9223372036854774784},
      {HUGE_VAL, 4294967295, INT64_MAX},
      {-HUGE_VAL, 0, INT64_MIN},
      {std::nan(""), 0, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.in);
    EXPECT_EQ(to_u32(row.in), row.u32);
    EXPECT_EQ(to_i64(row.in), row.i64);
  }
}

}  // namespace
}  // namespace norvel::rpc
