#include <stdexcept>
#include <string>

#include "core/settings_file.h"
#include "fuzz_target.h"

// What is read is written and read again the same.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    const auto settings = norvel::parse_settings(std::string(reinterpret_cast<const char*>(data), size), "file");
    std::string text;
    for (const norvel::Setting& setting : settings) {
      norvel::require(!setting.key.empty() && !setting.value.empty());
      text += setting.key + " = " + setting.value + "\n";
    }
    const auto again = norvel::parse_settings(text, "file");
    norvel::require(again.size() == settings.size());
    for (size_t i = 0; i < settings.size(); ++i) {
      norvel::require(again[i].key == settings[i].key && again[i].value == settings[i].value);
    }
  } catch (const std::runtime_error&) {
    // A line that is no setting.
  }
  return 0;
}
