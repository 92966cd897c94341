#include "bench/options.h"

#include <charconv>
#include <stdexcept>

namespace norvel::bench {

namespace {

constexpr double kRunSecondsMin = 0.001;
constexpr double kRunSecondsMax = 60;

constexpr const char* kHelp =
    "Usage: norvel-bench [options]\n"
    "\n"
    "Measures the nonce search: each kernel that runs on this machine, then the whole\n"
    "miner, each with one thread up to all.\n"
    "\n"
    "Options:\n"
    "  --json         Print one JSON object instead of a table\n"
    "  --seconds <S>  Length of a run, 0.001 to 60 (default: 0.5); a row is the median of five\n"
    "  --version      Print the version\n"
    "  --help         Show this help message\n";

double read_seconds(const std::string& text) {
  double seconds = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc() || end != text.data() + text.size() ||
      !(seconds >= kRunSecondsMin && seconds <= kRunSecondsMax)) {  // neither is "nan"
    throw std::runtime_error("--seconds: not a number from 0.001 to 60: " + text);
  }
  return seconds;
}

}  // namespace

Options parse_options(const std::vector<std::string>& arguments) {
  Options options;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string& name = arguments[i];
    if (name == "--json") {
      options.json = true;
    } else if (name == "--seconds" && i + 1 < arguments.size()) {
      options.run_seconds = read_seconds(arguments[++i]);
    } else if (name == "--seconds") {
      throw std::runtime_error("--seconds: a number is missing");
    } else if (name == "--version") {
      options.text_to_print = std::string("norvel-bench ") + NORVEL_VERSION + "\n";
    } else if (name == "--help") {
      options.text_to_print = kHelp;
    } else {
      throw std::runtime_error("unknown option: " + name);
    }
  }
  return options;
}

}  // namespace norvel::bench
