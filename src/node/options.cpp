#include "node/options.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <map>
#include <stdexcept>

#include "core/home_directory.h"
#include "core/settings_file.h"
#include "node/option_table.h"

namespace norvel::node {

namespace {

constexpr char kLoopbackPrefix[] = "127.";
constexpr char kMiningBindDefault[] = "127.0.0.1";
constexpr char kNoDirectory[] = "no home directory is known; give --datadir";
constexpr char kConfigName[] = "norvel.conf";

using ValuesByName = std::map<std::string, std::vector<std::string>>;

// What only the command line knows, beside the values of the table.
struct CommandLine {
  ValuesByName values;
  std::string config_file;  // empty: not given
  bool check = false;
};

std::string without_trailing_slashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

struct Flag {
  bool value = false;
  const CLI::Option* option = nullptr;  // knows whether it was given
};

void describe(CLI::App& app, CommandLine& line, std::map<std::string, Flag>& flags) {
  app.set_version_flag("--version", std::string("norveld ") + NORVEL_VERSION);
  app.add_option("--config", line.config_file, "Config file [norvel.conf in the data directory]")->type_name("FILE");
  app.add_flag("--check", line.check, "Verify files, index and snapshot without changing anything, then exit");
  for (const OptionRow& row : option_table()) {
    const std::string name = "--" + row.name;
    if (row.kind == OptionKind::FLAG) {
      Flag& flag = flags[row.name];
      flag.option = app.add_flag(name, flag.value, row.help);
      continue;
    }
    CLI::Option* option = app.add_option(name, line.values[row.name], row.help)->type_name(row.value_name);
    option->check(row.check, "");
    if (row.kind == OptionKind::LIST) {
      option->allow_extra_args(false);  // one value each time
    } else {
      option->expected(1);
    }
  }
}

// What --help prints. CLI11 hides an option, from its own complaints too, by taking its group away.
std::string help_text(CLI::App& app) {
  for (const OptionRow& row : option_table()) {
    if (row.help.empty()) {
      app.get_option("--" + row.name)->group("");
    }
  }
  return app.help();
}

// Throws CLI::Error; also for --help and --version.
CommandLine parse_command_line(CLI::App& app, std::vector<std::string> arguments) {
  CommandLine line;
  std::map<std::string, Flag> flags;
  describe(app, line, flags);
  std::reverse(arguments.begin(), arguments.end());  // as CLI11 takes them
  app.parse(std::move(arguments));
  for (const auto& [name, flag] : flags) {
    if (flag.option->count() > 0) {
      line.values[name] = {flag.value ? "true" : "false"};
    }
  }
  std::erase_if(line.values, [](const auto& entry) { return entry.second.empty(); });
  return line;
}

// Throws as read_settings(). Relative paths are taken from where the file is, so
// that they mean the same to whoever reads it.
ValuesByName read_config(const std::string& path, bool is_named) {
  const auto settings = read_settings(path);
  if (!settings && is_named) {
    throw std::runtime_error(path + ": No such file");
  }
  const std::filesystem::path directory = std::filesystem::path(path).parent_path();
  ValuesByName values;
  for (const Setting& setting : settings.value_or(std::vector<Setting>())) {
    const OptionRow* row = find_option(setting.key);
    if (row == nullptr) {
      refuse_setting(path, setting, "unknown key '" + setting.key + "'");
    }
    if (const std::string problem = row->check(setting.value); !problem.empty()) {
      refuse_setting(path, setting, setting.key + ": " + problem);
    }
    if (row->kind != OptionKind::LIST && values.contains(setting.key)) {
      refuse_setting(path, setting, setting.key + " stands here twice");
    }
    if (setting.key == "datadir" && !is_named) {
      refuse_setting(path, setting, "datadir cannot stand in the data directory's own file");
    }
    values[setting.key].push_back(row->is_path ? (directory / setting.value).string() : setting.value);
  }
  return values;
}

void store(Options& options, const ValuesByName& values) {
  for (const auto& [name, given] : values) {
    find_option(name)->store(options, given);
  }
}

// What is wrong with the options taken together; empty when nothing is.
std::string find_contradiction(const Options& options) {
  if (options.data_dir.empty()) {
    return kNoDirectory;
  }
  if (options.rpc_user.empty() != options.rpc_password_file.empty()) {
    return "--rpc-user and --rpc-password-file belong together";
  }
  if (options.rpc_user.find(':') != std::string::npos) {
    return "--rpc-user: a user name has no ':'";
  }
  if (options.rpc_tls_cert.empty() != options.rpc_tls_key.empty()) {
    return "--rpc-tls-cert and --rpc-tls-key belong together";
  }
  if (!options.rpc_bind.starts_with(kLoopbackPrefix) && options.rpc_user.empty()) {
    return "--rpc-bind " + options.rpc_bind + " needs --rpc-user and --rpc-password-file";
  }
  if (options.mining_bind != kMiningBindDefault && options.rpc_trust.empty()) {
    return "--mining-bind " + options.mining_bind + " needs --rpc-trust: who may mine from other machines";
  }
  if (options.check && options.rebuild) {
    return "--check changes nothing and --rebuild does: give one of them";
  }
  return "";
}

// Throws std::runtime_error with a line for the user.
Options resolve(const CommandLine& line) {
  Options options;
  options.data_dir = default_data_directory();
  store(options, line.values);
  const bool is_named = !line.config_file.empty();
  if (options.data_dir.empty() && !is_named) {
    throw std::runtime_error(kNoDirectory);
  }
  const ValuesByName config = read_config(is_named ? line.config_file : options.data_dir + "/" + kConfigName, is_named);
  store(options, config);
  store(options, line.values);
  options.data_dir = without_trailing_slashes(options.data_dir);
  options.check = line.check;
  if (const std::string contradiction = find_contradiction(options); !contradiction.empty()) {
    throw std::runtime_error(contradiction);
  }
  return options;
}

}  // namespace

Invocation read_options(const std::vector<std::string>& arguments) {
  Invocation invocation;
  CLI::App app("A node of the Norvel network.", "norveld");
  CommandLine line;
  try {
    line = parse_command_line(app, arguments);
  } catch (const CLI::CallForHelp&) {
    invocation.exit_status = 0;
    invocation.output = help_text(app);
    return invocation;
  } catch (const CLI::CallForVersion& call) {
    invocation.exit_status = 0;
    invocation.output = std::string(call.what()) + "\n";
    return invocation;
  } catch (const CLI::ParseError& failure) {
    invocation.exit_status = failure.get_exit_code();
    invocation.error = std::string("norveld: ") + failure.what() + "\nTry norveld --help";
    return invocation;
  }
  try {
    invocation.options = resolve(line);
  } catch (const std::runtime_error& failure) {
    invocation.exit_status = 1;
    invocation.error = std::string("norveld: ") + failure.what();
  }
  return invocation;
}

}  // namespace norvel::node
