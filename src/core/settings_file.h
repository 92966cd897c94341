// Files of "KEY = VALUE" lines: the node's config file and the rules that a data
// directory was made with.
//
// Blanks around key and value do not count. A "#" at the start of a line or
// behind a blank begins a comment. Keys may repeat.
//
// Errors: std::runtime_error with "FILE:LINE: " and what is wrong there. Threads:
// free functions without state.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace norvel {

inline constexpr size_t kSettingsBytesMax = 1'000'000;

struct Setting {
  std::string key;
  std::string value;  // not empty
  size_t line = 0;    // from 1
};

// In the order of the text; `path` is for messages only.
std::vector<Setting> parse_settings(std::string_view text, const std::string& path);

// The settings of a file; nothing when there is no such file. One that cannot be
// read or exceeds kSettingsBytesMax throws with "FILE: " and the reason.
std::optional<std::vector<Setting>> read_settings(const std::string& path);

// The exception of a setting that its reader does not take.
[[noreturn]] void refuse_setting(const std::string& path, const Setting& setting, const std::string& problem);

}  // namespace norvel
