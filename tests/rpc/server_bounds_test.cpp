// What a client cannot take from the others.

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "rpc/connection_slots.h"
#include "rpc/raw_client.h"
#include "rpc/work_budget.h"

namespace norvel::rpc {
namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

const std::string kTooLarge = error_of(-32700, "Request too large");
const std::string kDone = result_of("true");

class Bounds : public ServerTest {
 protected:
  uint16_t start(const ServerLimits& limits) {
    make_server(limits);
    const auto wait = [this](const JsonValue&) {
      for (++waiting_; !leave_;) {
        std::this_thread::yield();
      }
      return JsonValue(true);
    };
    server_->register_method("wait", wait);
    server_->register_method("heavy", wait, CallWeight::kHeavy);
    return ServerTest::start();
  }

  void wait_for_calls(int count) const {
    while (waiting_ < count) {
      std::this_thread::yield();
    }
  }

  std::atomic<int> waiting_{0};
  std::atomic<bool> leave_{false};
};

// Half-open clients that have sent `text` each.
std::vector<RawClient> clients_that_sent(uint16_t port, size_t count, const std::string& text) {
  std::vector<RawClient> clients;
  while (clients.size() < count) {
    clients.emplace_back(port).send(text);
    std::this_thread::sleep_for(milliseconds(1));  // the queue of the listener is short
  }
  return clients;
}

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
    const JsonValue params(std::vector<JsonValue>(elements, JsonValue(0)));
    return post(R"({"method":"none","params":)" + params.to_string() + "}");
  };
  EXPECT_NE(answer_to(port, call_with(199'997)), kTooLarge);
  EXPECT_EQ(answer_to(port, call_with(199'998)), kTooLarge);
}

TEST_F(Bounds, OfWhatAnAnswerRepeats) {
  const uint16_t port = start({});
  const auto call_by = [&](const std::string& method, const std::string& id) {
    return answer_to(port, post(R"({"method":")" + method + R"(","id":)" + id + "}"));
  };
  const std::string name(1'024, 'm');
  const std::string id = '"' + std::string(1'022, 'i') + '"';
  EXPECT_EQ(call_by(name, id), error_of(-32601, "Method not found: " + name, id));
  EXPECT_EQ(call_by(name + "m", "1"), kTooLarge);
  EXPECT_EQ(call_by("ping", "[" + id + "]"), kTooLarge);
}

TEST_F(Bounds, OfAnswersThatWaitForTheirClients) {
  const uint16_t port = start({.answers_bytes = size_t{40} * 1024 * 1024});
  std::vector<RawClient> never_read;
  for (int i = 0; i < 4; ++i) {
    never_read.emplace_back(port).send(call_of("large"));
    EXPECT_TRUE(wait_readable(never_read.back().fd()));
  }
  EXPECT_GT(answer_to(port, call_of("large")).size(), 16'000'000u);
  EXPECT_LT(never_read.front().read_all().size(), 16'000'000u) << "the oldest has given way";
}

TEST_F(Bounds, HeavyCallsKeepNoLightOnesWaiting) {
  const uint16_t port = start({.heavy_calls = 1, .request_ms = 1'000});
  const RawClient first(port);
  first.send(call_of("heavy"));
  wait_for_calls(1);
  const RawClient second(port);
  second.send(call_of("heavy"));
  EXPECT_EQ(answer_to(port, post(kPing)), kPong);
  EXPECT_NE(second.read_all().find("Error: server busy"), std::string::npos) << "its time is up";
  EXPECT_EQ(waiting_, 1);
  leave_ = true;
  EXPECT_EQ(first.read_all(), kDone);
}

TEST_F(Bounds, OfTheTimeOfAWholeRequest) {
  const uint16_t port = start({.request_ms = 300});
  const auto before = steady_clock::now();
  const RawClient silent(port);
  const RawClient slow(port);
  slow.send("POST / HTTP/1.1\r\nX: ");
  for (int i = 0; !wait_readable(slow.fd(), 10) && i < 1'000; ++i) {
    slow.send("x");
  }
  EXPECT_EQ(slow.read_all(), "");
  EXPECT_EQ(silent.read_all(), "");
  EXPECT_LT(steady_clock::now() - before, milliseconds(5'000));
  EXPECT_GE(steady_clock::now() - before, milliseconds(300));
}

TEST_F(Bounds, OfTheTimeOfAnAnswerAndOfAClosing) {
  const uint16_t port = start({.answer_ms = 200, .closing_ms = 200});
  const RawClient never_reads(port);
  never_reads.send(call_of("large"));
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
  const std::vector<RawClient> half_open = clients_that_sent(port, 300, "POST / HTTP/1.1\r\n");
  EXPECT_EQ(answer_to(port, post(kPing)), kPong);
  for (size_t i = 0; i < 40; ++i) {
    EXPECT_EQ(half_open[i].read_all(), "");
  }
  half_open[50].send("Content-Length: 35\r\n\r\n" + kPing);
  EXPECT_EQ(half_open[50].read_all(), kPong) << "256 places, of which the last call took one";
}

TEST_F(Bounds, CompleteRequestsStayAndTheNewcomerGoes) {
  const uint16_t port = start({.connections = 2});
  const std::vector<RawClient> complete = clients_that_sent(port, 2, call_of("wait"));
  wait_for_calls(2);
  EXPECT_EQ(RawClient(port).read_all(), "");
  leave_ = true;
  EXPECT_EQ(complete[0].read_all(), kDone);
  EXPECT_EQ(complete[1].read_all(), kDone);
}

TEST_F(Bounds, BodiesOfAllTogether) {
  const uint16_t port = start({.body_bytes = 100'000, .bodies_bytes = 250'000, .body_bytes_free = 0});
  const std::vector<RawClient> hoarders =
      clients_that_sent(port, 5, "POST /\r\nContent-Length: 100000\r\n\r\n" + std::string(90'000, ' '));
  EXPECT_EQ(answer_to(port, post(kPing + std::string(90'000, ' '))), kPong);
  EXPECT_EQ(hoarders[0].read_all(), "");
}

TEST(ConnectionSlots, CountsBytesUntilTheyAreReleasedAndTellsWhoHasGivenWay) {
  auto slots =
      std::make_shared<ConnectionSlots>(ServerLimits{.connections = 3, .bodies_bytes = 100, .body_bytes_free = 10});
  const auto admit = [&] { return slots->admit(network::bound_socket("127.0.0.1")); };
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
