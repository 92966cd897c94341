// What a client cannot take from the others.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "rpc/connection_slots.h"
#include "rpc/raw_client.h"
#include "rpc/server.h"
#include "rpc/work_budget.h"

namespace norvel::rpc {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

const std::string kTooLarge =
    ok(R"({"error":{"code":-32700,"message":"Request too large"},"id":null,"jsonrpc":"2.0"})");

class Bounds : public testing::Test {
 protected:
  Bounds() { testing::internal::CaptureStdout(); }
  ~Bounds() override {
    if (server_) {
      server_->stop();
      EXPECT_TRUE(server_->wait_for_connections(kPatienceMs));
    }
    testing::internal::GetCapturedStdout();
  }

  uint16_t start(const ServerLimits& limits) {
    server_ = std::make_unique<RpcServer>(0, "127.0.0.1", limits);
    server_->register_method("ping", [](const JsonValue& params) { return params; });
    server_->register_method("large", [](const JsonValue&) { return std::string(16'000'000, 'x'); });
    server_->register_method("wait", [this](const JsonValue&) {
      for (++waiting_; !leave_;) {
        std::this_thread::yield();
      }
      return JsonValue(true);
    });
    EXPECT_TRUE(server_->start());
    return server_->get_port();
  }

  std::atomic<int> waiting_{0};
  std::atomic<bool> leave_{false};
  std::unique_ptr<RpcServer> server_;
};

TEST_F(Bounds, OfHeaderBlockBodyAndValues) {
  const uint16_t port = start({});
  const std::string padding(65'536 - post("").size() - std::string("X: \r\n").size(), 'x');
  EXPECT_EQ(answer_to(port, post("", "X: " + padding + "\r\n")).substr(0, 12), "HTTP/1.1 200");
  EXPECT_EQ(answer_to(port, post("", "X: x" + padding + "\r\n")), kTooLarge);
  EXPECT_EQ(answer_to(port, std::string(100'000, 'x')), kTooLarge);

  const std::string largest = kPing + std::string(size_t{4} * 1024 * 1024 - kPing.size(), ' ');
  EXPECT_EQ(answer_to(port, post(largest)), kPong);
  EXPECT_EQ(answer_to(port, post(largest + " ")), kTooLarge);

  // The object, its method, the array and its elements.
  const auto call_with = [](size_t elements) {
    std::string body = R"({"method":"none","params":[0)";
    for (size_t i = 1; i < elements; ++i) {
      body += ",0";
    }
    return post(body + "]}");
  };
  EXPECT_NE(answer_to(port, call_with(199'997)), kTooLarge);
  EXPECT_EQ(answer_to(port, call_with(199'998)), kTooLarge);
  std::string repeating = R"({"method":"ping")";
  for (int i = 0; i < 200'000; ++i) {
    repeating += R"(,"a":0)";
  }
  EXPECT_EQ(answer_to(port, post(repeating + "}")), kTooLarge);
}

TEST_F(Bounds, OfWhatAnAnswerRepeats) {
  const uint16_t port = start({});
  const auto call_by = [&](const std::string& method, const std::string& id) {
    return answer_to(port, post(R"({"method":")" + method + R"(","id":)" + id + "}"));
  };
  const std::string name(1'024, 'm');
  const std::string id = '"' + std::string(1'022, 'i') + '"';
  EXPECT_EQ(call_by(name, id), ok(R"({"error":{"code":-32601,"message":"Method not found: )" + name + R"("},"id":)" +
                                  id + R"(,"jsonrpc":"2.0"})"));
  EXPECT_EQ(call_by(name + "m", "1"), kTooLarge);
  EXPECT_EQ(call_by("ping", "[" + id + "]"), kTooLarge);
}

TEST_F(Bounds, OfAnswersThatWaitForTheirClients) {
  const uint16_t port = start({.answers_bytes = size_t{40} * 1024 * 1024});
  std::vector<RawClient> never_read;
  for (int i = 0; i < 4; ++i) {
    never_read.emplace_back(port);
    never_read.back().send(post(R"({"method":"large"})"));
    EXPECT_TRUE(wait_readable(never_read.back().fd()));
  }
  EXPECT_GT(answer_to(port, post(R"({"method":"large"})")).size(), 16'000'000u);
  EXPECT_LT(never_read.front().read_all().size(), 16'000'000u) << "the oldest has given way";
}

TEST_F(Bounds, HeavyCallsKeepNoLightOnesWaiting) {
  const uint16_t port = start({.heavy_calls = 1, .request_ms = 1'000});
  server_->register_method(
      "heavy",
      [this](const JsonValue&) {
        for (++waiting_; !leave_;) {
          std::this_thread::yield();
        }
        return JsonValue(true);
      },
      CallWeight::kHeavy);
  const RawClient first(port);
  first.send(post(R"({"method":"heavy"})"));
  while (waiting_ < 1) {
    std::this_thread::yield();
  }
  const RawClient second(port);
  second.send(post(R"({"method":"heavy"})"));
  EXPECT_EQ(answer_to(port, post(kPing)), kPong);
  EXPECT_NE(second.read_all().find("Error: server busy"), std::string::npos) << "its time is up";
  EXPECT_EQ(waiting_, 1);
  leave_ = true;
  EXPECT_EQ(first.read_all(), ok(R"({"id":null,"jsonrpc":"2.0","result":true})"));
}

TEST_F(Bounds, OfTheTimeOfAWholeRequest) {
  const uint16_t port = start({.request_ms = 300});
  const auto before = steady_clock::now();
  const RawClient silent(port);
  const RawClient slow(port);
  const std::string header = "POST / HTTP/1.1\r\nX: ";
  for (size_t i = 0; !wait_readable(slow.fd(), 10) && i < 1'000; ++i) {
    slow.send(i < header.size() ? header.substr(i, 1) : "x");
  }
  EXPECT_EQ(slow.read_all(), "");
  EXPECT_EQ(silent.read_all(), "");
  EXPECT_LT(steady_clock::now() - before, milliseconds(5'000));
  EXPECT_GE(steady_clock::now() - before, milliseconds(300));
}

TEST_F(Bounds, OfTheTimeOfAnAnswerAndOfAClosing) {
  const uint16_t port = start({.answer_ms = 200, .closing_ms = 200});
  const RawClient never_reads(port);
  never_reads.send(post(R"({"method":"large"})"));
  const RawClient never_closes(port);
  never_closes.send(post(kPing));
  EXPECT_EQ(never_closes.read_all(), kPong);
  const auto end = steady_clock::now() + milliseconds(kPatienceMs);
  while (::send(never_closes.fd(), "x", 1, MSG_NOSIGNAL) == 1 && steady_clock::now() < end) {
    std::this_thread::sleep_for(milliseconds(5));
  }
  EXPECT_LT(steady_clock::now(), end);
  server_->stop();
  EXPECT_TRUE(server_->wait_for_connections(5'000));
}

TEST_F(Bounds, HalfOpenConnectionsGiveWayOldestFirst) {
  const uint16_t port = start({});
  std::vector<RawClient> half_open;
  for (int i = 0; i < 300; ++i) {
    half_open.emplace_back(port);
    half_open.back().send("POST / HTTP/1.1\r\n");
    std::this_thread::sleep_for(milliseconds(1));  // the queue of the listener is short
    if (i % 50 == 0) {
      EXPECT_EQ(answer_to(port, post(kPing)), kPong);
    }
  }
  EXPECT_EQ(answer_to(port, post(kPing)), kPong);
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(half_open[static_cast<size_t>(i)].read_all(), "");
  }
  half_open.back().send("Content-Length: 35\r\n\r\n" + kPing);
  EXPECT_EQ(half_open.back().read_all(), kPong);
}

TEST_F(Bounds, CompleteRequestsStayAndTheNewcomerGoes) {
  const uint16_t port = start({.connections = 2});
  const RawClient first(port);
  const RawClient second(port);
  first.send(post(R"({"method":"wait"})"));
  second.send(post(R"({"method":"wait"})"));
  while (waiting_ < 2) {
    std::this_thread::yield();
  }
  EXPECT_EQ(RawClient(port).read_all(), "");
  leave_ = true;
  const std::string done = ok(R"({"id":null,"jsonrpc":"2.0","result":true})");
  EXPECT_EQ(first.read_all(), done);
  EXPECT_EQ(second.read_all(), done);
}

TEST_F(Bounds, BodiesOfAllTogether) {
  const uint16_t port = start({.body_bytes = 100'000, .bodies_bytes = 250'000, .body_bytes_free = 0});
  const std::string part = "POST /\r\nContent-Length: 100000\r\n\r\n" + std::string(90'000, ' ');
  std::vector<RawClient> hoarders;
  for (int i = 0; i < 5; ++i) {
    hoarders.emplace_back(port);
    hoarders.back().send(part);
  }
  EXPECT_EQ(answer_to(port, post(kPing + std::string(90'000, ' '))), kPong);
  EXPECT_EQ(hoarders[0].read_all(), "");
}

TEST(ConnectionSlots, CountsBytesUntilTheyAreReleasedAndTellsWhoHasGivenWay) {
  auto slots =
      std::make_shared<ConnectionSlots>(ServerLimits{.connections = 3, .bodies_bytes = 100, .body_bytes_free = 10});
  const auto admit = [&] { return slots->admit(FileDescriptor(::socket(AF_INET, SOCK_STREAM, 0))); };
  auto first = admit();
  auto second = admit();
  auto third = admit();
  ASSERT_TRUE(first->hold_body(30) && first->hold_body(40) && second->hold_body(50));
  ASSERT_TRUE(second->begin_work());
  EXPECT_TRUE(third->hold_body(70)) << "the first gives way";
  EXPECT_FALSE(first->hold_body(0));
  EXPECT_FALSE(first->begin_work());
  EXPECT_FALSE(third->hold_body(1)) << "complete requests do not";
  second->release_body();
  EXPECT_TRUE(third->hold_body(40));
  ASSERT_TRUE(third->begin_work());
  auto fourth = admit();  // in the place of the first
  ASSERT_TRUE(fourth && fourth->begin_work());
  EXPECT_FALSE(admit());
  second->end_work();
  EXPECT_TRUE(admit());
  EXPECT_FALSE(slots->wait_until_empty(1));
  for (auto* ticket : {&first, &second, &third, &fourth}) {
    ticket->reset();
  }
  EXPECT_TRUE(slots->wait_until_empty(1));
}

TEST(WorkBudget, WaitsForWhatIsGivenBack) {
  WorkBudget budget(10);
  const auto soon = [] { return steady_clock::now() + milliseconds(10); };
  auto share = budget.take(10, soon());
  ASSERT_TRUE(share);
  EXPECT_FALSE(budget.take(1, soon()));
  share->shrink(6);
  EXPECT_TRUE(budget.take(4, soon()));
  EXPECT_FALSE(budget.take(5, soon()));
  std::thread giver([&] { share.reset(); });
  EXPECT_TRUE(budget.take(10, steady_clock::now() + milliseconds(kPatienceMs)));
  giver.join();
}

}  // namespace
}  // namespace norvel::rpc
