#include "core/settings_file.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "core/console.h"
#include "core/file_io.h"

namespace norvel {

namespace {

constexpr std::string_view kBlanks = " \t\r";

std::string_view trim(std::string_view text) {
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) {
    return {};
  }
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

std::string_view without_comment(std::string_view line) {
  for (size_t at = line.find('#'); at != std::string_view::npos; at = line.find('#', at + 1)) {
    if (at == 0 || kBlanks.find(line[at - 1]) != std::string_view::npos) {
      return line.substr(0, at);
    }
  }
  return line;
}

}  // namespace

std::vector<Setting> parse_settings(std::string_view text, const std::string& path) {
  std::vector<Setting> settings;
  for (size_t number = 1; !text.empty(); ++number) {
    const size_t end = text.find('\n');
    const std::string_view line = trim(without_comment(text.substr(0, end)));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (line.empty()) {
      continue;
    }
    const size_t equals = line.find('=');
    const std::string_view key = trim(line.substr(0, equals));
    const std::string_view value = equals == std::string_view::npos ? "" : trim(line.substr(equals + 1));
    Setting setting{std::string(key), std::string(value), number};
    if (key.empty() || value.empty()) {
      refuse_setting(path, setting, "expected KEY = VALUE");
    }
    settings.push_back(std::move(setting));
  }
  return settings;
}

std::optional<std::vector<Setting>> read_settings(const std::string& path) {
  const auto bytes = read_whole_file(path, kSettingsBytesMax);
  if (!bytes && errno == ENOENT) {
    return std::nullopt;
  }
  if (!bytes) {
    throw std::runtime_error(path + ": " + std::strerror(errno));
  }
  return parse_settings({reinterpret_cast<const char*>(bytes->data()), bytes->size()}, path);
}

void refuse_setting(const std::string& path, const Setting& setting, const std::string& problem) {
  throw std::runtime_error(path + ":" + std::to_string(setting.line) + ": " + console::printable(problem));
}

}  // namespace norvel
