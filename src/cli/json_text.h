// JSON as a person at a terminal writes and reads it. Threads: no state.

#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "rpc/json.h"

namespace norvel::cli {

// Whether `text` is one whole JSON value (RFC 8259) and nothing else. The reader
// of JsonValue cannot tell: it takes what it can from any text. Stricter than
// the standard in that containers lie at most 512 deep, laxer in that strings may
// hold any escape and any character. O(text).
bool is_json(std::string_view text);

// The value that `text` is; nothing where is_json() is false, and for a text with
// a number that is no normal double: one beyond exponents of 308, or not 0 and
// below -308; also for one of as many values as JsonLimits names, or more. O(text).
std::optional<rpc::JsonValue> read_json(std::string_view text);

// A parameter of the command line: `text` as JSON when it is a number, true,
// false, null, an array, an object or a quoted string, otherwise as a string.
// A number that would not be sent digit for digit as it was typed ("007",
// "1.50", "1e3", a decimal txid) is a string too.
rpc::JsonValue read_parameter(const std::string& text);

// `value` over several lines, indented by two blanks a level, without a newline
// at the end; a string stands alone, without quotes. Numbers have no exponents,
// and as many digits as tell the double. Control characters are "?".
std::string result_text(const rpc::JsonValue& value);

// console::printable() of the whole text, however long.
std::string printable_whole(std::string_view text);

}  // namespace norvel::cli
