#include "rpc/http_reply.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace norvel::rpc {
namespace {

using namespace std::string_literals;

TEST(HttpReply, EndsWhereItsHeadersSay) {
  const struct {
    const char* label;
    std::string text;
    bool complete;
    const char* body;
  } rows[] = {
      {"one byte short", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhell", false, "hell"},
      {"exact", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", true, "hello"},
      {"more than declared", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello!", true, "hello!"},
      {"status is ignored", "HTTP/1.1 500 No\r\nContent-Length: 1\r\n\r\n5", true, "5"},
      {"no status line", "Content-Length: 2\r\n\r\nab", true, "ab"},
      {"later header, no blank", "A: b\r\nContent-Length:2\r\nC: d\r\n\r\nab", true, "ab"},
      {"blanks before, text after the number", "\r\nContent-Length: \t 2x\r\n\r\nab", true, "ab"},
      {"zero", "\r\nContent-Length: 0\r\n\r\n", true, ""},
      {"negative", "\r\nContent-Length: -1\r\n\r\n", true, ""},
      {"plus sign", "\r\nContent-Length: +3\r\n\r\nab", false, "ab"},
      {"the first of two counts", "\r\nContent-Length: 3\r\nContent-Length: 1\r\n\r\nab", false, "ab"},
      {"lower case", "\r\ncontent-length: 1\r\n\r\nab", false, "ab"},
      {"end of another header's name", "\r\nX-Content-Length: 1\r\n\r\nab", false, "ab"},
      {"in the body", "HTTP/1.1 200 OK\r\n\r\nContent-Length: 1\r\n\r\n", false, "Content-Length: 1\r\n\r\n"},
      {"no blank line", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n", false, ""},
      {"blank line of another kind", "A\r\nContent-Length: 1\n\nab", false, ""},
      {"the blank line alone", "\r\n\r\nab", false, "ab"},
      {"nothing", "", false, ""},
      {"zero byte in the body", "A\r\nContent-Length: 2\r\n\r\na\0b"s, false, "a"},
      {"zero byte in the headers", "A\r\nB: \0\r\n\r\nab"s, false, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    HttpReply reply;
    EXPECT_EQ(reply.append(row.text), row.complete);
    EXPECT_EQ(reply.body(), row.body);
  }
}

TEST(HttpReply, CutAnywhereIsTheSame) {
  const std::string text = "HTTP/1.1 200 OK\r\nA: \r\r\n\r\rB: \r\nContent-Length: 13\r\n\r\n\r\n\r\n[1,2,3]\r\n";
  for (size_t first = 0; first <= text.size(); ++first) {
    for (size_t second = first; second <= text.size(); ++second) {
      HttpReply reply;
      const bool early = reply.append(text.substr(0, first)) || reply.append(text.substr(first, second - first));
      EXPECT_EQ(early, second == text.size()) << first << " " << second;
      EXPECT_TRUE(reply.append(text.substr(second)));
      EXPECT_EQ(reply.body(), "\r\n\r\n[1,2,3]\r\n");
    }
  }
}

TEST(HttpReply, LengthThatIsNoIntThrowsAtTheBlankLine) {
  const struct {
    const char* label;
    const char* number;
    bool out_of_range;
  } rows[] = {
      {"empty", "", false},
      {"blanks", "  ", false},
      {"word", " ten", false},
      {"two signs", "--1", false},
      {"hexadecimal tail", "x1", false},
      {"2^31", "2147483648", true},
      {"below -2^31", "-2147483649", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    HttpReply reply;
    EXPECT_FALSE(reply.append("A: b\r\nContent-Length:"s + row.number + "\r\nC: d\r\n\r"));
    if (row.out_of_range) {
      EXPECT_THROW(reply.append("\n"), std::out_of_range);
    } else {
      EXPECT_THROW(reply.append("\n"), std::invalid_argument);
    }
  }
  HttpReply largest;
  EXPECT_FALSE(largest.append("\r\nContent-Length: 2147483647\r\n\r\n"));
}

TEST(HttpReply, EndsAtItsLargestSize) {
  const std::string head = "A: b\r\n\r\n";
  const std::string megabyte(1'048'576, 'x');
  HttpReply reply;
  reply.append(head);
  for (int i = 0; i < 63; ++i) {
    ASSERT_FALSE(reply.append(megabyte));
  }
  EXPECT_FALSE(reply.append(megabyte.substr(head.size() + 1)));
  EXPECT_TRUE(reply.append("yz"));
  EXPECT_TRUE(reply.append("z"));
  EXPECT_EQ(reply.body().size(), HttpReply::kBytesMax - head.size());
  EXPECT_EQ(reply.body().back(), 'y');
}

TEST(HttpReply, BytesThatAreCutOffCountToo) {
  const std::string zeros(1'048'576, '\0');
  HttpReply reply;
  for (int i = 0; i < 63; ++i) {
    ASSERT_FALSE(reply.append(zeros));
  }
  EXPECT_TRUE(reply.append(zeros));
}

}  // namespace
}  // namespace norvel::rpc
