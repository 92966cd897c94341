#include "rpc/http_reply.h"

#include <algorithm>
#include <cstdint>

#include "rpc/http_text.h"

namespace norvel::rpc {

namespace {

constexpr std::string_view kContentLength = "Content-Length:";

}  // namespace

bool HttpReply::append(std::string_view chunk) {
  chunk = chunk.substr(0, kBytesMax - bytes_seen_);
  bytes_seen_ += chunk.size();
  text_ += chunk.substr(0, chunk.find('\0'));
  if (!body_at_) {
    find_body();
  }
  const bool whole = content_length_ && static_cast<int64_t>(body().size()) >= *content_length_;
  return whole || bytes_seen_ == kBytesMax;
}

std::string_view HttpReply::body() const {
  return body_at_ ? std::string_view(text_).substr(*body_at_) : std::string_view();
}

void HttpReply::find_body() {
  const size_t blank_line = text_.find(kBlankLine, search_from_);
  if (blank_line == std::string::npos) {
    // The blank line may have begun within its own length of the end.
    search_from_ = text_.size() - std::min(text_.size(), kBlankLine.size() - 1);
    return;
  }
  body_at_ = blank_line + kBlankLine.size();
  read_content_length();
}

void HttpReply::read_content_length() {
  const std::string_view headers = std::string_view(text_).substr(0, *body_at_ - kLineEnd.size());
  for (size_t line = 0; line < headers.size();) {
    const size_t end = headers.find(kLineEnd, line);  // each line has one
    if (headers.substr(line).starts_with(kContentLength)) {
      const size_t number = line + kContentLength.size();
      content_length_ = std::stoi(std::string(headers.substr(number, end - number)));
      return;
    }
    line = end + kLineEnd.size();
  }
}

}  // namespace norvel::rpc
