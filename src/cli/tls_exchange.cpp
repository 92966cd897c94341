#include "cli/tls_exchange.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <stdexcept>

#include "cli/failures.h"
#include "core/file_io.h"

namespace norvel::cli {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t kChunkBytesMax = 8'191;

// What a peer may send for one handshake or one chunk of its reply. OpenSSL skips
// some messages, HelloRequest among them, without returning to its caller; a
// long chain of certificates takes some ten thousand bytes.
constexpr uint64_t kOperationBytesMax = uint64_t{1} << 20;

// Once the time of the whole exchange is seen to be up, bytes that are there
// already are taken for this long.
constexpr milliseconds kLastLooks{1'000};

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
  return reason == nullptr ? "connection lost, or no answer in time" : reason;
}

Context make_context(const TlsPeer& peer) {
  Context context(SSL_CTX_new(TLS_client_method()));
  if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) {
    throw std::runtime_error("TLS cannot be set up: " + openssl_reason());
  }
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  // A peer that sends records without data for ever would hold a read that goes on by itself.
  SSL_CTX_clear_mode(context.get(), SSL_MODE_AUTO_RETRY);
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

// The waits of one exchange for its socket: each ends after the step's time, all
// of them after the whole's. The socket does not block.
//
// Must outlive the session that it guards.
class Waits {
 public:
  Waits(int socket, const rpc::ExchangeTimeouts& timeouts)
      : socket_(socket), step_(timeouts.step_ms), whole_end_(Clock::now() + milliseconds(timeouts.whole_ms)) {}

  Waits(const Waits&) = delete;
  Waits& operator=(const Waits&) = delete;

  // Whether the socket became ready for `events` in time. A peer that keeps it
  // ready does not outlast the whole's time either.
  bool wait(short events) {
    const Clock::time_point end = std::min(whole_end_, Clock::now() + step_);
    while (!are_over()) {
      // Looks once more after a time is up: what came while the process was suspended is not lost.
      const int64_t left = std::chrono::ceil<milliseconds>(end - Clock::now()).count();
      pollfd waiting{socket_, events, 0};
      const int ready = ::poll(&waiting, 1, static_cast<int>(std::clamp<int64_t>(left, 0, kPollMsMax)));
      if (ready > 0) {
        return true;
      }
      if (left <= 0 || (ready < 0 && errno != EINTR)) {
        return false;
      }
    }
    return false;
  }

  bool are_over() {
    const Clock::time_point now = Clock::now();
    if (now >= whole_end_ && !last_looks_end_) {
      last_looks_end_ = now + kLastLooks;
    }
    return last_looks_end_ && now >= *last_looks_end_;
  }

  // Makes the operations of `session` fail, from inside OpenSSL's calls too, once
  // the time is up or one of them has read kOperationBytesMax.
  void guard(SSL* session) {
    BIO* const bio = SSL_get_rbio(session);
    BIO_set_callback_arg(bio, reinterpret_cast<char*>(this));
    BIO_set_callback_ex(bio, &Waits::on_socket_call);
  }

  // Repeats a TLS operation of `session` until it succeeds; false when it fails
  // or the time is up.
  template <typename Operation>
  bool drive(SSL* session, Operation operation) {
    operation_bytes_ = 0;
    for (;;) {
      ERR_clear_error();  // an older error would be taken for this operation's
      const int result = operation();
      if (result > 0) {
        return true;
      }
      const int wish = SSL_get_error(session, result);
      if ((wish != SSL_ERROR_WANT_READ && wish != SSL_ERROR_WANT_WRITE) ||
          !wait(wish == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT)) {
        return false;
      }
    }
  }

 private:
  static constexpr int64_t kPollMsMax = 1'000'000;

  // A BIO_callback_fn_ex: called before (a result of 0 or less refuses) and after.
  static long on_socket_call(BIO* bio, int call, const char*, size_t, int, long, int result, size_t* bytes) {
    Waits& waits = *reinterpret_cast<Waits*>(BIO_get_callback_arg(bio));
    if (call == (BIO_CB_READ | BIO_CB_RETURN) && result > 0) {
      waits.operation_bytes_ += *bytes;
    } else if (call == BIO_CB_READ && (waits.operation_bytes_ >= kOperationBytesMax || waits.are_over())) {
      BIO_clear_retry_flags(bio);  // those of the call before would ask for a retry
      return -1;
    }
    return result;
  }

  const int socket_;
  const milliseconds step_;
  const Clock::time_point whole_end_;
  std::optional<Clock::time_point> last_looks_end_;  // set when the time of the whole was first seen to be up
  uint64_t operation_bytes_ = 0;                     // that the operation under way has read
};

bool connect_to(const FileDescriptor& socket, const TlsPeer& peer, Waits& waits) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(peer.port);
  if (!socket.is_open() || ::inet_pton(AF_INET, peer.address.c_str(), &address.sin_addr) != 1) {
    return false;
  }
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    return true;
  }
  int error = errno;
  if ((error == EINPROGRESS || error == EINTR) && waits.wait(POLLOUT)) {
    socklen_t error_bytes = sizeof error;
    return ::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &error, &error_bytes) == 0 && error == 0;
  }
  return false;
}

void shake_hands(SSL* session, int socket, const TlsPeer& peer, Waits& waits) {
  if (SSL_set_fd(session, socket) == 1) {
    waits.guard(session);
    if (waits.drive(session, [&] { return SSL_connect(session); })) {
      return;
    }
  }
  const long verdict = SSL_get_verify_result(session);
  const std::string reason = openssl_reason();
  throw ConnectionError("No TLS connection to " + place_of(peer) + ": " +
                        (verdict == X509_V_OK ? reason : X509_verify_cert_error_string(verdict)));
}

}  // namespace

rpc::HttpReply send_tls_request(const TlsPeer& peer, const std::string& request,
                                const rpc::ExchangeTimeouts& timeouts) {
  const Context context = make_context(peer);
  const FileDescriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  Waits waits(socket.get(), timeouts);
  if (!connect_to(socket, peer, waits)) {
    throw ConnectionError("Failed to connect to RPC server at " + place_of(peer));
  }
  const Session session = make_session(context.get(), peer);
  shake_hands(session.get(), socket.get(), peer, waits);
  size_t sent = 0;
  const auto write = [&] { return SSL_write_ex(session.get(), request.data(), request.size(), &sent); };
  if (!waits.drive(session.get(), write)) {
    throw ConnectionError("Failed to send request");
  }
  rpc::HttpReply reply;
  std::array<char, kChunkBytesMax> chunk;
  size_t received = 0;
  const auto read = [&] { return SSL_read_ex(session.get(), chunk.data(), chunk.size(), &received); };
  while (waits.drive(session.get(), read) && !reply.append({chunk.data(), received}) && !waits.are_over()) {
  }
  return reply;
}

}  // namespace norvel::cli
