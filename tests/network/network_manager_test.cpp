// A running manager and raw peers on loopback. Time is moved by its clock.

#include "network/network_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>

#include "chain/chain_scene.h"
#include "core/clock.h"
#include "network/address_book.h"
#include "network/address_text.h"
#include "network/raw_peer.h"

namespace norvel::network {
namespace {

constexpr int kQuietMs = 400;  // long enough for what must not come

std::ptrdiff_t count_descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Nobody accepts and its queue is full: the system drops what comes, and dials wait.
class FullListener {
 public:
  explicit FullListener(const std::string& ip) : listener_(std::in_place, ip, 0) {
    for (int i = 0; i < 4; ++i) {
      waiting_.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      connect_to(waiting_.back().get(), ip, port());
    }
  }

  uint16_t port() const { return listener_->port(); }
  void end() { listener_.reset(); }

 private:
  std::optional<Listener> listener_;
  std::vector<FileDescriptor> waiting_;
};

// Who accepts the dial of a node, and whether one comes.
RawPeer accept_from(const Listener& listener) {
  return RawPeer(listener.accept());
}
bool is_dialled(const Listener& listener) {
  return listener.accept().is_open();
}

class Manager : public testing::Test {
 protected:
  void SetUp() override { start(); }

  void start(uint64_t max_inbound = 50, uint64_t max_outbound = 8, std::vector<std::string> fixed = {}) {
    manager_.reset();
    manager_ = std::make_unique<NetworkManager>(port_, "127.0.0.1", directory_.path(), max_inbound, max_outbound, 600);
    manager_->set_fixed_peers(std::move(fixed));
    NetworkCallbacks callbacks;
    callbacks.peer_connected = [this](const std::string&) {
      ++connected_;
      manager_->get_clock().stall_ms(stall_ms_.exchange(0));
    };
    callbacks.peer_disconnected = [this](const std::string&) { ++disconnected_; };
    manager_->set_callbacks(callbacks);
    ASSERT_TRUE(manager_->start(true));
  }

  void advance_s(int64_t seconds) { manager_->get_clock().advance_ms(seconds * 1'000); }

  // So that what comes at once falls into one second of the clock.
  void begin_second() { manager_->get_clock().advance_ms(1'005 - manager_->get_clock().now_ms() % 1'000); }

  // Dials 127.0.0.9; who answers there has our VERSION's nonce.
  std::pair<RawPeer, uint64_t> dial(const Listener& listener) {
    EXPECT_TRUE(manager_->connect_to_peer("127.0.0.9", listener.port()));
    RawPeer peer = accept_from(listener);
    const Bytes version = peer.await(MessageType::VERSION).value_or(Bytes());
    return {std::move(peer), decode_version(version).value().nonce.value()};
  }

  std::set<std::string> keys() const {
    std::set<std::string> keys;
    for (const PeerInfo& peer : manager_->get_peers()) {
      keys.insert(peer.address);
    }
    return keys;
  }

  bool is_empty() const {
    const PeerCounts counts = manager_->get_peer_counts();
    return manager_->get_peer_count() == 0 && counts.inbound == 0 && counts.outbound == 0;
  }

  const TemporaryDirectory directory_;
  const uint16_t port_ = free_port();
  std::atomic<int> connected_{0};
  std::atomic<int> disconnected_{0};
  std::atomic<int64_t> stall_ms_{0};  // of the message handler with the next handshake
  std::unique_ptr<NetworkManager> manager_;
};

TEST_F(Manager, ShakesHandsWithAPeerThatConnects) {
  EXPECT_FALSE(manager_->start(true));
  RawPeer peer("127.0.0.9", port_);
  for (const uint8_t byte : version_message(uint16_t{4'444}, 5, unix_time_seconds()).serialize()) {
    ASSERT_TRUE(peer.send(Bytes{byte}));
  }
  EXPECT_EQ(peer.next()->type, MessageType::VERACK);
  const auto ours = peer.next();
  ASSERT_EQ(ours->type, MessageType::VERSION);
  const auto decoded = decode_version(ours->payload);
  EXPECT_EQ(decoded->version, 70'015u);
  EXPECT_EQ(decoded->services, 1u);
  EXPECT_EQ(decoded->port, port_);
  EXPECT_EQ(decoded->user_agent, "NorvelNode/v10.2.1");
  EXPECT_NE(decoded->nonce.value_or(0), 0u);
  EXPECT_EQ(connected_, 0);
  peer.send(MessageType::VERACK);
  EXPECT_EQ(peer.next()->type, MessageType::GETADDR);
  EXPECT_TRUE(eventually([&] { return connected_ == 1; }));
  const auto peers = manager_->get_peers();
  ASSERT_EQ(peers.size(), 1u);
  EXPECT_EQ(peers[0].address, "127.0.0.9:4444");
  EXPECT_EQ(peers[0].user_agent, "raw");
  EXPECT_TRUE(peers[0].handshake_complete && !peers[0].outbound);
  EXPECT_TRUE(peer.is_served());
  manager_->disconnect_peer("127.0.0.9:4444");
  EXPECT_TRUE(peer.is_closed());
  EXPECT_TRUE(is_empty());
  EXPECT_EQ(disconnected_, 1);
}

TEST_F(Manager, DialsOnceHoweverThePeerNamesItself) {
  const Listener listener("127.0.0.9");
  RawPeer peer = dial(listener).first;
  peer.send(version_message(uint16_t{4'444}));
  EXPECT_EQ(peer.next()->type, MessageType::VERACK);
  EXPECT_TRUE(eventually([&] { return keys() == std::set<std::string>{"127.0.0.9:4444"}; }));
  EXPECT_TRUE(eventually([&] { return manager_->get_peers()[0].handshake_complete; }));
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", listener.port()));
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", 4'444));
  EXPECT_EQ(manager_->get_peer_counts().outbound, 1u);
  peer.hang_up();
  EXPECT_TRUE(eventually([&] { return is_empty(); }));
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", free_port())) << "nobody listens";
  EXPECT_TRUE(is_empty());
}

TEST_F(Manager, RefusesWhomItMustNotLetIn) {
  start(5, 0);
  begin_second();
  std::vector<RawPeer> peers;
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(peers.emplace_back("127.0.0.2", port_).is_served());
  }
  EXPECT_TRUE(RawPeer("127.0.0.2", port_).is_closed()) << "the fourth of a second";
  manager_->ban_peer("127.0.0.3", "");
  EXPECT_TRUE(RawPeer("127.0.0.3", port_).is_closed());
  for (const char* ip : {"127.0.0.4", "127.0.0.5"}) {
    EXPECT_TRUE(peers.emplace_back(ip, port_).is_served());
  }
  EXPECT_TRUE(RawPeer("127.0.0.6", port_).is_closed()) << "the sixth";
  EXPECT_EQ(manager_->get_peer_counts().inbound, 5u);
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.1", Listener().port())) << "no outbound peers allowed";
  testing::internal::CaptureStdout();
  manager_->ban_peer("127.0.0.2", "for a test");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[Network] Banning 127.0.0.2 — for a test\n");
  EXPECT_TRUE(peers[0].is_closed());
  EXPECT_EQ(manager_->get_peer_counts().inbound, 2u);
}

TEST_F(Manager, CountsFaultsAndBansAtAHundred) {
  Bytes pings;
  for (int i = 0; i < 51; ++i) {
    append(pings, Message{MessageType::PING, {}}.serialize());
  }
  Bytes twice = version_message(uint16_t{4'444}).serialize();
  append(twice, Bytes(twice));
  const struct {
    const char* label;
    Bytes data;
    uint32_t points;
    bool ends;      // even without a ban
    int pongs = 0;  // that come back
  } rows[] = {
      {"wrong magic", Bytes{'N', 'R', 'V', 'M', 3, 0, 0, 0, 0}, 20, true},
      {"4,194,305 bytes announced", Bytes{'N', 'R', 'V', 'L', 3, 1, 0, 0x40, 0}, 50, true},
      {"23 bytes of VERSION", Message{MessageType::VERSION, Bytes(23)}.serialize(), 10, false},
      {"a second VERSION", twice, 1, false},
      {"1001 addresses", Message{MessageType::ADDR, {0xe9, 3, 0, 0}}.serialize(), 5, false},
      {"51 pings", pings, 2, false, 50},
      {"an undefined type", Message{static_cast<MessageType>(99), {1}}.serialize(), 0, false},
      {"addresses without a count", Message{MessageType::ADDR, {1, 0, 0}}.serialize(), 0, false},
  };
  int host = 10;
  for (const auto& row : rows) {
    for (const bool bans : {false, true}) {
      if (bans && row.points == 0) {
        continue;
      }
      const std::string ip = "127.0.0." + std::to_string(host++);
      SCOPED_TRACE(row.label + std::string(bans ? ", with a point more" : ""));
      begin_second();
      manager_->increment_misbehavior(ip + ":1", (bans ? 100 : 99) - row.points);
      RawPeer peer(ip, port_);
      ASSERT_TRUE(peer.send(row.data));
      if (bans || row.ends) {
        EXPECT_TRUE(peer.is_closed());
      } else {
        for (int i = 0; i < row.pongs; ++i) {
          ASSERT_TRUE(peer.await(MessageType::PONG));
        }
        advance_s(1);
        EXPECT_TRUE(peer.is_served());
      }
      EXPECT_EQ(manager_->is_peer_banned(ip), bans);
    }
  }
  advance_s(601);
  EXPECT_TRUE(eventually([&] { return !manager_->is_peer_banned("127.0.0.11"); }));
  EXPECT_TRUE(RawPeer("127.0.0.11", port_).is_served());
}

TEST_F(Manager, LeavesItselfForGood) {
  const Listener listener("127.0.0.9");
  auto [peer, nonce] = dial(listener);
  testing::internal::CaptureStdout();
  peer.send(version_message(listener.port(), nonce));
  EXPECT_TRUE(peer.is_closed());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[Network] Self-connect detectado (" +
                                                        make_key("127.0.0.9", listener.port()) +
                                                        " somos nosotros): cerrando y vetando la direccion\n");
  EXPECT_TRUE(is_empty());
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", listener.port()));
}

TEST_F(Manager, BelievesOnlyItselfThatASeedIsItself) {
  const Listener seed("127.0.0.9");
  manager_->add_seed_node("127.0.0.9", seed.port());
  RawPeer dialled = accept_from(seed);
  const uint64_t nonce = decode_version(dialled.await(MessageType::VERSION).value())->nonce.value();
  const auto lie = [&](RawPeer liar) {
    liar.send(version_message(seed.port(), nonce));
    EXPECT_TRUE(liar.is_closed());
  };
  lie(RawPeer("127.0.0.9", port_));  // while the seed has yet to answer
  dialled.hang_up();
  ASSERT_TRUE(eventually([&] { return is_empty(); }));
  lie(RawPeer("127.0.0.9", port_));
  const Listener echo("127.0.0.9");
  lie(dial(echo).first);
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", echo.port()));
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", seed.port()));
  advance_s(10);
  EXPECT_TRUE(is_dialled(seed));

  manager_->add_seed_node("127.0.0.1", port_);
  RawPeer peer("127.0.0.8", port_);
  peer.shake_hands(4'444);
  const auto is_told = [&] {
    peer.send(MessageType::GETADDR);
    const auto entries = decode_addresses(peer.await(MessageType::ADDR).value_or(Bytes()));
    EXPECT_FALSE(entries->empty());
    return std::ranges::count(*entries, Ipv4{127, 0, 0, 1}, &AddressEntry::ip) == 1;
  };
  EXPECT_TRUE(is_told());
  EXPECT_TRUE(manager_->connect_to_peer("127.0.0.1", port_));
  EXPECT_TRUE(eventually([&] { return keys() == std::set<std::string>{"127.0.0.8:4444"}; }));
  EXPECT_FALSE(is_told());
}

TEST_F(Manager, KeepsTheKeyOfAPeerThatClaimsAnothers) {
  std::vector<RawPeer> peers;
  std::set<std::string> want = {"127.0.0.9:4444"};
  for (int i = 0; i < 20; ++i) {
    if (i % 3 == 0) {  // of each second
      begin_second();
    }
    peers.emplace_back("127.0.0.9", port_).shake_hands(4'444);
    if (i > 0) {
      want.insert(make_key("127.0.0.9", peers.back().port()));
    }
  }
  EXPECT_EQ(keys(), want);
  manager_->disconnect_peer("127.0.0.9:4444");
  EXPECT_TRUE(peers.front().is_closed());
  EXPECT_TRUE(std::all_of(peers.begin() + 1, peers.end(), [](RawPeer& peer) { return peer.is_served(); }));
}

TEST_F(Manager, TakesAndTellsAddresses) {
  const Listener listener("127.0.0.9");
  RawPeer peer("127.0.0.8", port_);
  peer.shake_hands(4'444);
  peer.send(MessageType::ADDR, encode_addresses({{{127, 0, 0, 9}, listener.port(), 77, 1},
                                                 {{127, 0, 0, 1}, port_, 78, 1},
                                                 {{127, 0, 0, 9}, 0, 79, 1}}));
  RawPeer dialled = accept_from(listener);
  EXPECT_EQ(dialled.next()->type, MessageType::VERSION);
  peer.send(MessageType::GETADDR);
  std::set<std::string> keys_told;
  const auto entries = decode_addresses(peer.await(MessageType::ADDR).value());
  for (const AddressEntry& entry : *entries) {
    keys_told.insert(make_key(format_ipv4(entry.ip), entry.port));
  }
  EXPECT_EQ(keys_told, (std::set<std::string>{make_key("127.0.0.9", listener.port()), make_key("127.0.0.1", port_)}));
  EXPECT_EQ(manager_->get_peer_count(), 2u) << "its own listener is not dialled";
}

TEST_F(Manager, DialsSeedsAndForCallersWhileOthersDoNotAnswer) {
  start(50, 60);
  FullListener dead("0.0.0.0");
  const Listener live("0.0.0.0", 100);
  RawPeer teller("127.0.0.8", port_);
  teller.shake_hands();
  const auto tell = [&](uint8_t net, uint8_t count, uint16_t port) {
    std::vector<AddressEntry> entries;
    for (uint8_t i = 1; i <= count; ++i) {
      entries.push_back({{127, 1, net, i}, port, 5, 1});
    }
    teller.send(MessageType::ADDR, encode_addresses(entries));
  };
  tell(1, 30, dead.port());
  tell(2, 100, live.port());
  ASSERT_TRUE(teller.is_served());
  EXPECT_TRUE(manager_->connect_to_peer("127.0.0.9", live.port())) << "the queue leaves some dials to callers";
  manager_->add_seed_node("127.0.0.10", live.port());
  const std::string seed_key = make_key("127.0.0.10", live.port());
  EXPECT_FALSE(keys().contains(seed_key)) << "all workers wait";
  dead.end();
  EXPECT_TRUE(eventually([&] { return keys().contains(seed_key); })) << "before 60 of the others";
}

TEST_F(Manager, RemembersPeersAndDialsThemAgain) {
  const Listener listener("127.0.0.9");
  manager_->stop();
  const std::ptrdiff_t descriptors = count_descriptors();
  start();
  EXPECT_TRUE(manager_->is_listening());
  RawPeer peer("127.0.0.9", port_);
  peer.shake_hands(listener.port());
  manager_->stop();
  EXPECT_FALSE(manager_->is_listening());
  EXPECT_EQ(count_descriptors(), descriptors + 1) << "the other end of the connection";
  EXPECT_TRUE(peer.is_closed());
  EXPECT_TRUE(is_empty());
  EXPECT_TRUE(manager_->is_finished());
  start();
  advance_s(3);
  EXPECT_TRUE(is_dialled(listener));
}

TEST_F(Manager, DialsWhomItReachedBeforeBesideWhomItIsTold) {
  start(50, 20);
  const Listener listener("0.0.0.0", 100);
  RawPeer reached = dial(listener).first;
  reached.send(version_message(listener.port()));
  ASSERT_TRUE(reached.await(MessageType::VERACK));
  reached.hang_up();
  ASSERT_TRUE(eventually([&] { return is_empty(); }));
  std::ofstream list(directory_ / "peers.dat");
  for (size_t i = 0; i < kKnownPeersMax; ++i) {
    list << "127.1." << i / 250 << '.' << i % 250 + 1 << ':' << listener.port() << " 9999999999\n";
  }
  list.close();
  manager_->load_peer_list();
  advance_s(10);
  EXPECT_TRUE(eventually([&] { return keys().contains(make_key("127.0.0.9", listener.port())); }));
}

TEST_F(Manager, DialsANameAgainSoonAfterAHandshake) {
  const Listener listener;
  start(50, 8, {make_key("localhost", listener.port())});
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    advance_s(10);
    RawPeer peer = accept_from(listener);
    peer.send(version_message({}));
    ASSERT_TRUE(peer.await(MessageType::VERACK));
    peer.hang_up();
    ASSERT_TRUE(eventually([&] { return is_empty(); }));
  }
}

TEST_F(Manager, DialsFixedPeersOnly) {
  const Listener known("127.0.0.9");
  RawPeer("127.0.0.9", port_).shake_hands(known.port());
  const Listener fixed("127.0.0.10");
  start(50, 8, {make_key("127.0.0.10", fixed.port())});
  const int gone = disconnected_;
  advance_s(3);
  EXPECT_TRUE(is_dialled(fixed)) << "and hung up";
  EXPECT_TRUE(eventually([&] { return disconnected_ > gone; }));
  advance_s(10);
  EXPECT_TRUE(is_dialled(fixed));
  EXPECT_FALSE(known.accept(kQuietMs).is_open());
}

TEST_F(Manager, EndsPeersWhoseTimeIsUp) {
  start(2);
  RawPeer mute("127.0.0.2", port_);
  ASSERT_TRUE(mute.is_served());
  RawPeer good("127.0.0.3", port_);
  good.shake_hands();
  advance_s(59);
  EXPECT_TRUE(mute.is_served());
  EXPECT_TRUE(RawPeer("127.0.0.4", port_).is_closed()) << "all places are taken";
  manager_->get_clock().advance_ms(1'500);
  EXPECT_TRUE(mute.is_closed());
  RawPeer newcomer("127.0.0.4", port_);
  EXPECT_TRUE(newcomer.is_served());
  EXPECT_TRUE(good.is_served());
  advance_s(61);
  EXPECT_TRUE(good.await(MessageType::PING)) << "no PONG for two minutes";
  advance_s(301);
  EXPECT_TRUE(good.is_closed());
  EXPECT_TRUE(is_empty());
}

TEST_F(Manager, ExcusesPeersWhileItDidNotRead) {
  RawPeer mute("127.0.0.2", port_);
  ASSERT_TRUE(mute.is_served());
  RawPeer good("127.0.0.3", port_);
  good.shake_hands();
  stall_ms_ = 400'000;
  RawPeer last("127.0.0.4", port_);
  last.shake_hands();
  EXPECT_TRUE(good.await(MessageType::PING)) << "so its silence was looked at";
  EXPECT_TRUE(good.is_served());
  EXPECT_TRUE(mute.is_served()) << "its handshake too";
}

TEST_F(Manager, StopsReadingAPeerThatTakesNothing) {
  RawPeer greedy("127.0.0.2", port_);
  greedy.shake_hands();
  const Bytes ping = Message{MessageType::PING, Bytes(kPayloadBytesMax)}.serialize();
  int sent = 0;
  while (sent < 40 && greedy.send(ping)) {
    ++sent;
  }
  EXPECT_LT(sent, 20) << "8 MiB of queue and what the system holds";
  RawPeer other("127.0.0.3", port_);
  EXPECT_TRUE(other.is_served());
  EXPECT_EQ(greedy.await(MessageType::PONG).value_or(Bytes()).size(), kPayloadBytesMax);
  EXPECT_TRUE(eventually([&] {
    advance_s(10);
    return manager_->get_peer_count() == 0;
  })) << "for want of writing, and the other for want of a handshake";
}

TEST_F(Manager, StopsWhileItDials) {
  const FullListener full("127.0.0.9");
  std::thread caller([&] { EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", full.port())); });
  manager_->add_seed_node("no-such-host.invalid", 8333);
  manager_->add_seed_node("127.0.0.9", full.port());
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const auto begin = std::chrono::steady_clock::now();
  manager_->stop();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  caller.join();
  EXPECT_TRUE(is_empty());
}

TEST_F(Manager, TakesTheMiddleOfWhatPeersSay) {
  const struct {
    const char* ip;
    int64_t offset_s;
    uint32_t height;
    double want_s;  // with those before
    uint32_t want_height;
  } rows[] = {
      {"127.0.0.2", 1'000, 0xffffffff, 0, 0xffffffff},
      {"127.0.0.3", -5'000'000'000, 40, 0, 40},  // before 1970, which reads as far ahead
      {"127.0.0.4", 2'000, 50, 2'000, 50},
      {"127.0.0.5", 100, 60, 1'000, 50},
      {"127.0.0.6", -1'800, 30, 1'000, 50},
      {"127.0.0.7", -900, 0, 100, 40},
  };
  std::vector<RawPeer> peers;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.ip);
    RawPeer& peer = peers.emplace_back(row.ip, port_);
    peer.send(version_message({}, 5, unix_time_seconds() + static_cast<uint64_t>(row.offset_s), row.height));
    ASSERT_TRUE(peer.await(MessageType::VERSION));
    EXPECT_NEAR(static_cast<double>(manager_->get_clock_offset_s()), row.want_s, 3);
    EXPECT_EQ(manager_->get_best_known_height(), row.want_height);
  }
  const Listener listener("127.0.0.9");
  RawPeer dialled = dial(listener).first;
  dialled.send(version_message({}, 5, 0, 70));
  EXPECT_TRUE(eventually([&] { return manager_->get_best_known_height() == 70; })) << "whom this node chose counts";
}

TEST(ManagerWithAChain, CatchesUpAlsoWhenVerackComesFirst) {
  const TemporaryDirectory directory;
  ChainScene scene;
  for (const bool verack_first : {false, true}) {
    SCOPED_TRACE(verack_first);
    const Listener listener("127.0.0.9");
    NetworkManager manager(free_port(), "127.0.0.1", directory.path(), 8, 8, 600);
    manager.set_blockchain(&scene.chain());
    ASSERT_TRUE(manager.start(false));
    EXPECT_FALSE(manager.is_listening());
    ASSERT_TRUE(manager.connect_to_peer("127.0.0.9", listener.port()));
    RawPeer peer = accept_from(listener);
    const Message verack{MessageType::VERACK, {}};
    const Message version = version_message({}, 5, 0, 1'000);
    peer.send(verack_first ? verack : version);
    peer.send(verack_first ? version : verack);
    EXPECT_TRUE(peer.await(MessageType::GETBLOCKS));
  }
}

TEST(TwoManagers, RelayABlockFromOneChainToTheOther) {
  ChainScene scenes[2];
  NetworkManager first(free_port(), "127.0.0.1", scenes[0].directory().path(), 8, 8, 600);
  const uint16_t port = free_port();
  NetworkManager second(port, "127.0.0.2", scenes[1].directory().path(), 8, 8, 600);
  first.set_blockchain(&scenes[0].chain());
  second.set_blockchain(&scenes[1].chain());
  scenes[1].add_all(make_branch(scenes[1].tip(), 5));
  ASSERT_TRUE(first.start(true) && second.start(true));
  ASSERT_TRUE(first.connect_to_peer("127.0.0.2", port));
  EXPECT_TRUE(eventually([&] { return scenes[0].chain().get_best_height() == 5; }));
  const Block block = make_child(scenes[0].tip());
  std::string error;
  EXPECT_TRUE(first.accept_block(block, error)) << error;
  EXPECT_TRUE(eventually([&] { return scenes[1].chain().get_best_height() == 6; }));
  EXPECT_EQ(first.get_best_known_height(), 6u) << "its own";
}

}  // namespace
}  // namespace norvel::network
