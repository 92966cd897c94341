#include "miner/options.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <tuple>

namespace norvel::miner {

namespace {

Options make_options(const std::string& address, uint16_t port = 8332, int threads = 0) {
  Options options;
  options.mining_address = address;
  options.rpc_port = port;
  options.threads = threads;
  return options;
}

Options help() {
  Options options;
  options.help = true;
  return options;
}

TEST(Options, ReadsValuesInOrderAndSkipsTheRest) {
  const struct {
    const char* label;
    std::vector<std::string> arguments;
    Options want;
  } rows[] = {
      {"nothing", {}, {}},
      {"all four",
       {"--address", "A", "--rpchost", "1.2.3.4", "--rpcport", "99", "--threads", "3"},
       {"A", "1.2.3.4", 99, 3, false}},
      {"unknown words around", {"x", "--Address", "B", "--address", "A", "--verbose", "-t"}, make_options("A")},
      {"last one wins", {"--threads", "2", "--threads", "4"}, make_options("", 8332, 4)},
      {"trailing option ignored", {"--address", "A", "--threads"}, make_options("A")},
      {"an option's name as a value", {"--address", "--threads", "5"}, make_options("--threads")},
      {"help as a value", {"--address", "-h"}, make_options("-h")},
      {"help where an option may stand", {"--address", "A", "-h", "--threads", "9"}, help()},
      {"help after a bad number", {"--threads", "abc", "--help"}, help()},
      {"port above 16 bits", {"--rpcport", "70000"}, make_options("", 4'464)},
      {"negative port", {"--rpcport", "-1"}, make_options("", 65'535)},
      {"blanks, sign, trailing text", {"--threads", "  +12abc"}, make_options("", 8332, 12)},
      {"negative threads", {"--threads", "-3"}, make_options("", 8332, -3)},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const Options got = parse_options(row.arguments);
    ASSERT_EQ(got.help, row.want.help);
    if (!got.help) {
      EXPECT_EQ(std::tie(got.mining_address, got.rpc_host, got.rpc_port, got.threads),
                std::tie(row.want.mining_address, row.want.rpc_host, row.want.rpc_port, row.want.threads));
    }
  }
}

TEST(Options, NumbersThatDoNotConvertThrow) {
  EXPECT_THROW(parse_options({"--threads", "abc", "--threads", "2"}), std::invalid_argument);
  EXPECT_THROW(parse_options({"--rpcport", ""}), std::invalid_argument);
  EXPECT_THROW(parse_options({"--rpcport", "2147483648"}), std::out_of_range);
}

}  // namespace

}  // namespace norvel::miner
