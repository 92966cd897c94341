#include <stdexcept>
#include <string>

#include "fuzz_target.h"
#include "rpc/http_request.h"

namespace {

using norvel::rpc::HttpRequest;

// How far the request got: what it says, or that its length does not read.
std::string outcome_of(HttpRequest& request) {
  try {
    const auto progress = request.progress();
    if (progress == HttpRequest::Progress::kTooLarge) {
      return "too large";
    }
    return std::to_string(static_cast<int>(progress)) + (request.has_origin() ? "o" : "-") +
           std::string(request.headers()) + "|" + std::string(request.body());
  } catch (const std::logic_error&) {
    return "no length";
  }
}

}  // namespace

// The pieces in which a request arrives make no difference.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  norvel::rpc::ServerLimits limits;
  limits.header_bytes = 256;
  limits.body_bytes = 1'024;
  const std::string text(reinterpret_cast<const char*>(data), size);
  HttpRequest whole(limits);
  whole.append(text);
  HttpRequest pieces(limits);
  for (const char byte : text) {
    pieces.append(std::string_view(&byte, 1));
  }
  norvel::require(outcome_of(whole) == outcome_of(pieces));
  return 0;
}
