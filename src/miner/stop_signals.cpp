#include "miner/stop_signals.h"

#include <poll.h>

#include <cerrno>
#include <chrono>
#include <ctime>

#include "core/console.h"
#include "core/pending_signals.h"
#include "miner/session.h"

namespace norvel::miner::stop_signals {

namespace {

sigset_t g_waiting_mask;  // written by install() alone

sigset_t both_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

void set_action(void (*handler)(int)) {
  struct sigaction action = {};
  action.sa_handler = handler;
  action.sa_mask = both_signals();
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

void handle_stop(int) {
  const int saved_errno = errno;
  console::write_out("\nStopping Norvel Miner...\n");
  g_running = false;
  if (g_miner) {
    g_miner->stop();
  }
  errno = saved_errno;
}

}  // namespace

void install() {
  const sigset_t both = both_signals();
  pthread_sigmask(SIG_BLOCK, &both, &g_waiting_mask);
  sigdelset(&g_waiting_mask, SIGINT);
  sigdelset(&g_waiting_mask, SIGTERM);
  set_action(&handle_stop);
}

const sigset_t& waiting_mask() {
  return g_waiting_mask;
}

void let_in() {
  const timespec at_once = {};
  ppoll(nullptr, 0, &at_once, &g_waiting_mask);
}

void sleep_one_second() {
  using Clock = std::chrono::steady_clock;
  const auto end = Clock::now() + std::chrono::seconds(1);
  for (auto left = end - Clock::now(); left.count() > 0; left = end - Clock::now()) {
    const auto nanoseconds = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    const timespec wait = {nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
    ppoll(nullptr, 0, &wait, &g_waiting_mask);
  }
  if (g_running && is_pending_in_a_thread(both_signals())) {
    raise(SIGTERM);
    let_in();
  }
}

void ignore() {
  set_action(SIG_IGN);
}

}  // namespace norvel::miner::stop_signals
