// Assembly of one HTTP/1.1 reply (RFC 9112) from the pieces in which it
// arrives. Only what ends the reply is looked at: the blank line and the
// Content-Length header; status line and all other headers are ignored.
//
// Threads: a plain value.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace norvel::rpc {

class HttpReply {
 public:
  // A reply is read up to here; a peer that never ends it costs no more memory.
  static constexpr size_t kBytesMax = size_t{64} * 1024 * 1024;

  // Adds `chunk`, cut at its first zero byte, and tells whether the reply is
  // complete: kBytesMax bytes were given, zero bytes and what they cut off
  // included, or the header block declares a Content-Length and as many bytes
  // follow it. The number is read by std::stoi, whose exceptions propagate; one
  // below zero is reached at once. The first such header counts; its name is
  // case-sensitive.
  bool append(std::string_view chunk);

  // What follows the first blank line; empty before one has arrived. Good until
  // the next append().
  std::string_view body() const;

 private:
  void find_body();
  void read_content_length();

  std::string text_;
  size_t bytes_seen_ = 0;   // given to append()
  size_t search_from_ = 0;  // no blank line begins before
  std::optional<size_t> body_at_;
  std::optional<int> content_length_;
};

}  // namespace norvel::rpc
