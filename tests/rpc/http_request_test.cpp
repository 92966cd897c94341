#include "rpc/http_request.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace norvel::rpc {
namespace {

using Progress = HttpRequest::Progress;

constexpr ServerLimits kSmall{.header_bytes = 64, .body_bytes = 10};

HttpRequest request_of(std::string_view text) {
  HttpRequest request(kSmall);
  request.append(text);
  return request;
}

TEST(HttpRequest, ReadsTheFirstLengthOfTheHeaderBlock) {
  const struct {
    const char* label;
    const char* text;
    Progress want;
  } rows[] = {
      {"no blank line", "POST /\r\nContent-Length: 0\r\n", Progress::kHeaders},
      {"no length", "POST /\r\n\r\n", Progress::kComplete},
      {"one byte short", "POST /\r\nContent-Length: 3\r\n\r\nab", Progress::kBody},
      {"exact", "POST /\r\nContent-Length: 2\r\n\r\nab", Progress::kComplete},
      {"more than declared", "POST /\r\nContent-Length: 1\r\n\r\nab", Progress::kComplete},
      {"any case, blanks and tabs", "POST /\r\ncOnTeNt-LENGTH: \t 3\r\n\r\nab", Progress::kBody},
      {"no blank", "POST /\r\nContent-Length:3\r\n\r\nab", Progress::kBody},
      {"text behind the number", "POST /\r\nContent-Length: 3 bytes\r\n\r\nab", Progress::kBody},
      {"first of two", "POST /\r\nContent-Length: 3\r\nContent-Length: 2\r\n\r\nab", Progress::kBody},
      {"within another name", "POST /\r\nX-Content-Length: 3\r\n\r\nab", Progress::kBody},
      {"in the body only", "POST /\r\n\r\ncontent-length: 99", Progress::kComplete},
      {"largest body", "POST /\r\nContent-Length: 10\r\n\r\n", Progress::kBody},
      {"less than nothing", "POST /\r\nContent-Length: -1\r\n\r\n", Progress::kComplete},
      {"one too many", "POST /\r\nContent-Length: 11\r\n\r\n", Progress::kTooLarge},
      {"largest number", "POST /\r\nContent-Length: 9223372036854775807\r\n\r\n", Progress::kTooLarge},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(request_of(row.text).progress(), row.want) << row.label;
  }
}

TEST(HttpRequest, RefusesWhatIsNoLength) {
  for (const char* length : {"", " ", "many", "-9223372036854775809", "9223372036854775808"}) {
    SCOPED_TRACE(length);
    HttpRequest request = request_of("POST /\r\nContent-Length:" + std::string(length) + "\r\n5: 5\r\n\r\n");
    EXPECT_TRUE(request.has_headers());
    EXPECT_THROW(request.progress(), std::logic_error);
  }
}

TEST(HttpRequest, HeaderBlockIsBoundedHoweverItComes) {
  for (const size_t size : {63u, 64u, 65u, 80u}) {
    SCOPED_TRACE(size);
    const std::string block = std::string(size - 4, 'h') + "\r\n\r\n";
    HttpRequest whole = request_of(block + "body");
    HttpRequest bytewise(kSmall);
    for (const char& c : block + "body") {
      bytewise.append({&c, 1});
    }
    for (HttpRequest* request : {&whole, &bytewise}) {
      EXPECT_EQ(request->has_headers(), size <= 64);
      EXPECT_EQ(request->progress(), size <= 64 ? Progress::kComplete : Progress::kTooLarge);
      EXPECT_EQ(request->body(), size <= 64 ? "body" : "");
    }
  }
}

TEST(HttpRequest, KnowsAnOriginHeaderAtTheStartOfALine) {
  EXPECT_TRUE(request_of("POST /\r\nOrigin: null\r\n\r\n").has_origin());
  EXPECT_TRUE(request_of("POST /\r\noRIGIN:http://a\r\n\r\n").has_origin());
  EXPECT_FALSE(request_of("POST /\r\nX-Origin: null\r\n\r\n").has_origin());
  EXPECT_FALSE(request_of("POST /\r\n\r\n\r\nOrigin: a\r\n").has_origin());
}

}  // namespace
}  // namespace norvel::rpc
