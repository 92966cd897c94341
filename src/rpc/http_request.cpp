#include "rpc/http_request.h"

#include <algorithm>

#include "rpc/http_text.h"

namespace norvel::rpc {

namespace {

constexpr std::string_view kLengthName = "content-length:";
constexpr std::string_view kOriginLine = "\norigin:";

// ASCII only, whatever the locale.
std::string lower_case(std::string_view text) {
  std::string lowered(text);
  std::transform(lowered.begin(), lowered.end(), lowered.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return lowered;
}

// The declared length of the body; 0 when none is declared.
uint64_t declared_length(std::string_view headers) {
  const std::string lowered = lower_case(headers);
  const size_t name = lowered.find(kLengthName);
  if (name == std::string::npos) {
    return 0;
  }
  const size_t value = lowered.find_first_not_of(" \t", name + kLengthName.size());
  const size_t end = lowered.find(kLineEnd, value);  // there is one: the block ends with a blank line
  const long long length = std::stoll(lowered.substr(value, end - value));
  return static_cast<uint64_t>(std::max(length, 0LL));
}

}  // namespace

void HttpRequest::append(std::string_view piece) {
  if (headers_too_large_) {
    return;
  }
  text_ += piece;
  if (body_at_) {
    return;
  }
  const size_t blank_line = text_.find(kBlankLine, search_from_);
  if (blank_line != std::string::npos) {
    body_at_ = blank_line + kBlankLine.size();
  } else {
    // The blank line may have begun within its own length of the end.
    search_from_ = text_.size() - std::min(text_.size(), kBlankLine.size() - 1);
  }
  headers_too_large_ = body_at_ ? *body_at_ > limits_.header_bytes : text_.size() >= limits_.header_bytes;
  if (headers_too_large_) {
    body_at_.reset();
  }
}

HttpRequest::Progress HttpRequest::progress() {
  if (headers_too_large_) {
    return Progress::kTooLarge;
  }
  if (!body_at_) {
    return Progress::kHeaders;
  }
  if (!length_) {
    length_ = declared_length(headers());
  }
  if (*length_ > limits_.body_bytes) {
    return Progress::kTooLarge;
  }
  return body().size() < *length_ ? Progress::kBody : Progress::kComplete;
}

std::string_view HttpRequest::headers() const {
  return std::string_view(text_).substr(0, body_at_.value_or(text_.size()));
}

std::string_view HttpRequest::body() const {
  return body_at_ ? std::string_view(text_).substr(*body_at_) : std::string_view();
}

bool HttpRequest::has_origin() const {
  return lower_case(headers()).find(kOriginLine) != std::string::npos;
}

}  // namespace norvel::rpc
