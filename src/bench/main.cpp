// norvel-bench: how fast this machine searches nonces.

#include <exception>
#include <string>
#include <vector>

#include "bench/measurement.h"
#include "bench/options.h"
#include "bench/report.h"
#include "core/console.h"

int main(int argc, char** argv) {
  using namespace norvel;
  console::open_standard_streams();
  try {
    const bench::Options options =
        bench::parse_options(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
    if (!options.text_to_print.empty()) {
      console::write_out(options.text_to_print);
      return 0;
    }
    const bench::Measurement measurement = bench::measure(options.run_seconds);
    console::write_out(options.json ? bench::json_text(measurement) : bench::table_text(measurement));
    return 0;
  } catch (const std::exception& failure) {
    console::error_line(std::string("Error: ") + console::printable(failure.what()));
    return 1;
  }
}
