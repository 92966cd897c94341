#include "cli/tls_exchange.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <stdexcept>

#include "cli/failures.h"
#include "core/file_io.h"

namespace norvel::cli {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kChunkBytesMax = 8'191;

template <auto kFree>
struct Freer {
  template <class T>
  void operator()(T* object) const {
    kFree(object);
  }
};
using Context = std::unique_ptr<SSL_CTX, Freer<&SSL_CTX_free>>;
using Session = std::unique_ptr<SSL, Freer<&SSL_free>>;

std::string place_of(const TlsPeer& peer) {
  return peer.address + ":" + std::to_string(peer.port);
}

// The last reason that OpenSSL noted on this thread.
std::string openssl_reason() {
  const unsigned long code = ERR_peek_last_error();
  const char* reason = code == 0 ? nullptr : ERR_reason_error_string(code);
  ERR_clear_error();
  return reason == nullptr ? "connection lost" : reason;
}

Context make_context(const TlsPeer& peer) {
  Context context(SSL_CTX_new(TLS_client_method()));
  if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) {
    throw std::runtime_error("TLS cannot be set up: " + openssl_reason());
  }
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  if (peer.ca_file.empty()) {
    SSL_CTX_set_default_verify_paths(context.get());
    return context;
  }
  if (SSL_CTX_load_verify_file(context.get(), peer.ca_file.c_str()) != 1) {
    throw UsageError(peer.ca_file + ": no certificates to trust: " + openssl_reason());
  }
  // A node's own certificate may stand in the file without whoever issued it.
  X509_VERIFY_PARAM_set_flags(SSL_CTX_get0_param(context.get()), X509_V_FLAG_PARTIAL_CHAIN);
  return context;
}

bool is_ipv4(const std::string& text) {
  in_addr address{};
  return ::inet_pton(AF_INET, text.c_str(), &address) == 1;
}

Session make_session(SSL_CTX* context, const TlsPeer& peer) {
  Session session(SSL_new(context));
  if (!session) {
    throw std::runtime_error("TLS cannot be set up: " + openssl_reason());
  }
  X509_VERIFY_PARAM* const expected = SSL_get0_param(session.get());
  const bool by_address = is_ipv4(peer.name);
  const bool set = by_address ? X509_VERIFY_PARAM_set1_ip_asc(expected, peer.name.c_str()) == 1
                              : SSL_set1_host(session.get(), peer.name.c_str()) == 1 &&
                                    SSL_set_tlsext_host_name(session.get(), peer.name.c_str()) == 1;
  if (!set) {
    throw UsageError("No host name that a certificate can be checked for: " + peer.name);
  }
  return session;
}

// A connected blocking socket whose every wait ends after the step's time.
FileDescriptor connect_to(const TlsPeer& peer, const rpc::ExchangeTimeouts& timeouts) {
  FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const timeval step{timeouts.step_ms / 1'000, (timeouts.step_ms % 1'000) * 1'000};
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(peer.port);
  const bool connected = socket.is_open() && ::inet_pton(AF_INET, peer.address.c_str(), &address.sin_addr) == 1 &&
                         ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &step, sizeof step) == 0 &&
                         ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &step, sizeof step) == 0 &&
                         ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  if (!connected) {
    throw ConnectionError("Failed to connect to RPC server at " + place_of(peer));
  }
  return socket;
}

void shake_hands(SSL* session, int socket, const TlsPeer& peer) {
  if (SSL_set_fd(session, socket) == 1 && SSL_connect(session) == 1) {
    return;
  }
  const long verdict = SSL_get_verify_result(session);
  const std::string reason = openssl_reason();
  throw ConnectionError("No TLS connection to " + place_of(peer) + ": " +
                        (verdict == X509_V_OK ? reason : X509_verify_cert_error_string(verdict)));
}

}  // namespace

rpc::HttpReply send_tls_request(const TlsPeer& peer, const std::string& request,
                                const rpc::ExchangeTimeouts& timeouts) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeouts.whole_ms);
  const Context context = make_context(peer);
  const FileDescriptor socket = connect_to(peer, timeouts);
  const Session session = make_session(context.get(), peer);
  shake_hands(session.get(), socket.get(), peer);
  size_t sent = 0;
  if (SSL_write_ex(session.get(), request.data(), request.size(), &sent) != 1) {
    throw ConnectionError("Failed to send request");
  }
  rpc::HttpReply reply;
  std::array<char, kChunkBytesMax> chunk;
  for (size_t received = 0; SSL_read_ex(session.get(), chunk.data(), chunk.size(), &received) == 1;) {
    if (reply.append({chunk.data(), received}) || Clock::now() >= deadline) {
      break;
    }
  }
  return reply;
}

}  // namespace norvel::cli
