// What the server calls for a method.

#pragma once

#include <functional>

#include "rpc/json.h"

namespace norvel::rpc {

// Takes the params of a request, returns its result or throws a
// std::runtime_error with the reason. Called from several threads at once.
using MethodHandler = std::function<JsonValue(const JsonValue& params)>;

// A heavy call may take seconds or make a large result. Few of them run at once,
// and they keep none of the light ones waiting.
enum class CallWeight { kLight, kHeavy };

}  // namespace norvel::rpc
