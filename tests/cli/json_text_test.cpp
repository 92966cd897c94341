#include "cli/json_text.h"

#include <gtest/gtest.h>

#include <string>

namespace norvel::cli {
namespace {

TEST(IsJson, OneWholeValueAndNothingElse) {
  const char* const whole[] = {
      "0", "-1.5", "true", "null", "\"a\\\"b\"", "[]", " [1, [2], {}] ", "{}", "{\"a\":1,\"b\":[\"c\"]}"};
  for (const char* text : whole) {
    EXPECT_TRUE(is_json(text)) << text;
  }
  const char* const not_whole[] = {"",      "01",  "1.",  "-",     "1x",       "[1",    "[1,]", "{\"a\"}",
                                   "{1:2}", "\"a", "tru", "[1] 2", "{\"a\":1", "\"a\\", "1e5"};
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
