// What HTTP/1.1 messages are cut at (RFC 9112).

#pragma once

#include <cstddef>
#include <string_view>

namespace norvel::rpc {

inline constexpr std::string_view kLineEnd = "\r\n";
inline constexpr std::string_view kBlankLine = "\r\n\r\n";  // with the end of the last header's line

// What a client reads at once, in bytes.
inline constexpr std::size_t kChunkBytesMax = 8'191;

}  // namespace norvel::rpc
