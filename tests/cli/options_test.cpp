#include "cli/options.h"

#include <gtest/gtest.h>

#include <fstream>

#include "cli/failures.h"
#include "support/captured_stderr.h"
#include "support/chain_builder.h"

namespace norvel::cli {
namespace {

TEST(CommandLine, OptionsStandBeforeTheMethodAndParametersBehind) {
  const CommandLine line = parse_command_line({"--rpcport", "99", "--rpc-ca=/c", "getblock", "-3", "x", "-h"});
  EXPECT_EQ(line.rpc_port, 99);
  EXPECT_TRUE(line.rpc_tls);
  EXPECT_EQ(line.method, "getblock");
  EXPECT_EQ(line.params, (std::vector<std::string>{"-3", "x", "-h"}));
  EXPECT_TRUE(parse_command_line({"--help"}).text_to_print.starts_with("Asks a Norvel node"));
  const std::vector<std::string> refused[] = {{},
                                              {"--rpcport", "70000", "x"},
                                              {"--rpcport", "0", "x"},
                                              {"--rpcport", "0x20", "x"},
                                              {"--rpcport", "", "x"},
                                              {"--rpcport"},
                                              {"--no-such", "x"},
                                              {"getinfo", "--rpcport", "1"}};
  for (const auto& arguments : refused) {
    EXPECT_THROW(parse_command_line(arguments), UsageError);
  }
}

TEST(PaymentOrder, IsWholeAndExactOrRefused) {
  const PaymentOrder order = parse_payment_order({"k", "1A", "0.5", "--fee", ".001", "--message", "--hello"});
  EXPECT_EQ(order.key_file, "k");
  EXPECT_EQ(order.address, "1A");
  EXPECT_EQ(order.amount, 50'000'000);
  EXPECT_EQ(order.fee, 100'000);
  EXPECT_EQ(order.message, "--hello");
  const std::vector<std::string> refused[] = {{},
                                              {"k", "1A"},
                                              {"k", "1A", "1", "2"},
                                              {"k", "1A", "0"},
                                              {"k", "1A", "-1"},
                                              {"k", "1A", "1e3"},
                                              {"k", "1A", "1", "--fee", "x"},
                                              {"k", "1A", "0.000000001"}};
  for (const auto& arguments : refused) {
    EXPECT_THROW(parse_payment_order(arguments), UsageError);
  }
}

class FindNode : public testing::Test {
 protected:
  NodeAddress find(const std::string& configuration, std::vector<std::string> options = {}) {
    std::ofstream(path("norvel.conf")) << configuration;
    options.insert(options.end(), {"--datadir", directory_.path(), "x"});
    return find_node(parse_command_line(options));
  }

  std::string path(const std::string& name) const { return directory_ / name; }

 private:
  const TemporaryDirectory directory_;
};

TEST_F(FindNode, CommandLineOverFileOverDefault) {
  const NodeAddress plain = find("datadir = elsewhere # the node's matter\n\n");
  EXPECT_EQ(plain.host, "127.0.0.1");
  EXPECT_EQ(plain.port, 8332);
  EXPECT_FALSE(plain.tls);
  EXPECT_EQ(plain.user + plain.password, "");

  std::ofstream(path("secret")) << "p w\n";
  const std::string full =
      "rpc-bind = 127.0.0.2\nrpc-port=17\nrpc-user = u\nrpc-tls-cert = /c\nrpc-password-file = " + path("secret") +
      "\n";
  CapturedStderr warning;
  const NodeAddress configured = find(full);
  EXPECT_EQ(configured.host, "127.0.0.2");
  EXPECT_EQ(configured.port, 17);
  EXPECT_EQ(configured.user, "u");
  EXPECT_EQ(configured.password, "p w");
  EXPECT_TRUE(configured.tls);
  EXPECT_EQ(configured.ca_file, "/c");
  EXPECT_NE(warning.text().find("can be read by other users"), std::string::npos);

  const NodeAddress given = find(full, {"--rpchost", "h", "--rpcport", "18", "--rpc-user", "v"});
  EXPECT_EQ(given.host, "h");
  EXPECT_EQ(given.port, 18);
  EXPECT_EQ(given.user, "v");
  EXPECT_EQ(given.password, "");
  EXPECT_EQ(find(full, {"--rpchost", "h"}).user, "");
  EXPECT_EQ(given.ca_file, "");  // the local node's certificate says nothing of another host
  EXPECT_EQ(find("rpc-bind = 0.0.0.0\n").host, "127.0.0.1");
  EXPECT_EQ(find("rpc-port = 0\n", {"--rpcport", "010"}).port, 10);
}

TEST_F(FindNode, RelativePathsOfTheFileAreTakenFromItsDirectory) {
  std::ofstream(path("secret")) << "p w\n";
  const CapturedStderr quiet;
  const NodeAddress node = find("rpc-password-file = secret\nrpc-tls-cert = sub/cert.pem\n");
  EXPECT_EQ(node.password, "p w");
  EXPECT_EQ(node.ca_file, path("sub/cert.pem"));
  EXPECT_EQ(find("", {"--rpc-ca", "here.pem"}).ca_file, "here.pem");
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
