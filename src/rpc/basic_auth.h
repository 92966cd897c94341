// HTTP Basic credentials (RFC 7617).
//
// Threads: a plain value; changed only before it is shared.

#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace norvel::rpc {

// Standard Base64 (RFC 4648, section 4), padded or not; nothing for any other
// text.
std::optional<std::string> decode_base64(std::string_view text);

class BasicAuth {
 public:
  BasicAuth() = default;  // asks for nothing
  BasicAuth(const std::string& user, const std::string& password);

  // Whether `raw` carries the credentials behind "Authorization: Basic " or, if
  // that is nowhere, behind its all-lower-case spelling; no other mixture of
  // cases is looked for. Always true when user and password are empty. The time
  // depends on `raw` only, not on how much of it is right.
  bool accepts(std::string_view raw) const;

 private:
  bool is_open_ = true;
  std::string expected_;  // user, ":" and password
};

}  // namespace norvel::rpc
