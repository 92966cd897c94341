// norveld: a node of the Norvel network.

#include <malloc.h>
#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "consensus/retarget.h"
#include "core/console.h"
#include "core/descriptor_limit.h"
#include "node/data_directory.h"
#include "node/directory_check.h"
#include "node/log_file.h"
#include "node/node.h"
#include "node/node_params.h"
#include "node/options.h"
#include "node/stop_request.h"
#include "node/supervisor.h"
#include "rpc/tls_context.h"

namespace norvel::node {

namespace {

constexpr mode_t kPrivateMask = 077;

// Larger pieces go back to the system when they are freed. Left to itself the
// allocator raises the threshold, and each thread's arena keeps the buffers of
// the largest requests that it ever served.
constexpr int kMappedBytesMin = 128 * 1024;

// Above the usual 1,024, which all peers and RPC clients that are allowed would
// exceed; and beside many peers as many as stay free of them.
constexpr uint64_t kDescriptorsWanted = 8'192;
constexpr uint64_t kDescriptorsBesidePeers = 1'000;

// Null without a log file. Throws std::runtime_error when it does not open.
std::shared_ptr<LogFile> open_log(const Options& options) {
  if (options.log_file.empty()) {
    return nullptr;
  }
  auto log = std::make_shared<LogFile>(options.log_file);
  std::string error;
  if (!log->reopen(error)) {
    throw std::runtime_error(error);
  }
  console::set_log_sink([log](std::string_view text) { log->append(text); });
  return log;
}

void reopen_log(const std::shared_ptr<LogFile>& log) {
  std::string error;
  if (log && !log->reopen(error)) {
    console::error_line("[Node] Warning: " + error);
  }
}

// Throws std::runtime_error with a line for the user.
NodeParams prepare_directory(const Options& options) {
  create_data_directory(options.data_dir);
  // Given back at once: the chain takes the same lock for itself.
  const FileDescriptor lock = lock_data_directory(options.data_dir, LockFile::CREATE);
  return settle_params(options.data_dir, options);
}

int check(const Options& options) {
  const auto log = open_log(options);
  StopRequest stop;
  const auto work = [&] { return check_directory(options, stop); };
  // A check that did not come to its end has not found that nothing is wrong.
  return supervise({work, [] {}, [&] { reopen_log(log); }, kExitFailed}, stop);
}

int run(const Options& options) {
  raise_descriptor_limit(std::max(kDescriptorsWanted, options.max_inbound + kDescriptorsBesidePeers));
  const NodeParams params = prepare_directory(options);
  const auto log = open_log(options);
  consensus::set_difficulty_config(params.difficulty());
  StopRequest stop;
  Node node(options, params, stop);
  return supervise({[&] { return node.run(); }, [&] { node.request_stop(); }, [&] { reopen_log(log); }}, stop);
}

}  // namespace

}  // namespace norvel::node

int main(int argc, char** argv) {
  using namespace norvel;
  mallopt(M_MMAP_THRESHOLD, node::kMappedBytesMin);
  // Connection threads may still compute while the process ends.
  rpc::keep_openssl_until_exit();
  console::guard_standard_streams();
  umask(node::kPrivateMask);
  node::block_signals();
  try {
    const auto invocation = node::read_options(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
    console::write_out(invocation.output);
    if (!invocation.error.empty()) {
      console::error_line(invocation.error);
    }
    if (invocation.exit_status) {
      return *invocation.exit_status;
    }
    return invocation.options.check ? node::check(invocation.options) : node::run(invocation.options);
  } catch (const std::exception& failure) {
    console::error_line(std::string("norveld: ") + failure.what());
    return node::kExitFailed;
  }
}
