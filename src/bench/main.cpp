// norvel-bench: how fast this machine searches nonces.

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "bench/measurement.h"
#include "bench/options.h"
#include "bench/report.h"
#include "core/console.h"

namespace {

// The exit status: a result that was not written is an error.
int print(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0) {
    return 0;
  }
  norvel::console::error_line(std::string("Error: standard output: ") + std::strerror(errno));
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace norvel;
  console::open_standard_streams();
  try {
    const bench::Options options =
        bench::parse_options(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
    if (!options.text_to_print.empty()) {
      return print(options.text_to_print);
    }
    const bench::Measurement measurement = bench::measure(options.run_seconds);
    return print(options.json ? bench::json_text(measurement) : bench::table_text(measurement));
  } catch (const std::exception& failure) {
    console::error_line(std::string("Error: ") + console::printable(failure.what()));
    return 1;
  }
}
