#include "node/supervisor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <new>
#include <stdexcept>
#include <thread>

namespace norvel::node {
namespace {

// Each case runs in a process of its own: the signals of this one stay as they are.
class Supervisor : public testing::Test {
 protected:
  Supervisor() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  [[noreturn]] static void in_child(const std::function<int()>& body) {
    block_signals();
    _exit(body());
  }
};

TEST_F(Supervisor, EndsWithTheWork) {
  const auto body = [](const std::function<int()>& work) {
    StopRequest stop;
    return supervise({work, [] {}, [] {}}, stop);
  };
  EXPECT_EXIT(in_child([&] { return body([] { return 7; }); }), testing::ExitedWithCode(7), "");
  const auto throws = []() -> int { throw std::runtime_error("no luck"); };
  EXPECT_EXIT(in_child([&] { return body(throws); }), testing::ExitedWithCode(1), "no luck");
}

TEST_F(Supervisor, PassesSignalsOn) {
  const auto body = [] {
    StopRequest stop;
    std::atomic<int> hangups{0};
    std::atomic<int> stops{0};
    const auto work = [&] {
      kill(getpid(), SIGHUP);
      while (hangups == 0) {
        std::this_thread::yield();
      }
      kill(getpid(), SIGTERM);
      kill(getpid(), SIGINT);
      return stop.wait(60'000) && stop.exit_status() == 6 ? 3 : 4;
    };
    const auto on_hangup = [&] {
      ++hangups;
      throw std::bad_alloc();  // no memory for a line is no end
    };
    const int status = supervise({work, [&] { ++stops; }, on_hangup, 6}, stop);
    return hangups == 1 && stops <= 1 ? status : 5;
  };
  EXPECT_EXIT(in_child(body), testing::ExitedWithCode(3), "");
}

TEST_F(Supervisor, EndsTheProcessWhenTheWorkDoesNotEnd) {
  const auto body = [] {
    StopRequest stop;
    const auto work = [&] {
      stop.request(9);
      stop.request(0);  // too late
      std::this_thread::sleep_for(std::chrono::seconds(60));
      return 1;
    };
    return supervise({work, [] {}, [] {}}, stop, 50);
  };
  EXPECT_EXIT(in_child(body), testing::ExitedWithCode(9), "");
}

}  // namespace
}  // namespace norvel::node
