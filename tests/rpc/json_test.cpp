#include "rpc/json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <sstream>
#include <stdexcept>

namespace norvel::rpc {
namespace {

using namespace std::string_literals;

std::string repeat(size_t count, const std::string& text) {
  std::string out;
  out.reserve(count * text.size());
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
      {"nothing", "", "null"},
      {"every kind of blank, and only blanks", " \t\n\v\f\r", "null"},
      {"blanks around everything", " { \"a\" :\v[ 1 ,\f2 ] } ", "{\"a\":[1,2]}"},
      {"only the first value counts", "true false", "true"},
      {"words", "[null,true,false]", "[null,true,false]"},
      {"cut word", "tru", "null"},
      {"cut word consumes nothing", "[tru,1]", "[null]"},
      {"word with a tail", "[nullx,1]", "[null]"},
      {"capital word", "True", "null"},
      {"zero byte", "[\0,1]"s, "[null]"},
      {"number stops at an exponent", "[1e5,2]", "[1]"},
      {"plus begins no number", "+1", "null"},
      {"point begins no number", ".5", "null"},
      {"point after minus does", "-.5", "-0.5"},
      {"second point ends the conversion, not the number", "[1.2.3,4]", "[1.2,4]"},
      {"leading zeros are decimal", "0012", "12"},
      {"escapes", R"("\n\r\t\"\\\/\b\f")", R"("\n\r\t\"\\/bf")"},
      {"no Unicode decoding", R"("\u0041")", "\"u0041\""},
      {"bytes above 127 and below 32", "\"\x01\x80\xff\"", "\"\x01\x80\xff\""},
      {"zero byte in a string", "\"a\0b\""s, "\"a\0b\""s},
      {"unterminated string", "[\"ab", "[\"ab\"]"},
      {"backslash at the end of the text", "\"a\\", "\"a\\\\\""},
      {"empty containers", "[[ ],{ }]", "[[],{}]"},
      {"array without its end", "[1,2", "[1,2]"},
      {"array that ends after a comma", "[1,", "[1,null]"},
      {"array that ends at once", "[", "[null]"},
      {"comma before the bracket", "[1,]", "[1,null]"},
      {"missing comma", "[1 2]", "[1]"},
      {"wrong bracket", "[1}", "[1]"},
      {"repeated key keeps the last value", R"({"a":1,"a":2})", R"({"a":2})"},
      {"keys come out in byte order", R"({"b":1,"a":2,"B":3,"":4})", R"({"":4,"B":3,"a":2,"b":1})"},
      {"missing colon", R"({"a" 1})", R"({"a":1})"},
      {"key without quotes", "{a:1}", R"({"":null})"},
      {"object that ends at once", "{", R"({"":null})"},
      {"object that ends after a comma", R"({"a":1,)", R"({"":null,"a":1})"},
      {"escape in a key is read and not written", R"({"a\"b":1})", "{\"a\"b\":1}"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(reprint(row.in), row.want);
  }
}

TEST(JsonParse, OnlyNumbersCanFail) {
  for (const std::string& text : {"-"s, "--1"s, "-."s, "[1,-x]"s, "{\"a\":-}"s}) {
    SCOPED_TRACE(text);
    try {
      JsonValue::parse(text);
      ADD_FAILURE();
    } catch (const std::invalid_argument& failure) {
      EXPECT_STREQ(failure.what(), "stod");
    }
  }
  for (const std::string& text : {repeat(400, "9"), repeat(1'000'000, "9"), "0." + repeat(400, "0") + "1"}) {
    SCOPED_TRACE(text.size());
    try {
      JsonValue::parse(text);
      ADD_FAILURE();
    } catch (const std::out_of_range& failure) {
      EXPECT_STREQ(failure.what(), "stod");
    }
  }
  EXPECT_EQ(JsonValue::parse("0." + repeat(1'000'000, "3")).number, 1.0 / 3.0);
}

TEST(JsonParse, DeeperThan512ReadsAsNull) {
  const std::string fits = repeat(512, "[") + repeat(512, "]");
  EXPECT_EQ(reprint(fits), fits);
  const std::string cut = repeat(512, "[") + "null" + repeat(512, "]");
  EXPECT_EQ(reprint("[" + fits + "]"), cut);
  EXPECT_EQ(reprint(repeat(1'000'000, "[")), cut);
  EXPECT_EQ(reprint(repeat(1'000'000, "{\"a\":")), repeat(512, "{\"a\":") + "null" + repeat(512, "}"));
  // The depth is that of nesting, not of all containers so far.
  const std::string wide = "[" + repeat(999, "[[]],") + "[[]]]";
  EXPECT_EQ(reprint(wide), wide);

  const JsonValue bomb = JsonValue::parse(repeat(1'000'000, "[{\"a\":"));
  const JsonValue copy = bomb;
  EXPECT_EQ(copy.to_string(), bomb.to_string());
}

TEST(JsonParse, EndsAtTheValueLimit) {
  const struct {
    size_t values;
    const char* want;
  } rows[] = {
      {1, "null"},
      {2, "[1]"},
      {3, "[1,null]"},  // an array and its element would be one too many
      {4, "[1,[2]]"},
      {5, "[1,[2,null]]"},
      {6, "[1,[2,{},\"x\"]]"},
      {7, "[1,[2,{},\"x\"],null]"},
      {8, R"([1,[2,{},"x"],{"a":4}])"},
      {9, R"([1,[2,{},"x"],{"a":4,"b":5}])"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.values);
    EXPECT_EQ(reprint(R"([1,[2,{},"x"],{"a":4,"b":5}])", {.values = row.values}), row.want);
  }
}

TEST(JsonParse, TheLimitIsFourMillion) {
  // A repeated key takes no memory.
  const std::string text = "{" + repeat(3'999'998, "\"a\":0,") + "\"last\":1,\"beyond\":2}";
  const JsonValue value = JsonValue::parse(text);
  EXPECT_EQ(value.to_string(), R"({"a":0,"last":1})");
}

TEST(JsonWrite, Numbers) {
  const struct {
    double in;
    const char* want;
  } rows[] = {
      {5.0, "5"},
      {-0.0, "0"},
      {0.1, "0.1"},
      {2.5, "2.5"},
      {1.23456789, "1.23457"},
      {1234567.891, "1.23457e+06"},
      {1e20, "1e+20"},
      {9007199254740992.0, "9007199254740992"},
      {-9223372036854775808.0, "-9223372036854775808"},
      {-9223372036854777856.0, "-9.22337e+18"},
      {9223372036854774784.0, "9223372036854774784"},
      {9223372036854775808.0, "9223372036854775807"},  // saturated, which is the same double
      {9223372036854777856.0, "9.22337e+18"},
      {std::nan(""), "nan"},
      {-std::nan(""), "nan"},
      {HUGE_VAL, "inf"},
      {5e-324, "4.94066e-324"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(JsonValue(row.in).to_string(), row.want);
  }
}

TEST(JsonWrite, FractionsAreThoseOfAStream) {
  std::mt19937_64 random(71);
  for (int i = 0; i < 20'000; ++i) {
    const double number = std::ldexp(static_cast<double>(random()) + 0.5, static_cast<int>(random() % 160) - 130);
    if (number != std::trunc(number)) {
      std::ostringstream stream;
      stream << number;
      EXPECT_EQ(JsonValue(number).to_string(), stream.str());
    }
  }
}

JsonValue random_value(std::mt19937_64& random, int depth) {
  const auto text = [&random] {
    std::string out(random() % 9, '\0');
    for (char& c : out) {
      c = static_cast<char>(random());
    }
    return out;
  };
  switch (random() % (depth > 0 ? 6 : 4)) {
    case 0:
      return JsonValue();
    case 1:
      return JsonValue(random() % 2 == 0);
    case 2:
      return JsonValue(static_cast<double>(random() % 100'000) / (random() % 2 == 0 ? 1 : 64));
    case 3:
      return JsonValue(text());
    case 4: {
      std::vector<JsonValue> elements(random() % 5);
      for (JsonValue& element : elements) {
        element = random_value(random, depth - 1);
      }
      return JsonValue(std::move(elements));
    }
    default: {
      JsonValue object = JsonValue::make_object();
      for (uint64_t i = random() % 5; i > 0; --i) {
        object.set("k" + std::to_string(random() % 9), random_value(random, depth - 1));
      }
      return object;
    }
  }
}

TEST(JsonWrite, WhatItWritesReadsBackTheSame) {
  std::mt19937_64 random(72);
  for (int i = 0; i < 300; ++i) {
    std::vector<JsonValue> values;
    for (int k = 0; k < 50; ++k) {
      values.push_back(random_value(random, 5));
    }
    const std::string text = JsonValue(std::move(values)).to_string();
    ASSERT_EQ(reprint(text), text);
  }
}

TEST(JsonValue, LookupsOfWhatIsNotThereGiveNull) {
  const JsonValue values[] = {JsonValue(),
                              JsonValue(true),
                              JsonValue(1),
                              JsonValue("x"),
                              JsonValue(std::vector<JsonValue>{}),
                              JsonValue::make_object()};
  for (const JsonValue& value : values) {
    SCOPED_TRACE(value.to_string());
    EXPECT_EQ(value.get("x").type, JsonType::kNull);
    EXPECT_EQ(value[0].type, JsonType::kNull);
    EXPECT_EQ(value.get("x").number, 0);
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
  EXPECT_EQ(text.object.at("a").number, 1);
  EXPECT_EQ(text.get("a").type, JsonType::kNull);
}

TEST(JsonSaturate, EdgesOfTheIntegerTypes) {
  const struct {
    double in;
    uint32_t u32;
    int64_t i64;
  } rows[] = {
      {-0.9, 0, 0},
      {-1, 0, -1},
      {-1.9, 0, -1},
      {0.9, 0, 0},
      {4294967294.9, 4294967294, 4294967294},
      {4294967295.9, 4294967295, 4294967295},
      {4294967296, 4294967295, 4294967296},
      {9223372036854774784.0, 4294967295, 9223372036854774784},
      {9223372036854775808.0, 4294967295, INT64_MAX},
      {-9223372036854774784.0, 0, -9223372036854774784},
      {-9223372036854775808.0, 0, INT64_MIN},
      {-1e300, 0, INT64_MIN},
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
