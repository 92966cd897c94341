#include "cli/options.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "cli/failures.h"
#include "support/captured_stderr.h"
#include "support/chain_builder.h"

namespace norvel::cli {
namespace {

std::vector<std::string> words(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

TEST(CommandLine, OptionsStandBeforeTheMethodAndParametersBehind) {
  const CommandLine line = parse_command_line(words("--rpcport 99 --rpc-ca=/c getblock -3 x -h"));
  EXPECT_EQ(line.rpc_port, 99);
  EXPECT_TRUE(line.rpc_tls);
  EXPECT_EQ(line.method, "getblock");
  EXPECT_EQ(line.params, words("-3 x -h"));
  EXPECT_TRUE(parse_command_line({"--help"}).text_to_print.starts_with("Asks a Norvel node"));
  EXPECT_THROW(parse_command_line({"--rpcport", "", "x"}), UsageError);
  for (const char* refused : {"", "--rpcport 70000 x", "--rpcport 0 x", "--rpcport 0x20 x", "--rpcport", "--no-such x",
                              "getinfo --rpcport 1"}) {
    EXPECT_THROW(parse_command_line(words(refused)), UsageError) << refused;
  }
}

TEST(PaymentOrder, IsWholeAndExactOrRefused) {
  const PaymentOrder order = parse_payment_order(words("k 1A 0.5 --fee .001 --message --hello"));
  EXPECT_EQ(order.key_file + " " + order.address + " " + order.message, "k 1A --hello");
  EXPECT_EQ(order.amount, 50'000'000);
  EXPECT_EQ(order.fee, 100'000);
  for (const char* refused :
       {"", "k 1A", "k 1A 1 2", "k 1A 0", "k 1A -1", "k 1A 1e3", "k 1A 1 --fee x", "k 1A 0.000000001"}) {
    EXPECT_THROW(parse_payment_order(words(refused)), UsageError) << refused;
  }
}

class FindNode : public testing::Test {
 protected:
  // HOST:PORT USER:PASSWORD, and the authority where there is TLS.
  std::string find(const std::string& configuration, std::vector<std::string> options = {}) {
    std::ofstream(path("norvel.conf")) << configuration;
    options.insert(options.end(), {"--datadir", directory_.path(), "x"});
    const NodeAddress node = find_node(parse_command_line(options));
    return node.host + ":" + std::to_string(node.port) + " " + node.user + ":" + node.password +
           (node.tls ? " TLS=" + node.ca_file : "");
  }

  std::string path(const std::string& name) const { return directory_ / name; }

 private:
  const TemporaryDirectory directory_;
};

TEST_F(FindNode, CommandLineOverFileOverDefault) {
  EXPECT_EQ(find("datadir = elsewhere # the node's matter\n\n"), "127.0.0.1:8332 :");
  std::ofstream(path("secret")) << "p w\n";
  const std::string full =
      "rpc-bind = 127.0.0.2\nrpc-port=17\nrpc-user = u\nrpc-tls-cert = /c\nrpc-password-file = " + path("secret") +
      "\n";
  CapturedStderr warning;
  EXPECT_EQ(find(full), "127.0.0.2:17 u:p w TLS=/c");
  EXPECT_NE(warning.text().find("can be read by other users"), std::string::npos);
  // The local node's credentials and certificate say nothing of another host.
  EXPECT_EQ(find(full, words("--rpchost h --rpcport 18 --rpc-user v")), "h:18 v: TLS=");
  EXPECT_EQ(find(full, words("--rpchost h")), "h:17 : TLS=");
  EXPECT_EQ(find("rpc-bind = 0.0.0.0\n"), "127.0.0.1:8332 :");
  EXPECT_EQ(find("rpc-port = 0\n", words("--rpcport 010")), "127.0.0.1:10 :");
}

TEST_F(FindNode, RelativePathsOfTheFileAreTakenFromItsDirectory) {
  std::ofstream(path("secret")) << "p w\n";
  const CapturedStderr quiet;
  EXPECT_EQ(find("rpc-user = u\nrpc-password-file = secret\nrpc-tls-cert = sub/cert.pem\n"),
            "127.0.0.1:8332 u:p w TLS=" + path("sub/cert.pem"));
  EXPECT_EQ(find("", words("--rpc-ca here.pem")), "127.0.0.1:8332 : TLS=here.pem");
}

TEST_F(FindNode, NamesFileAndLineOfWhatIsWrong) {
  const auto reason = [this](const std::string& configuration) -> std::string {
    try {
      find(configuration);
    } catch (const UsageError& failure) {
      return failure.what();
    }
    return "";
  };
  EXPECT_EQ(reason("\nrpc-port = 0\n"), path("norvel.conf") + ": rpc-port = 0 is any free port; give --rpcport");
  EXPECT_EQ(reason("rpc-port = 80x\n"), path("norvel.conf") + ":1: bad value of rpc-port: 80x");
  EXPECT_TRUE(reason("rpc-port 17\n").starts_with(path("norvel.conf") + ":1: "));
  EXPECT_NE(reason("rpc-password-file = " + path("none") + "\n").find(path("none")), std::string::npos);
}

}  // namespace
}  // namespace norvel::cli
