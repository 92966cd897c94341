#include "rpc/http_exchange.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <string>
#include <utility>

#include "rpc/loopback_server.h"

namespace norvel::rpc {
namespace {

using std::chrono::steady_clock;

const std::string kRequest = build_http_request("127.0.0.1", 1, "{}");
const std::string kLarge(32'000'000, 'r');

// Cuts at the question of this number.
ExchangeControl cut_at(int question) {
  return {[asked = 0, question]() mutable { return ++asked >= question; }, nullptr};
}

// The body, or the message of the error.
std::string outcome(uint16_t port, const std::string& request = kRequest, const ExchangeControl& control = {},
                    const ExchangeTimeouts& timeouts = {}) {
  try {
    return std::string(send_http_request("127.0.0.1", port, request, control, timeouts).reply.body());
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
}

// A header block, then one byte every few milliseconds until the peer closes.
void trickle(int fd) {
  send_text(fd, "HTTP/1.1 200 OK\r\n\r\n");
  for (int i = 0; i < kPatienceMs / 2 && !wait_readable(fd, 2); ++i) {
    send_text(fd, "x");
  }
}

TEST(HttpExchange, ClosesTheSocketOnAnException) {
  std::atomic<bool> closed{false};
  LoopbackServer server([&](int fd) {
    send_text(fd, "\r\nContent-Length: many\r\n\r\n");
    closed = wait_readable(fd);
  });
  EXPECT_THROW(outcome(server.port()), std::invalid_argument);
  server.stop();
  EXPECT_TRUE(closed);
}

TEST(HttpExchange, SendsOnAfterAShortSend) {
  const std::string request = build_http_request("127.0.0.1", 1, kLarge);
  LoopbackServer server("\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(outcome(server.port(), request), "");
  EXPECT_EQ(server.stop(), std::vector{request});
}

TEST(HttpExchange, StepThatFailsOrTakesTooLongIsAnErrorUntilTheReplyBegins) {
  const std::string no_connection = "Failed to connect to RPC server at 127.0.0.1:";
  const uint16_t closed = Listener().port();
  EXPECT_EQ(outcome(closed), no_connection + std::to_string(closed));
  const Listener full;
  for (int i = 0; i < 20; ++i) {  // more than its queue holds
    EXPECT_EQ(outcome(full.port(), kRequest, cut_at(3)), "");
  }
  EXPECT_EQ(outcome(full.port(), kRequest, {}, {.step_ms = 120}), no_connection + std::to_string(full.port()));
  const Listener never_accepts;
  EXPECT_EQ(outcome(never_accepts.port(), kLarge, {}, {.step_ms = 120}), "Failed to send request");
  LoopbackServer silent([](int fd) {
    send_text(fd, "\r\n\r\npart");
    wait_readable(fd);
  });
  const HttpExchange timed_out = send_http_request("127.0.0.1", silent.port(), kRequest, {}, {.step_ms = 120});
  EXPECT_EQ(timed_out.reply.body(), "part");
  EXPECT_FALSE(timed_out.was_cut);
}

TEST(HttpExchange, CutOrTimeOfTheWholeGivesWhatHasArrived) {
  const auto start = steady_clock::now();
  EXPECT_EQ(outcome(Listener().port(), kRequest, cut_at(1)), "");
  const Listener never_accepts;
  EXPECT_EQ(outcome(never_accepts.port(), kLarge, cut_at(12)), "");
  EXPECT_EQ(outcome(never_accepts.port(), kLarge, {}, {.whole_ms = 120}), "");
  LoopbackServer slow(trickle);
  const std::pair<ExchangeControl, ExchangeTimeouts> ways_to_end[] = {{cut_at(40), {}}, {{}, {.whole_ms = 500}}};
  for (const auto& [control, timeouts] : ways_to_end) {
    const HttpExchange exchange = send_http_request("127.0.0.1", slow.port(), kRequest, control, timeouts);
    EXPECT_GT(exchange.reply.body().size(), 5u);
    EXPECT_EQ(exchange.reply.body(), std::string(exchange.reply.body().size(), 'x'));
    EXPECT_TRUE(exchange.was_cut);
  }
  // Far below the 30 and 120 seconds of the defaults, far above any scheduling delay.
  EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
}

std::atomic<int> g_signals{0};

// As in a program that handles signals only where it waits.
TEST(HttpExchange, BlockedSignalsAreHandledBeforeTheFirstStepAndInEachWait) {
  struct sigaction counting {};
  counting.sa_handler = [](int) { ++g_signals; };
  ::sigaction(SIGUSR1, &counting, nullptr);
  sigset_t blocked;
  sigset_t outside;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &outside);
  const auto cut_after = [&](int signals) {
    return ExchangeControl{[signals] { return g_signals >= signals; }, &outside};
  };

  const Listener listener;
  ::raise(SIGUSR1);
  EXPECT_EQ(g_signals, 0);
  EXPECT_EQ(outcome(listener.port(), kRequest, cut_after(1)), "");
  EXPECT_EQ(g_signals, 1);
  EXPECT_FALSE(wait_readable(listener.fd(), 0));  // nobody has connected

  LoopbackServer server([thread = ::pthread_self()](int fd) {
    for (int handled = g_signals; handled < 4; handled = g_signals) {
      ::pthread_kill(thread, SIGUSR1);
      while (g_signals == handled) {
        std::this_thread::yield();
      }
    }
    send_text(fd, "\r\n\r\nok");
  });
  EXPECT_EQ(outcome(server.port(), kRequest, cut_after(100)), "ok");
  ::pthread_sigmask(SIG_SETMASK, &outside, nullptr);
}

}  // namespace
}  // namespace norvel::rpc
