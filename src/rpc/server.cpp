#include "rpc/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <exception>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

#include "core/console.h"
#include "core/file_io.h"
#include "core/sync.h"
#include "rpc/client_session.h"
#include "rpc/connection_slots.h"
#include "rpc/http_text.h"

namespace norvel::rpc {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBacklog = 10;
constexpr std::string_view kLocalAddress = "127.0.0.1";

// After a failed accept; at the descriptor limit it would fail again at once.
constexpr std::chrono::milliseconds kAcceptPause{50};

// Failures closer together are one failure, which is told once.
constexpr std::chrono::seconds kSameFailure{10};

// Whether a failed accept only means that one client has gone meanwhile.
bool is_of_one_connection(int error) {
  return error == ECONNABORTED || error == EPROTO || error == EINTR;
}

// Nothing may end the accept loop, not even the memory for the line.
void tell_of_failed_accept() noexcept {
  try {
    console::error_line("[RPC] Failed to accept connection");
  } catch (...) {
    // Then nobody is told.
  }
}

sockaddr* generic(sockaddr_in* address) {
  return reinterpret_cast<sockaddr*>(address);
}

std::string dotted(const sockaddr_in& address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  const bool readable =
      address.sin_family == AF_INET && ::inet_ntop(AF_INET, &address.sin_addr, text.data(), text.size()) != nullptr;
  return readable ? text.data() : std::string(kLocalAddress);
}

std::string peer_address(int socket) {
  sockaddr_in address{};
  socklen_t bytes = sizeof address;
  const bool read = ::getpeername(socket, generic(&address), &bytes) == 0;
  return read ? dotted(address) : std::string(kLocalAddress);
}

bool bind_to(int socket, const std::string& host, uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  const int on = 1;
  ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  return ::inet_pton(AF_INET, host.c_str(), &address.sin_addr) == 1 &&
         ::bind(socket, generic(&address), sizeof address) == 0;
}

uint16_t bound_port(int socket) {
  sockaddr_in address{};
  socklen_t bytes = sizeof address;
  return ::getsockname(socket, generic(&address), &bytes) == 0 ? ntohs(address.sin_port) : uint16_t{0};
}

}  // namespace

struct RpcServer::State {
  State(uint16_t wanted_port, std::string address, const ServerLimits& limits)
      : bind_address(std::move(address)),
        slots(std::make_shared<ConnectionSlots>(limits)),
        session(limits),
        port(wanted_port) {}

  // Returns when `state` does not run any more.
  static void accept_loop(const std::shared_ptr<State>& state);

  // Gives a connection its thread. Throws when there is no memory or no thread;
  // the connection is closed then.
  static void admit(const std::shared_ptr<State>& state, FileDescriptor client, const sockaddr_in& address);

  void serve(ConnectionTicket& ticket, const std::string& client_address) noexcept;

  const std::string bind_address;
  const std::shared_ptr<ConnectionSlots> slots;

  // Set before start().
  SessionContext session;
  NodeComponents components;
  bool trusted_only = false;

  // Written by start(), read by anyone; before it is the port asked for.
  std::atomic<uint16_t> port;

  // Written by start() and stop(); the accept loop looks after each accept, which
  // the shutdown of the socket ends.
  std::atomic<bool> running{false};

  // Written by start() before its thread begins and by stop() after it has ended,
  // read by the accept loop; -1 when there is none.
  std::atomic<int> listening_socket{-1};

  Mutex life_mutex;  // serialises start() and stop(), held until the thread has ended
  FileDescriptor listener GUARDED_BY(life_mutex);
  std::thread thread GUARDED_BY(life_mutex);
};

void RpcServer::State::accept_loop(const std::shared_ptr<State>& state) {
  std::optional<Clock::time_point> last_failure;
  while (state->running) {
    sockaddr_in address{};
    socklen_t bytes = sizeof address;
    FileDescriptor client(::accept4(state->listening_socket, generic(&address), &bytes, SOCK_CLOEXEC));
    const int error = errno;
    if (!state->running) {
      return;
    }
    if (client.is_open()) {
      try {
        admit(state, std::move(client), address);
      } catch (...) {
        // Ends this connection alone.
      }
      continue;
    }
    const Clock::time_point now = Clock::now();
    if (!last_failure || now - *last_failure > kSameFailure) {
      tell_of_failed_accept();
    }
    last_failure = now;
    if (!is_of_one_connection(error)) {
      std::this_thread::sleep_for(kAcceptPause);
    }
  }
}

void RpcServer::State::admit(const std::shared_ptr<State>& state, FileDescriptor client, const sockaddr_in& address) {
  std::string client_address = dotted(address);
  if (state->trusted_only && !state->session.methods.is_trusted(client_address)) {
    return;
  }
  auto ticket = state->slots->admit(std::move(client));
  if (!ticket) {
    return;
  }
  // The ticket ends last: whoever waits for it finds nothing else held by the thread.
  const auto serve_and_let_go = [](ConnectionTicket own, std::shared_ptr<State> server, const std::string& from) {
    server->serve(own, from);
    server.reset();
  };
  std::thread(serve_and_let_go, std::move(*ticket), state, std::move(client_address)).detach();
}

void RpcServer::State::serve(ConnectionTicket& ticket, const std::string& client_address) noexcept {
  try {
    serve_connection(session, ticket, client_address);
  } catch (...) {
    // Ends this connection alone.
  }
}

RpcServer::RpcServer(uint16_t port, std::string bind_address, const ServerLimits& limits) {
  keep_openssl_until_exit();
  state_ = std::make_shared<State>(port, std::move(bind_address), limits);
}

RpcServer::~RpcServer() {
  stop();
}

void RpcServer::set_credentials(const std::string& user, const std::string& password) {
  state_->session.auth = BasicAuth(user, password);
}

void RpcServer::set_tls(const std::string& certificate_file, const std::string& key_file) {
  if (TlsContext context = load_tls_context(certificate_file, key_file)) {
    state_->session.tls = std::move(context);
    console::write_out("[RPC] TLS enabled (cert: " + certificate_file + ")\n");
  }
}

bool RpcServer::has_tls() const {
  return state_->session.tls != nullptr;
}

void RpcServer::set_components(NodeComponents components) {
  state_->components = std::move(components);
}

NodeComponents RpcServer::get_components() const {
  return state_->components;
}

void RpcServer::register_method(const std::string& name, MethodHandler handler, CallWeight weight) {
  state_->session.methods.register_method(name, std::move(handler), weight);
}

void RpcServer::trust_address(const std::string& address) {
  state_->session.methods.trust_address(address);
}

void RpcServer::serve_trusted_only() {
  state_->trusted_only = true;
  state_->session.methods.trust_loopback();
}

bool RpcServer::start() {
  const MutexLock lock(state_->life_mutex);
  if (state_->running) {
    return false;
  }
  FileDescriptor listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!listener.is_open()) {
    console::error_line("[RPC] Failed to create socket");
    return false;
  }
  if (!bind_to(listener.get(), state_->bind_address, state_->port)) {
    console::error_line("[RPC] Failed to bind to " + state_->bind_address + ":" + std::to_string(state_->port));
    return false;
  }
  if (::listen(listener.get(), kBacklog) != 0) {
    console::error_line("[RPC] Failed to listen");
    return false;
  }
  const uint16_t wanted_port = state_->port;
  state_->port = bound_port(listener.get());
  state_->listening_socket = listener.get();
  state_->running = true;
  try {
    state_->thread = std::thread(&State::accept_loop, state_);
  } catch (const std::exception&) {
    state_->running = false;
    state_->listening_socket = -1;
    state_->port = wanted_port;
    console::error_line("[RPC] Failed to start thread");
    return false;
  }
  state_->listener = std::move(listener);
  console::write_out("[RPC] Server started on " + state_->bind_address + ":" + std::to_string(state_->port) + "\n");
  return true;
}

void RpcServer::run() {
  State::accept_loop(state_);
}

void RpcServer::stop() {
  const MutexLock lock(state_->life_mutex);
  if (!state_->running.exchange(false)) {
    return;
  }
  // Wakes the thread. Closed only when it has gone, so that it cannot accept from
  // whatever gets the number next.
  ::shutdown(state_->listener.get(), SHUT_RDWR);
  state_->thread.join();
  state_->listening_socket = -1;
  state_->listener.close();
  console::write_out("[RPC] Server stopped\n");
}

bool RpcServer::wait_for_connections(int64_t timeout_ms) {
  state_->slots->shed_waiting();
  return state_->slots->wait_until_empty(timeout_ms);
}

uint16_t RpcServer::get_port() const {
  return state_->port;
}

bool RpcServer::is_command_allowed(const std::string& method, const std::string& client_address) const {
  return state_->session.methods.is_command_allowed(method, client_address);
}

bool RpcServer::check_auth(const std::string& raw) const {
  return state_->session.auth.accepts(raw);
}

RpcResponse RpcServer::handle_rpc_request(const RpcRequest& request, const std::string& client_address) const {
  return state_->session.methods.handle(request, client_address);
}

void RpcServer::handle_client(int socket) {
  FileDescriptor client(socket);
  const std::string client_address = peer_address(socket);
  if (auto ticket = state_->slots->admit(std::move(client))) {
    state_->serve(*ticket, client_address);
  }
}

std::string RpcServer::parse_http_request(const std::string& raw) {
  const size_t blank_line = raw.find(kBlankLine);
  return blank_line == std::string::npos ? std::string() : raw.substr(blank_line + kBlankLine.size());
}

std::string RpcServer::build_http_response(const std::string& body, int status) {
  return rpc::build_http_response(body, status);
}

}  // namespace norvel::rpc
