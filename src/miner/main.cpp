// norvel-miner: a console CPU miner that works for a node over JSON-RPC.

#include <exception>
#include <string>
#include <vector>

#include "core/console.h"
#include "miner/dashboard.h"
#include "miner/options.h"
#include "miner/session.h"
#include "miner/stop_signals.h"

int main(int argc, char** argv) {
  using namespace norvel;
  console::guard_standard_streams();
  miner::stop_signals::install();
  miner::print_banner();

  // A number that does not convert ends the program here, uncaught.
  const miner::Options options = miner::parse_options(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
  if (options.help) {
    console::write_out(miner::usage_text());
    return 0;
  }
  if (options.mining_address.empty()) {
    console::error_line("Error: Mining address is required!\nUse --address <your_norvel_address>");
    return 1;
  }
  console::write_out(miner::configuration_text(options));
  try {
    return miner::Session(options).run();
  } catch (const std::exception& failure) {
    console::error_line(std::string("\n[EXCEPTION] Error: ") + failure.what());
    return 1;
  }
}
