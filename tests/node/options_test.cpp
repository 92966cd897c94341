// The command line over the config file over the defaults, and what stops the
// start.

#include "node/options.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "core/password_file.h"
#include "support/chain_builder.h"

namespace norvel::node {
namespace {

class NodeOptions : public testing::Test {
 protected:
  std::string write(const std::string& name, const std::string& text) {
    std::ofstream(directory_ / name) << text;
    return directory_ / name;
  }

  Invocation read(std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"--datadir", directory_.path()});
    return read_options(arguments);
  }

  const TemporaryDirectory directory_;
};

TEST_F(NodeOptions, TakesTheCommandLineOverTheFileOverTheDefaults) {
  write("norvel.conf",
        "# a node\n\n port = 1000 # peers\nrpc-port=2000\r\n"
        "seednode = a.example:1\nseednode = b:2\nconnect = c:3\nno-listen = true\nlog-file = /x#y\n");
  const Invocation got = read({"--rpc-port", "3000", "--connect", "d:4", "--connect", "e:5", "--rebuild"});
  ASSERT_EQ(got.error, "");
  const Options& options = got.options;
  EXPECT_EQ(options.port, 1000);
  EXPECT_EQ(options.rpc_port, 3000);
  EXPECT_EQ(options.max_inbound, 117u);
  EXPECT_EQ(options.seed_nodes, (std::vector<std::string>{"a.example:1", "b:2"}));
  EXPECT_EQ(options.connect, (std::vector<std::string>{"d:4", "e:5"}));
  EXPECT_TRUE(options.no_listen);
  EXPECT_TRUE(options.rebuild);
  EXPECT_EQ(options.log_file, "/x#y");
  EXPECT_FALSE(read({"--no-listen=false"}).options.no_listen);
}

TEST_F(NodeOptions, TakesRelativePathsOfTheFileFromItsDirectory) {
  write("norvel.conf",
        "rpc-user = u\nrpc-password-file = pw\nrpc-tls-cert = ../c\nrpc-tls-key = /k\nlog-file = log/node.log\n");
  const Invocation got = read({});
  ASSERT_EQ(got.error, "");
  EXPECT_EQ(got.options.rpc_password_file, directory_ / "pw");
  EXPECT_EQ(got.options.rpc_tls_cert, directory_ / "../c");
  EXPECT_EQ(got.options.rpc_tls_key, "/k");
  EXPECT_EQ(got.options.log_file, directory_ / "log/node.log");
  EXPECT_EQ(read({"--log-file", "here.log"}).options.log_file, "here.log");

  const Invocation named = read_options({"--config", write("other.conf", "datadir = data\n")});
  EXPECT_EQ(named.options.data_dir, directory_ / "data");
}

TEST_F(NodeOptions, NamesFileAndLineOfABadSetting) {
  const struct {
    const char* text;
    const char* want;
  } rows[] = {
      {"port = 1\nprot = 2\n", "2: unknown key 'prot'"},
      {"\n\nport = 65536", "3: port: '65536' is not a number from 1 to 65535"},
      {"port = 0", "1: port: '0' is not a number from 1 to 65535"},
      {"port = 1x", "1: port: '1x' is not a number from 1 to 65535"},
      {"port = -1", "1: port: '-1' is not a number from 1 to 65535"},
      {"port", "1: expected KEY = VALUE"},
      {"port = # none", "1: expected KEY = VALUE"},
      {"= 5", "1: expected KEY = VALUE"},
      {"port = 1\nport = 1", "2: port stands here twice"},
      {"bind = localhost", "1: bind: 'localhost' is not a dotted IPv4 address"},
      {"connect = :1", "1: connect: ':1' is not HOST:PORT"},
      {"seednode = a:65536", "1: seednode: 'a:65536' is not HOST:PORT"},
      {"rebuild = 1", "1: rebuild: '1' is neither true nor false"},
      {"retarget-interval = 0", "1: retarget-interval: '0' is not a number from 1 to 4294967295"},
      {"datadir = /x", "1: datadir cannot stand in the data directory's own file"},
      {"check = true", "1: unknown key 'check'"},
      {"p\033rt = 1", "1: unknown key 'p?rt'"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    const std::string path = write("norvel.conf", row.text);
    const Invocation got = read({"--port", "5"});
    EXPECT_EQ(got.exit_status, 1);
    EXPECT_EQ(got.error, "norveld: " + path + ":" + row.want);
  }
}

TEST_F(NodeOptions, RefusesWhatCannotStandTogether) {
  const struct {
    std::vector<std::string> arguments;
    bool is_refused;
  } rows[] = {
      {{"--rpc-bind", "0.0.0.0"}, true},
      {{"--rpc-bind", "0.0.0.0", "--rpc-user", "u", "--rpc-password-file", "f"}, false},
      {{"--rpc-bind", "127.9.9.9"}, false},
      {{"--rpc-user", "u"}, true},
      {{"--rpc-password-file", "f"}, true},
      {{"--rpc-user", "u:v", "--rpc-password-file", "f"}, true},
      {{"--rpc-tls-cert", "f"}, true},
      {{"--mining-port", "1", "--mining-bind", "0.0.0.0"}, true},
      {{"--mining-port", "1", "--mining-bind", "127.0.0.2"}, true},
      {{"--mining-port", "1", "--mining-bind", "0.0.0.0", "--rpc-trust", "10.0.0.1"}, false},
      {{"--check", "--rebuild"}, true},
      {{"--config", "/nowhere/at.all"}, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.arguments));
    const Invocation got = read(row.arguments);
    EXPECT_EQ(got.exit_status, row.is_refused ? std::optional(1) : std::nullopt) << got.error;
  }
}

TEST_F(NodeOptions, EndsOnWhatIsNoCommandLine) {
  using Arguments = std::vector<std::string>;
  for (const Arguments& arguments : {Arguments{"--prot", "1"},
                                     {"word"},
                                     {"--port"},
                                     {"--port", "x"},
                                     {"--port", "1", "--port", "2"},
                                     {"--max-mempool", "0"}}) {
    SCOPED_TRACE(testing::PrintToString(arguments));
    const Invocation got = read(arguments);
    EXPECT_GE(got.exit_status.value_or(0), 100);
    EXPECT_EQ(got.output, "");
    EXPECT_NE(got.error, "");
  }
  const Invocation help = read_options({"--help"});
  EXPECT_EQ(help.exit_status, 0);
  EXPECT_NE(help.output.find("--mining-bind ADDR"), std::string::npos);
  EXPECT_EQ(help.output.find("--distribution-interval"), std::string::npos);
  EXPECT_TRUE(read_options({"--version"}).output.starts_with("norveld "));
}

TEST_F(NodeOptions, ReadsOneLineAsThePassword) {
  const std::string path = write("password", "a b:c\r\n");
  chmod(path.c_str(), 0600);
  EXPECT_EQ(read_password(path).text, "a b:c");
  EXPECT_FALSE(read_password(path).readable_by_others);
  chmod(path.c_str(), 0604);
  EXPECT_TRUE(read_password(path).readable_by_others);
  for (const std::string& text : {std::string(), std::string("\n"), std::string("a\nb\n"), std::string(1'001, 'x')}) {
    EXPECT_THROW(read_password(write("password", text)), std::runtime_error);
  }
}

}  // namespace
}  // namespace norvel::node
