// norvel-cli: asks a node, and makes keys and payments.

#include <csignal>
#include <exception>
#include <string>
#include <vector>

#include "cli/commands.h"
#include "cli/failures.h"
#include "cli/json_text.h"
#include "cli/options.h"
#include "cli/output.h"
#include "core/console.h"

namespace {

int run(const std::vector<std::string>& arguments) {
  using namespace norvel;
  const cli::CommandLine line = cli::parse_command_line(arguments);
  if (!line.text_to_print.empty()) {
    cli::print(line.text_to_print);
    return cli::kSuccess;
  }
  return cli::run_command(line);
}

int report(const std::exception& failure, int status) {
  norvel::console::error_line(norvel::cli::printable_whole(failure.what()));
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace norvel;
  console::open_standard_streams();
  std::signal(SIGPIPE, SIG_IGN);  // a node or reader that closes its end is an error, not the end
  try {
    return run(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
  } catch (const cli::UsageError& failure) {
    return report(failure, cli::kUsage);
  } catch (const cli::ConnectionError& failure) {
    return report(failure, cli::kNoConnection);
  } catch (const std::exception& failure) {
    return report(failure, cli::kFailure);
  }
}
