#include <algorithm>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fuzz_target.h"
#include "rpc/http_reply.h"

namespace {

// The body once `text` has arrived in pieces of `piece` bytes, as far as the
// reply wants them; "!" for a Content-Length that does not convert.
std::string read_in_pieces(std::string_view text, size_t piece, bool& is_complete) {
  norvel::rpc::HttpReply reply;
  is_complete = false;
  try {
    for (size_t at = 0; at < text.size() && !is_complete; at += piece) {
      is_complete = reply.append(text.substr(at, piece));
    }
  } catch (const std::invalid_argument&) {
    return "!";
  } catch (const std::out_of_range&) {
    return "!";
  }
  return std::string(reply.body());
}

}  // namespace

// The first byte chooses the size of the pieces. A zero byte cuts its piece, so
// only a text without one must read the same however it arrives.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string_view text(reinterpret_cast<const char*>(data) + 1, size - 1);
  bool pieces_complete = false;
  bool whole_complete = false;
  const std::string pieces = read_in_pieces(text, size_t{data[0]} + 1, pieces_complete);
  const std::string whole = read_in_pieces(text, std::max<size_t>(text.size(), 1), whole_complete);
  if (text.find('\0') == std::string_view::npos) {
    // Pieces end with the one that completes the reply.
    norvel::require(pieces_complete == whole_complete && whole.starts_with(pieces));
    norvel::require(pieces_complete || pieces == whole);
  }
  return 0;
}
