#include "rpc/http_exchange.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <list>
#include <stdexcept>
#include <string>
#include <string_view>

#include "rpc/loopback_server.h"

namespace norvel::rpc {
namespace {

using std::chrono::steady_clock;

const std::string kRequest = build_http_request("127.0.0.1", 1, "{}");

// Far below the 30 and 120 seconds of the defaults, far above any scheduling delay.
constexpr std::chrono::seconds kSoon{5};

// Cuts at the question of this number.
ExchangeControl cut_at(int question) {
  return {[asked = 0, question]() mutable { return ++asked >= question; }, nullptr};
}

std::string message_of(const std::string& host, uint16_t port, const std::string& request = kRequest,
                       const ExchangeTimeouts& timeouts = {}) {
  try {
    send_http_request(host, port, request, {}, timeouts);
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
  return "no error";
}

// A header block, then one byte every few milliseconds until the peer closes.
void trickle(int fd) {
  send_text(fd, "HTTP/1.1 200 OK\r\n\r\n");
  for (int i = 0; i < kPatienceMs / 2 && !peer_closes(fd, 2); ++i) {
    send_text(fd, "x");
  }
}

// A port whose queue of waiting connections is full, so that a further one
// neither succeeds nor fails.
class FullPort {
 public:
  FullPort() {
    sockaddr_in address = loopback(listener_.port());
    for (int i = 0; i < 4; ++i) {
      connecting_.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      ::connect(connecting_.back().get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    }
  }

  uint16_t port() const { return listener_.port(); }

 private:
  const Listener listener_{0};
  std::list<Fd> connecting_;
};

uint16_t closed_port() {
  return Listener(1).port();
}

TEST(HttpExchange, EndsWithTheDeclaredLengthBeforeThePeerCloses) {
  std::atomic<bool> closed{false};
  LoopbackServer server([&closed](int fd) {
    send_text(fd, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
    closed = peer_closes(fd);
  });
  EXPECT_EQ(send_http_request("127.0.0.1", server.port(), kRequest).reply.body(), "hello");
  EXPECT_EQ(server.stop(), std::vector{kRequest});
  EXPECT_TRUE(closed);
}

TEST(HttpExchange, ClosesTheSocketWhenTheLengthIsNoNumber) {
  std::atomic<bool> closed{false};
  LoopbackServer server([&closed](int fd) {
    send_text(fd, "HTTP/1.1 200 OK\r\nContent-Length: many\r\n\r\nhello");
    closed = peer_closes(fd);
  });
  EXPECT_THROW(send_http_request("127.0.0.1", server.port(), kRequest), std::invalid_argument);
  server.stop();
  EXPECT_TRUE(closed);
}

TEST(HttpExchange, SendsOnAfterAShortSend) {
  const std::string request = build_http_request("127.0.0.1", 1, std::string(8'000'000, 'r'));
  LoopbackServer server("\r\nContent-Length: 0\r\n\r\n");
  send_http_request("127.0.0.1", server.port(), request);
  EXPECT_EQ(server.stop(), std::vector{request});
}

TEST(HttpExchange, TakesNumericHostsOnly) {
  LoopbackServer server("\r\n\r\nok");
  for (const std::string host : {"127.0.0.1", "127.1", "2130706433", "0x7f.0.0.1"}) {
    EXPECT_EQ(send_http_request(host, server.port(), kRequest).reply.body(), "ok") << host;
  }
  for (const std::string host : {"localhost", "", "::1", "256.0.0.1", "127.0.0.1.1"}) {
    EXPECT_EQ(message_of(host, server.port()),
              "Failed to connect to RPC server at " + host + ":" + std::to_string(server.port()));
  }
}

TEST(HttpExchange, RefusedAndUnansweredConnectionsAreTheSameError) {
  const uint16_t closed = closed_port();
  EXPECT_EQ(message_of("127.0.0.1", closed), "Failed to connect to RPC server at 127.0.0.1:" + std::to_string(closed));
  const FullPort full;
  EXPECT_EQ(message_of("127.0.0.1", full.port(), kRequest, {.step_ms = 120}),
            "Failed to connect to RPC server at 127.0.0.1:" + std::to_string(full.port()));
}

TEST(HttpExchange, RequestThatNobodyReadsFails) {
  const Listener never_accepts(4);
  EXPECT_EQ(message_of("127.0.0.1", never_accepts.port(), std::string(32'000'000, 'r'), {.step_ms = 120}),
            "Failed to send request");
}

TEST(HttpExchange, TimeOfTheWholeEndsTheConnectingWithoutAnError) {
  const FullPort full;
  EXPECT_EQ(send_http_request("127.0.0.1", full.port(), kRequest, {}, {.whole_ms = 120}).reply.body(), "");
}

TEST(HttpExchange, TimeEndsTheReadingWithoutAnError) {
  LoopbackServer silent([](int fd) {
    send_text(fd, "\r\n\r\npart");
    peer_closes(fd);
  });
  const HttpExchange timed_out = send_http_request("127.0.0.1", silent.port(), kRequest, {}, {.step_ms = 120});
  EXPECT_EQ(timed_out.reply.body(), "part");
  EXPECT_FALSE(timed_out.was_cut);

  LoopbackServer slow(trickle);
  const HttpExchange exchange = send_http_request("127.0.0.1", slow.port(), kRequest, {}, {.whole_ms = 200});
  EXPECT_EQ(exchange.reply.body(), std::string(exchange.reply.body().size(), 'x'));
  EXPECT_GT(exchange.reply.body().size(), 0u);
  EXPECT_TRUE(exchange.was_cut);
}

TEST(HttpExchange, CutWhileConnectingOrSendingGivesNothing) {
  const auto start = steady_clock::now();
  const FullPort full;
  EXPECT_EQ(send_http_request("127.0.0.1", full.port(), kRequest, cut_at(4)).reply.body(), "");
  const Listener never_accepts(4);
  const std::string large(32'000'000, 'r');
  EXPECT_EQ(send_http_request("127.0.0.1", never_accepts.port(), large, cut_at(12)).reply.body(), "");
  EXPECT_EQ(send_http_request("127.0.0.1", closed_port(), kRequest, cut_at(1)).reply.body(), "");
  EXPECT_LT(steady_clock::now() - start, kSoon);
}

TEST(HttpExchange, CutWhileReadingGivesWhatHasArrived) {
  const auto start = steady_clock::now();
  LoopbackServer silent([](int fd) { peer_closes(fd); });
  EXPECT_EQ(send_http_request("127.0.0.1", silent.port(), kRequest, cut_at(6)).reply.body(), "");

  LoopbackServer slow(trickle);
  const HttpExchange exchange = send_http_request("127.0.0.1", slow.port(), kRequest, cut_at(40));
  EXPECT_GT(exchange.reply.body().size(), 5u);
  EXPECT_LE(exchange.reply.body().size(), 40u);
  EXPECT_TRUE(exchange.was_cut);
  EXPECT_LT(steady_clock::now() - start, kSoon);
}

std::atomic<int> g_signals{0};
static_assert(std::atomic<int>::is_always_lock_free, "written by a signal handler");

// Blocks SIGUSR1 in this thread, as a program does that handles signals only
// where it waits.
class HttpExchangeSignals : public testing::Test {
 protected:
  void SetUp() override {
    g_signals = 0;
    struct sigaction counting {};
    counting.sa_handler = [](int) { ++g_signals; };
    ::sigaction(SIGUSR1, &counting, nullptr);
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR1);
    ::pthread_sigmask(SIG_BLOCK, &blocked, &outside_);
  }

  void TearDown() override { ::pthread_sigmask(SIG_SETMASK, &outside_, nullptr); }

  ExchangeControl cut_after(int signals) const {
    return {[signals] { return g_signals >= signals; }, &outside_};
  }

  sigset_t outside_{};
  const pthread_t thread_ = ::pthread_self();
};

TEST_F(HttpExchangeSignals, PendingOneIsHandledBeforeTheFirstStep) {
  const Listener listener(4);
  ::pthread_kill(thread_, SIGUSR1);
  EXPECT_EQ(g_signals, 0);
  EXPECT_EQ(send_http_request("127.0.0.1", listener.port(), kRequest, cut_after(1)).reply.body(), "");
  EXPECT_EQ(g_signals, 1);
  EXPECT_FALSE(wait_readable(listener.fd(), 0));  // nobody has connected
}

TEST_F(HttpExchangeSignals, OneThatIsNoReasonToCutOnlyInterruptsTheWait) {
  LoopbackServer server([this](int fd) {
    for (int i = 0; i < 3; ++i) {
      ::pthread_kill(thread_, SIGUSR1);
      while (g_signals <= i) {
        std::this_thread::yield();
      }
    }
    send_text(fd, "\r\n\r\nok");
  });
  EXPECT_EQ(send_http_request("127.0.0.1", server.port(), kRequest, cut_after(100)).reply.body(), "ok");
  EXPECT_EQ(g_signals, 3);
}

TEST_F(HttpExchangeSignals, OneThatIsAReasonToCutEndsTheWait) {
  LoopbackServer server([this](int fd) {
    send_text(fd, "\r\n\r\npart");
    ::pthread_kill(thread_, SIGUSR1);
    peer_closes(fd);
  });
  const auto start = steady_clock::now();
  const HttpExchange exchange = send_http_request("127.0.0.1", server.port(), kRequest, cut_after(1));
  const std::string_view body = exchange.reply.body();
  EXPECT_TRUE(body == "part" || body.empty());  // the signal may overtake the text
  EXPECT_TRUE(exchange.was_cut);
  EXPECT_LT(steady_clock::now() - start, kSoon);
}

}  // namespace
}  // namespace norvel::rpc
