#include "rpc/http_reply.h"

#include <gtest/gtest.h>

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
      {"first line, blanks before, text after the number", "Content-Length: \t 2x\r\n\r\nab", true, "ab"},
      {"later header, no blank", "A: b\r\nContent-Length:2\r\nC: d\r\n\r\nab", true, "ab"},
      {"negative", "\r\nContent-Length: -1\r\n\r\n", true, ""},
      {"the first of two counts", "\r\nContent-Length: 3\r\nContent-Length: 1\r\n\r\nab", false, "ab"},
      {"lower case", "\r\ncontent-length: 1\r\n\r\nab", false, "ab"},
      {"end of another header's name", "\r\nX-Content-Length: 1\r\n\r\nab", false, "ab"},
      {"in the body", "HTTP/1.1 200 OK\r\n\r\nContent-Length: 1\r\n\r\n", false, "Content-Length: 1\r\n\r\n"},
      {"no blank line", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n", false, ""},
      {"zero byte in the body", "A\r\nContent-Length: 2\r\n\r\na\0b"s, false, "a"},
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

TEST(HttpReply, EndsAtItsLargestSizeWithWhatZeroBytesCutOff) {
  const std::string head = "A: b\r\n\r\n";
  for (const char fill : {'x', '\0'}) {
    const std::string megabyte(1'048'576, fill);
    HttpReply reply;
    reply.append(head);
    for (int i = 0; i < 63; ++i) {
      ASSERT_FALSE(reply.append(megabyte));
    }
    EXPECT_FALSE(reply.append(megabyte.substr(head.size() + 1)));
    EXPECT_TRUE(reply.append("yz"));
    EXPECT_TRUE(reply.append("z"));
    EXPECT_EQ(reply.body().size(), fill == 'x' ? HttpReply::kBytesMax - head.size() : 1);
    EXPECT_EQ(reply.body().back(), 'y');
  }
}

}  // namespace
}  // namespace norvel::rpc
