// What a TLS peer that stalls can cost: every stage of an exchange ends in time.

#include "cli/tls_exchange.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <optional>
#include <thread>
#include <vector>

#include "cli/failures.h"
#include "core/file_io.h"
#include "rpc/loopback_server.h"
#include "rpc/raw_client.h"

namespace norvel::cli {
namespace {

using Clock = std::chrono::steady_clock;

constexpr rpc::ExchangeTimeouts kShort{.step_ms = 200, .whole_ms = 600};
constexpr std::chrono::seconds kBound{5};  // of what takes 0.6 s at most

const std::string kCertificate = NORVEL_TEST_CERTIFICATES "/own.pem";
const std::string kKey = NORVEL_TEST_CERTIFICATES "/own.key.pem";

// The body of the reply; nothing after a ConnectionError. In time, whatever the peer does.
std::optional<std::string> ask(uint16_t port, size_t request_bytes = 10) {
  std::signal(SIGPIPE, SIG_IGN);  // as the program does
  const auto start = Clock::now();
  std::optional<std::string> body;
  try {
    body = send_tls_request({"127.0.0.1", port, "127.0.0.1", kCertificate}, std::string(request_bytes, 'x'), kShort)
               .body();
  } catch (const ConnectionError&) {
  }
  EXPECT_LT(Clock::now() - start, kBound);
  return body;
}

void pause_shortly() {
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

// Returns when the client has hung up.
void wait_for_end(int fd) {
  std::array<char, 4'096> dropped;
  while (rpc::wait_readable(fd) && ::recv(fd, dropped.data(), dropped.size(), 0) > 0) {
  }
}

// Accepts one connection and does what `serve` says with its TLS session, which is null without TLS.
class TlsPeerThread {
 public:
  using Serve = std::function<void(SSL*, int fd)>;

  TlsPeerThread(bool shakes_hands, Serve serve)
      : thread_([this, shakes_hands, serve = std::move(serve)] {
          const int fd = rpc::wait_readable(listener_.fd()) ? ::accept(listener_.fd(), nullptr, nullptr) : -1;
          SSL_CTX* const context = SSL_CTX_new(TLS_server_method());
          SSL_CTX_use_certificate_chain_file(context, kCertificate.c_str());
          SSL_CTX_use_PrivateKey_file(context, kKey.c_str(), SSL_FILETYPE_PEM);
          SSL* const session = shakes_hands ? SSL_new(context) : nullptr;
          if (session == nullptr || (SSL_set_fd(session, fd) == 1 && SSL_accept(session) == 1)) {
            serve(session, fd);
          }
          SSL_free(session);
          SSL_CTX_free(context);
          ::close(fd);
        }) {}
  ~TlsPeerThread() { thread_.join(); }

  uint16_t port() const { return listener_.port(); }

 private:
  const rpc::Listener listener_;
  std::thread thread_;
};

TEST(TlsExchange, PeerThatDoesNotShakeHandsIsLeft) {
  const TlsPeerThread silent(false, [](SSL*, int fd) { wait_for_end(fd); });
  EXPECT_EQ(ask(silent.port()), std::nullopt);
  // The header of a handshake record of 16,384 bytes, then one byte each time.
  const TlsPeerThread slow(false, [](SSL*, int fd) {
    rpc::send_text(fd, {"\x16\x03\x03\x40\x00", 5});
    while (::send(fd, "\2", 1, MSG_NOSIGNAL) == 1) {
      pause_shortly();
    }
  });
  EXPECT_EQ(ask(slow.port()), std::nullopt);
}

TEST(TlsExchange, PeerThatFloodsItsHandshakeIsLeft) {
  // HelloRequest messages, four zero bytes each, are skipped as long as there are more (RFC 5246, section 7.4.1.1).
  std::string records;
  for (int i = 0; i < 16; ++i) {
    records += std::string("\x16\x03\x03\x40\x00", 5) + std::string(16'384, '\0');
  }
  constexpr size_t kMoreThanIsReadAndSocketsHold = 32'000'000;
  std::atomic<size_t> sent{0};
  const TlsPeerThread flood(false, [&](SSL*, int fd) {
    const auto end = Clock::now() + 2 * kBound;
    while (Clock::now() < end && ::send(fd, records.data(), records.size(), MSG_NOSIGNAL) > 0) {
      sent += records.size();
    }
  });
  EXPECT_EQ(ask(flood.port()), std::nullopt);
  EXPECT_LT(sent, kMoreThanIsReadAndSocketsHold);
}

// The step and the whole exchange run out while the client is stopped in its tracks, as by Ctrl-Z.
TEST(TlsExchange, ReplyThatCameWhileTheClientWasSuspendedIsRead) {
  static std::atomic<bool> is_suspended;
  is_suspended = false;
  std::signal(SIGUSR1, [](int) {
    is_suspended = true;
    const timespec longer_than_whole{.tv_sec = 0, .tv_nsec = 800'000'000};
    ::nanosleep(&longer_than_whole, nullptr);
  });
  const pthread_t client = ::pthread_self();
  const TlsPeerThread peer(true, [client](SSL* session, int) {
    std::array<char, 100> request;
    SSL_read(session, request.data(), request.size());
    ::pthread_kill(client, SIGUSR1);
    while (!is_suspended) {
      std::this_thread::yield();
    }
    SSL_write(session, "HTTP/1.1 200 OK\r\n\r\nlate", 23);
  });
  EXPECT_EQ(ask(peer.port()), "late");
  std::signal(SIGUSR1, SIG_DFL);
}

TEST(TlsExchange, PeerThatHardlyReadsIsLeft) {
  constexpr size_t kMoreThanSocketsHold = 64'000'000;
  for (const bool reads_a_little : {false, true}) {
    SCOPED_TRACE(reads_a_little);
    std::atomic<bool> is_done{false};
    const TlsPeerThread slow(true, [&](SSL* session, int) {
      std::array<char, 16'384> dropped;
      while (!is_done && (!reads_a_little || SSL_read(session, dropped.data(), dropped.size()) > 0)) {
        pause_shortly();
      }
    });
    EXPECT_EQ(ask(slow.port(), kMoreThanSocketsHold), std::nullopt);
    is_done = true;
  }
}

TEST(TlsExchange, ReplyThatNeverEndsIsCutWhereItStands) {
  std::atomic<bool> is_done{false};
  const TlsPeerThread endless(true, [&](SSL* session, int) {
    SSL_write(session, "HTTP/1.1 200 OK\r\n\r\n", 19);
    while (!is_done && SSL_write(session, "z", 1) == 1) {
      pause_shortly();
    }
  });
  const auto body = ask(endless.port());
  is_done = true;
  EXPECT_TRUE(body && body->starts_with("zz"));
}

TEST(TlsExchange, AddressThatTakesNoConnectionIsLeft) {
  const rpc::Listener full;
  ::listen(full.fd(), 0);
  const sockaddr_in address = rpc::loopback_address("127.0.0.1", full.port());
  std::vector<FileDescriptor> waiting;  // more than the queue holds, so that the next gets no answer
  for (int i = 0; i < 4; ++i) {
    waiting.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    ::connect(waiting.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
  EXPECT_EQ(ask(full.port()), std::nullopt);
}

}  // namespace
}  // namespace norvel::cli
