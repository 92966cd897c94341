#include "cli/json_text.h"

#include <gtest/gtest.h>

#include <string>

namespace norvel::cli {
namespace {

TEST(IsJson, OneWholeValueAndNothingElse) {
  const char* const whole[] = {"0",    "-1.5",       "2.4e-05", "1E+9",           "[0e0]", "true",
                               "null", "\"a\\\"b\"", "[]",      " [1, [2], {}] ", "{}",    "{\"a\":1,\"b\":[\"c\"]}"};
  for (const char* text : whole) {
    EXPECT_TRUE(is_json(text)) << text;
  }
  const char* const not_whole[] = {"",    "01",  "1.",    "-",        "1x",    "[1", "[1,]", "{\"a\"}", "{1:2}",
                                   "\"a", "tru", "[1] 2", "{\"a\":1", "\"a\\", "1e", "1e+",  "1.e5"};
  for (const char* text : not_whole) {
    EXPECT_FALSE(is_json(text)) << text;
  }
}

TEST(IsJson, DepthIsBounded) {
  const auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_TRUE(is_json(nested(512)));
  EXPECT_FALSE(is_json(nested(513)));
  EXPECT_FALSE(is_json(std::string(1'000'000, '[')));
}

TEST(IsJson, EveryCutOfAReplyIsSeen) {
  const std::string reply = R"({"error":null,"id":"0","result":[{"txid":"ab\n","value":12.5},true,-3]})";
  ASSERT_TRUE(is_json(reply));
  for (size_t size = 0; size < reply.size(); ++size) {
    EXPECT_FALSE(is_json(reply.substr(0, size))) << size;
  }
}

TEST(ReadJson, KnowsExponents) {
  const struct {
    const char* text;
    std::optional<double> want;
  } rows[] = {
      {"2.4e-05", 0.000024},
      {"-1.90735E-06", -0.00000190735},
      {"1e+20", 100'000'000'000'000'000'000.0},
      {"0e999", 0},
      {"1e308", 1e308},
      {"1e309", std::nullopt},
      {"2.3e-308", 2.3e-308},
      {"1e-308", std::nullopt},  // held by a subnormal number only
      {"1e-999999999999", std::nullopt},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const auto value = read_json(row.text);
    ASSERT_EQ(value.has_value(), row.want.has_value());
    if (row.want) {
      EXPECT_EQ(value->number, *row.want);
    }
  }
  const auto reply = read_json(R"({"1e5":"2e-5","a":[1.5e1,7,-2E-1]} )");
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->to_string(), R"({"1e5":"2e-5","a":[15,7,-0.2]})");
  EXPECT_FALSE(read_json(std::string(400, '9')));
}

TEST(Parameter, IsJsonWhereItSurvivesAndTextOtherwise) {
  const struct {
    const char* text;
    const char* sent;
  } rows[] = {
      {"12", "12"},
      {"[1,\"a\"]", "[1,\"a\"]"},
      {"\"12\"", "\"12\""},
      {"1NorvelAddress", "\"1NorvelAddress\""},
      {"007", "\"007\""},
      {"1.50", "\"1.50\""},
      {"1e3", "\"1e3\""},
      {"9007199254740993", "\"9007199254740993\""},
      {"1111111111111111111111111111111111111111111111111111111111111111",
       "\"1111111111111111111111111111111111111111111111111111111111111111\""},
      {"{\"a\":", "\"{\\\"a\\\":\""},
      {"", "\"\""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(read_parameter(row.text).to_string(), row.sent) << row.text;
  }
  EXPECT_EQ(read_parameter(std::string(400, '9')).type, rpc::JsonType::kString);  // beyond every double
}

TEST(Result, IsIndentedAndCannotSteerTheTerminal) {
  const auto shown = [](const char* json) { return result_text(rpc::JsonValue::parse(json)); };
  EXPECT_EQ(shown("\"plain\x1b[2J\""), "plain?[2J");
  EXPECT_EQ(shown("7"), "7");
  EXPECT_EQ(shown("[0.000024,-12.5]"), "[\n  0.000024,\n  -12.5\n]");
  EXPECT_EQ(shown("[]"), "[]");
  EXPECT_EQ(shown("{\"b\":[1,{}],\"a\\n\":\"x\\ty\x07\"}"),
            "{\n  \"a\\n\": \"x\\ty?\",\n  \"b\": [\n    1,\n    {}\n  ]\n}");
}

TEST(Result, LongTextsAreWholeAndKeepTheirCharacters) {
  for (size_t shift = 0; shift < 4; ++shift) {
    std::string text(shift, 'x');
    for (int i = 0; i < 3'000; ++i) {
      text += "\xf0\x9f\x92\x9b";  // a character of four bytes, one of which is a control alone
    }
    EXPECT_EQ(printable_whole(text), text);
  }
  EXPECT_EQ(printable_whole(std::string(5'000, '\x9b')), std::string(5'000, '?'));
}

}  // namespace
}  // namespace norvel::cli
