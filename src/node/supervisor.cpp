#include "node/supervisor.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <exception>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "core/console.h"
#include "core/pending_signals.h"

namespace norvel::node {

namespace {

using Clock = std::chrono::steady_clock;

// Between looks for signals that other threads keep to themselves.
constexpr int kLookPeriodMs = 1'000;

sigset_t set_of(std::initializer_list<int> signals) {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : signals) {
    sigaddset(&set, signal);
  }
  return set;
}

sigset_t watched_signals() {
  return set_of({SIGINT, SIGTERM, SIGHUP});
}

// Calls what may fail for lack of memory; the wait for the work goes on.
void call_quietly(const std::function<void()>& function) noexcept {
  try {
    function();
  } catch (...) {
  }
}

// Signals that have come since the last call.
void read_signals(int fd, const Supervised& supervised, StopRequest& stop) {
  signalfd_siginfo info = {};
  while (read(fd, &info, sizeof(info)) == static_cast<ssize_t>(sizeof(info))) {
    if (info.ssi_signo == SIGHUP) {
      call_quietly(supervised.on_hangup);
    } else {
      stop.request(supervised.signalled_status);
    }
  }
}

int run_work(const Supervised& supervised) {
  try {
    return supervised.work();
  } catch (const std::exception& failure) {
    call_quietly([&] { console::error_line(std::string("[Node] ") + failure.what()); });
    return 1;
  }
}

int time_left_ms(const std::optional<Clock::time_point>& deadline) {
  if (!deadline) {
    return kLookPeriodMs;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
  return static_cast<int>(std::max<int64_t>(left, 0));
}

}  // namespace

void block_signals() {
  const sigset_t watched = watched_signals();
  pthread_sigmask(SIG_BLOCK, &watched, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

int supervise(const Supervised& supervised, StopRequest& stop, int64_t deadline_ms) {
  const sigset_t watched = watched_signals();
  const FileDescriptor signals(signalfd(-1, &watched, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signals.is_open()) {
    throw std::runtime_error("no descriptor is left for signals");
  }
  StopRequest finished;
  std::thread worker([&] { finished.request(run_work(supervised)); });
  std::optional<Clock::time_point> deadline;
  Clock::time_point next_look = Clock::now() + std::chrono::milliseconds(kLookPeriodMs);
  while (!finished.is_requested()) {
    // A descriptor below zero is left out.
    pollfd waiting[] = {{finished.fd(), POLLIN, 0}, {signals.get(), POLLIN, 0}, {deadline ? -1 : stop.fd(), POLLIN, 0}};
    poll(waiting, std::size(waiting), time_left_ms(deadline));
    read_signals(signals.get(), supervised, stop);
    if (!deadline && Clock::now() >= next_look) {
      next_look = Clock::now() + std::chrono::milliseconds(kLookPeriodMs);
      call_quietly([&] {
        if (is_pending_in_a_thread(set_of({SIGINT, SIGTERM}))) {
          stop.request(supervised.signalled_status);
        }
      });
    }
    if (stop.is_requested() && !deadline) {
      deadline = Clock::now() + std::chrono::milliseconds(deadline_ms);
      call_quietly(supervised.on_stop);
    }
    if (deadline && Clock::now() >= *deadline && !finished.is_requested()) {
      _exit(stop.exit_status());  // what was synced is enough to start from
    }
  }
  worker.join();
  return finished.exit_status();
}

}  // namespace norvel::node
