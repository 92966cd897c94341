// What getinfo and health say, from the reply to getnodestatus.
//
// Threads: no state.

#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "rpc/json.h"

namespace norvel::cli {

// A tip older than this, in seconds, says that the node is behind or alone.
inline constexpr int64_t kTipAgeMaxS = 600;

// Seconds from the tip's timestamp to `now`; negative for a tip of the future.
int64_t tip_age_s(const rpc::JsonValue& status, int64_t now);

// The screen of getinfo, with a newline at its end. Figures that the node does
// not give are "?".
std::string status_text(const rpc::JsonValue& status, int64_t now);

// Why the node is not well, each reason printable; empty when it is.
std::vector<std::string> find_complaints(const rpc::JsonValue& status, int64_t now);

}  // namespace norvel::cli
