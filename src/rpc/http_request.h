// Assembly of one HTTP/1.1 request (RFC 9112) from the pieces in which it
// arrives, within bounds. Method, path and version are not looked at.
//
// Threads: a plain value.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "rpc/server_limits.h"

namespace norvel::rpc {

class HttpRequest {
 public:
  enum class Progress {
    kHeaders,   // the blank line has not come yet
    kBody,      // the body is shorter than its Content-Length
    kComplete,  // a request without Content-Length ends with its header block
    kTooLarge,  // header block or Content-Length beyond the limits; further pieces are dropped
  };

  explicit HttpRequest(const ServerLimits& limits) : limits_(limits) {}

  // Adds the next piece. What follows the declared length stays part of the
  // body, so a body is longer than declared by less than the last piece.
  void append(std::string_view piece);

  // Throws std::invalid_argument or std::out_of_range once the header block is
  // there with a Content-Length that does not read as a number. A negative one is
  // reached at once.
  // The first "content-length:" of the block counts, in any case, blanks and
  // tabs behind it skipped.
  Progress progress();

  // Whether the header block is complete and within its limit.
  bool has_headers() const { return body_at_.has_value(); }

  // The header block with its blank line; what has come as long as it is not
  // complete. Good until the next append().
  std::string_view headers() const;

  // What has come after the blank line. As above.
  std::string_view body() const;

  // Whether a line of the header block, in any case, is an Origin header: then
  // a web page made the browser send the request.
  bool has_origin() const;

 private:
  ServerLimits limits_;
  std::string text_;
  size_t search_from_ = 0;  // no blank line begins before
  std::optional<size_t> body_at_;
  bool headers_too_large_ = false;
  std::optional<uint64_t> length_;  // of the body, once it was asked for
};

}  // namespace norvel::rpc
