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
  explicit FullListener(const std::string& ip) : listener_(RawListener(ip, 0)) {
    for (int i = 0; i < 4; ++i) {
      waiting_.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      const sockaddr_in address = loopback(ip, port());
      ::connect(waiting_.back().get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
  }

  uint16_t port() const { return listener_->port(); }
  void end() { listener_.reset(); }

 private:
  std::optional<RawListener> listener_;
  std::vector<FileDescriptor> waiting_;
};

class Manager : public testing::Test {
 protected:
  void SetUp() override { start(); }

  void start(uint64_t max_inbound = 50, uint64_t max_outbound = 8, std::vector<std::string> fixed = {}) {
    manager_.reset();
    manager_ = std::make_unique<NetworkManager>(port_, "127.0.0.1", directory_.path(), max_inbound, max_outbound, 600);
    manager_->set_fixed_peers(std::move(fixed));
    manager_->set_callbacks({.block_received = {},
                             .transaction_received = {},
                             .peer_connected =
                                 [this](const std::string&) {
                                   ++connected_;
                                   manager_->get_clock().stall_ms(stall_ms_.exchange(0));
                                 },
                             .peer_disconnected = [this](const std::string&) { ++disconnected_; }});
    ASSERT_TRUE(manager_->start(true));
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
  const Bytes version = version_message(uint16_t{4'444}, 5, unix_time_seconds()).serialize();
  for (const uint8_t byte : version) {
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
  peer.send(Message{MessageType::VERACK, {}});
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
  RawListener listener("127.0.0.9");
  ASSERT_TRUE(manager_->connect_to_peer("127.0.0.9", listener.port()));
  auto peer = listener.accept();
  ASSERT_TRUE(peer);
  EXPECT_EQ(peer->next()->type, MessageType::VERSION);
  peer->send(version_message(uint16_t{4'444}));
  EXPECT_EQ(peer->next()->type, MessageType::VERACK);
  EXPECT_TRUE(eventually([&] { return keys() == std::set<std::string>{"127.0.0.9:4444"}; }));
  EXPECT_TRUE(eventually([&] { return manager_->get_peers()[0].handshake_complete; }));
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", listener.port()));
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", 4'444));
  EXPECT_EQ(manager_->get_peer_counts().outbound, 1u);
  peer.reset();
  EXPECT_TRUE(eventually([&] { return is_empty(); }));
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", free_port())) << "nobody listens";
  EXPECT_TRUE(is_empty());
}

TEST_F(Manager, RefusesWhomItMustNotLetIn) {
  start(5, 0);
  manager_->get_clock().advance_ms(1'005 - manager_->get_clock().now_ms() % 1'000);
  std::vector<RawPeer> peers;
  for (int i = 0; i < 3; ++i) {
    peers.emplace_back("127.0.0.2", port_);
    EXPECT_TRUE(peers.back().is_served());
  }
  RawPeer fourth("127.0.0.2", port_);
  EXPECT_TRUE(fourth.is_closed());
  manager_->ban_peer("127.0.0.3", "");
  RawPeer banned("127.0.0.3", port_);
  EXPECT_TRUE(banned.is_closed());
  peers.emplace_back("127.0.0.4", port_);
  peers.emplace_back("127.0.0.5", port_);
  EXPECT_TRUE(peers.back().is_served());
  RawPeer sixth("127.0.0.6", port_);
  EXPECT_TRUE(sixth.is_closed());
  EXPECT_EQ(manager_->get_peer_counts().inbound, 5u);
  RawListener listener;
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.1", listener.port())) << "no outbound peers allowed";
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
    for (const uint32_t before : {99 - row.points, 100 - row.points}) {
      const std::string ip = "127.0.0." + std::to_string(host++);
      SCOPED_TRACE(row.label + std::string(" after ") + std::to_string(before));
      if (before == 100) {
        continue;
      }
      // Within one second of the clock.
      manager_->get_clock().advance_ms(1'005 - manager_->get_clock().now_ms() % 1'000);
      manager_->increment_misbehavior(ip + ":1", before);
      RawPeer peer(ip, port_);
      ASSERT_TRUE(peer.send(row.data));
      const bool bans = before + row.points == 100;
      if (!bans && !row.ends) {
        for (int i = 0; i < row.pongs; ++i) {
          ASSERT_TRUE(peer.await(MessageType::PONG));
        }
        manager_->get_clock().advance_ms(1'000);
        EXPECT_TRUE(peer.is_served());
      } else {
        EXPECT_TRUE(peer.is_closed());
      }
      EXPECT_EQ(manager_->is_peer_banned(ip), bans);
    }
  }
}

TEST_F(Manager, LiftsABanInTime) {
  manager_->increment_misbehavior("127.0.0.7:1", 100);
  ASSERT_TRUE(manager_->is_peer_banned("127.0.0.7"));
  manager_->get_clock().advance_ms(601'000);
  EXPECT_TRUE(eventually([&] { return !manager_->is_peer_banned("127.0.0.7"); }));
  RawPeer peer("127.0.0.7", port_);
  EXPECT_TRUE(peer.is_served());
}

TEST_F(Manager, LeavesItselfForGood) {
  RawListener listener("127.0.0.9");
  ASSERT_TRUE(manager_->connect_to_peer("127.0.0.9", listener.port()));
  auto peer = listener.accept();
  ASSERT_TRUE(peer);
  const auto nonce = decode_version(peer->next()->payload)->nonce;
  testing::internal::CaptureStdout();
  peer->send(version_message(listener.port(), *nonce));
  EXPECT_TRUE(peer->is_closed());
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[Network] Self-connect detectado (" +
                                                        make_key("127.0.0.9", listener.port()) +
                                                        " somos nosotros): cerrando y vetando la direccion\n");
  EXPECT_TRUE(is_empty());
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", listener.port()));
}

TEST_F(Manager, BelievesOnlyItselfThatASeedIsItself) {
  RawListener seed("127.0.0.9");
  manager_->add_seed_node("127.0.0.9", seed.port());
  auto dialled = seed.accept();
  ASSERT_TRUE(dialled);
  const auto nonce = decode_version(dialled->next()->payload)->nonce;
  const auto lie_inbound = [&] {
    RawPeer liar("127.0.0.9", port_);
    liar.send(version_message(seed.port(), *nonce));
    EXPECT_TRUE(liar.is_closed());
  };
  lie_inbound();  // while the seed has yet to answer
  dialled.reset();
  ASSERT_TRUE(eventually([&] { return is_empty(); }));
  lie_inbound();
  RawListener echo("127.0.0.9");
  ASSERT_TRUE(manager_->connect_to_peer("127.0.0.9", echo.port()));
  auto liar = echo.accept();
  ASSERT_TRUE(liar);
  liar->send(version_message(seed.port(), *nonce));
  EXPECT_TRUE(liar->is_closed());
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", echo.port()));
  EXPECT_FALSE(manager_->connect_to_peer("127.0.0.9", seed.port()));
  manager_->get_clock().advance_ms(10'000);
  EXPECT_TRUE(seed.accept());

  manager_->add_seed_node("127.0.0.1", port_);
  RawPeer peer("127.0.0.8", port_);
  peer.shake_hands(4'444);
  const auto is_told = [&] {
    peer.send(Message{MessageType::GETADDR, {}});
    const auto answer = peer.await(MessageType::ADDR);
    const auto entries = decode_addresses(answer ? answer->payload : Bytes());
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
      manager_->get_clock().advance_ms(1'005 - manager_->get_clock().now_ms() % 1'000);
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
  RawListener listener("127.0.0.9");
  RawPeer peer("127.0.0.8", port_);
  peer.shake_hands(4'444);
  peer.send(Message{MessageType::ADDR, encode_addresses({{{127, 0, 0, 9}, listener.port(), 77, 1},
                                                         {{127, 0, 0, 1}, port_, 78, 1},
                                                         {{127, 0, 0, 9}, 0, 79, 1}})});
  auto dialled = listener.accept();
  ASSERT_TRUE(dialled);
  EXPECT_EQ(dialled->next()->type, MessageType::VERSION);
  peer.send(Message{MessageType::GETADDR, {}});
  const auto told = peer.await(MessageType::ADDR);
  ASSERT_TRUE(told);
  std::set<std::string> keys_told;
  const auto entries = decode_addresses(told->payload);
  for (const AddressEntry& entry : *entries) {
    keys_told.insert(make_key(format_ipv4(entry.ip), entry.port));
  }
  EXPECT_EQ(keys_told, (std::set<std::string>{make_key("127.0.0.9", listener.port()), make_key("127.0.0.1", port_)}));
  EXPECT_EQ(manager_->get_peer_count(), 2u) << "its own listener is not dialled";
}

TEST_F(Manager, DialsSeedsAndForCallersWhileOthersDoNotAnswer) {
  start(50, 60);
  FullListener dead("0.0.0.0");
  RawListener live("0.0.0.0", 100);
  RawPeer teller("127.0.0.8", port_);
  teller.shake_hands(std::nullopt);
  const auto tell = [&](uint8_t net, uint8_t count, uint16_t port) {
    std::vector<AddressEntry> entries;
    for (uint8_t i = 1; i <= count; ++i) {
      entries.push_back({{127, 1, net, i}, port, 5, 1});
    }
    teller.send(Message{MessageType::ADDR, encode_addresses(entries)});
  };
  tell(1, 30, dead.port());
  tell(2, 100, live.port());
  ASSERT_TRUE(teller.is_served());
  EXPECT_TRUE(manager_->connect_to_peer("127.0.0.9", live.port())) << "the queue leaves some dials to callers";
  manager_->add_seed_node("127.0.0.10", live.port());
  EXPECT_EQ(keys().count(make_key("127.0.0.10", live.port())), 0u) << "all workers wait";
  dead.end();
  EXPECT_TRUE(eventually([&] { return keys().contains(make_key("127.0.0.10", live.port())); }))
      << "before 60 of the others";
}

TEST_F(Manager, RemembersPeersAndDialsThemAgain) {
  RawListener listener("127.0.0.9");
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
  manager_->get_clock().advance_ms(3'000);
  EXPECT_TRUE(listener.accept());
}

TEST_F(Manager, DialsWhomItReachedBeforeBesideWhomItIsTold) {
  start(50, 20);
  RawListener listener("0.0.0.0", 100);
  ASSERT_TRUE(manager_->connect_to_peer("127.0.0.9", listener.port()));
  auto reached = listener.accept();
  ASSERT_TRUE(reached);
  reached->send(version_message(listener.port()));
  ASSERT_TRUE(reached->await(MessageType::VERACK));
  reached.reset();
  ASSERT_TRUE(eventually([&] { return is_empty(); }));
  std::ofstream list(directory_ / "peers.dat");
  for (size_t i = 0; i < kKnownPeersMax; ++i) {
    list << "127.1." << i / 250 << '.' << i % 250 + 1 << ':' << listener.port() << " 9999999999\n";
  }
  list.close();
  manager_->load_peer_list();
  manager_->get_clock().advance_ms(10'000);
  EXPECT_TRUE(eventually([&] { return keys().contains(make_key("127.0.0.9", listener.port())); }));
}

TEST_F(Manager, DialsANameAgainSoonAfterAHandshake) {
  RawListener listener;
  start(50, 8, {make_key("localhost", listener.port())});
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    manager_->get_clock().advance_ms(10'000);
    auto peer = listener.accept();
    ASSERT_TRUE(peer);
    peer->send(version_message(std::nullopt));
    ASSERT_TRUE(peer->await(MessageType::VERACK));
    peer.reset();
    ASSERT_TRUE(eventually([&] { return is_empty(); }));
  }
}

TEST_F(Manager, DialsFixedPeersOnly) {
  RawListener known("127.0.0.9");
  RawPeer peer("127.0.0.9", port_);
  peer.shake_hands(known.port());
  RawListener fixed("127.0.0.10");
  start(50, 8, {make_key("127.0.0.10", fixed.port())});
  const int gone = disconnected_;
  manager_->get_clock().advance_ms(3'000);
  EXPECT_TRUE(fixed.accept()) << "and hung up";
  EXPECT_TRUE(eventually([&] { return disconnected_ > gone; }));
  manager_->get_clock().advance_ms(10'000);
  EXPECT_TRUE(fixed.accept());
  EXPECT_FALSE(known.accept(kQuietMs));
}

TEST_F(Manager, EndsPeersWhoseTimeIsUp) {
  start(2);
  RawPeer mute("127.0.0.2", port_);
  ASSERT_TRUE(mute.is_served());
  RawPeer good("127.0.0.3", port_);
  good.shake_hands(std::nullopt);
  manager_->get_clock().advance_ms(59'000);
  EXPECT_TRUE(mute.is_served());
  RawPeer refused("127.0.0.4", port_);
  EXPECT_TRUE(refused.is_closed()) << "all places are taken";
  manager_->get_clock().advance_ms(1'500);
  EXPECT_TRUE(mute.is_closed());
  RawPeer newcomer("127.0.0.4", port_);
  EXPECT_TRUE(newcomer.is_served());
  EXPECT_TRUE(good.is_served());
  manager_->get_clock().advance_ms(61'000);
  EXPECT_TRUE(good.await(MessageType::PING)) << "no PONG for two minutes";
  manager_->get_clock().advance_ms(301'000);
  EXPECT_TRUE(good.is_closed());
  EXPECT_TRUE(is_empty());
}

TEST_F(Manager, ExcusesPeersWhileItDidNotRead) {
  RawPeer mute("127.0.0.2", port_);
  ASSERT_TRUE(mute.is_served());
  RawPeer good("127.0.0.3", port_);
  good.shake_hands(std::nullopt);
  stall_ms_ = 400'000;
  RawPeer last("127.0.0.4", port_);
  last.shake_hands(std::nullopt);
  EXPECT_TRUE(good.await(MessageType::PING)) << "so its silence was looked at";
  EXPECT_TRUE(good.is_served());
  EXPECT_TRUE(mute.is_served()) << "its handshake too";
}

TEST_F(Manager, StopsReadingAPeerThatTakesNothing) {
  RawPeer greedy("127.0.0.2", port_);
  greedy.shake_hands(std::nullopt);
  const Bytes ping = Message{MessageType::PING, Bytes(kPayloadBytesMax)}.serialize();
  int sent = 0;
  while (sent < 40 && greedy.send(ping)) {
    ++sent;
  }
  EXPECT_LT(sent, 20) << "8 MiB of queue and what the system holds";
  RawPeer other("127.0.0.3", port_);
  EXPECT_TRUE(other.is_served());
  const auto pong = greedy.await(MessageType::PONG);
  ASSERT_TRUE(pong);
  EXPECT_EQ(pong->payload.size(), kPayloadBytesMax);
  EXPECT_TRUE(eventually([&] {
    manager_->get_clock().advance_ms(10'000);
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
    const uint64_t time_s = unix_time_seconds() + static_cast<uint64_t>(row.offset_s);
    peer.send(version_message(std::nullopt, 5, time_s, row.height));
    ASSERT_TRUE(peer.await(MessageType::VERSION));
    EXPECT_NEAR(static_cast<double>(manager_->get_clock_offset_s()), row.want_s, 3);
    EXPECT_EQ(manager_->get_best_known_height(), row.want_height);
  }
  RawListener listener("127.0.0.9");
  ASSERT_TRUE(manager_->connect_to_peer("127.0.0.9", listener.port()));
  auto dialled = listener.accept();
  dialled->send(version_message(std::nullopt, 5, 0, 70));
  EXPECT_TRUE(eventually([&] { return manager_->get_best_known_height() == 70; })) << "whom this node chose counts";
}

TEST(ManagerWithAChain, CatchesUpAlsoWhenVerackComesFirst) {
  const TemporaryDirectory directory;
  ChainScene scene;
  for (const bool verack_first : {false, true}) {
    SCOPED_TRACE(verack_first);
    RawListener listener("127.0.0.9");
    NetworkManager manager(free_port(), "127.0.0.1", directory.path(), 8, 8, 600);
    manager.set_blockchain(&scene.chain());
    ASSERT_TRUE(manager.start(false));
    EXPECT_FALSE(manager.is_listening());
    ASSERT_TRUE(manager.connect_to_peer("127.0.0.9", listener.port()));
    auto peer = listener.accept();
    ASSERT_TRUE(peer);
    const Message verack{MessageType::VERACK, {}};
    const Message version = version_message(std::nullopt, 5, 0, 1'000);
    peer->send(verack_first ? verack : version);
    peer->send(verack_first ? version : verack);
    EXPECT_TRUE(peer->await(MessageType::GETBLOCKS));
  }
}

TEST(TwoManagers, RelayABlockFromOneChainToTheOther) {
  ChainScene scenes[2];
  const TemporaryDirectory directories[2];
  std::vector<std::unique_ptr<NetworkManager>> managers;
  uint16_t ports[2] = {free_port(), free_port()};
  for (int i = 0; i < 2; ++i) {
    managers.push_back(std::make_unique<NetworkManager>(ports[i], "127.0.0." + std::to_string(i + 1),
                                                        directories[i].path(), 8, 8, 600));
    managers.back()->set_blockchain(&scenes[i].chain());
  }
  for (int i = 0; i < 5; ++i) {
    scenes[0].extend();
  }
  ASSERT_TRUE(managers[0]->start(true));
  ASSERT_TRUE(managers[1]->start(true));
  ASSERT_TRUE(managers[1]->connect_to_peer("127.0.0.1", ports[0]));
  EXPECT_TRUE(eventually([&] { return scenes[1].chain().get_best_height() == 5; }));
  const Block block = make_child(scenes[1].tip());
  std::string error;
  EXPECT_TRUE(managers[1]->accept_block(block, error)) << error;
  EXPECT_TRUE(eventually([&] { return scenes[0].chain().get_best_height() == 6; }));
  EXPECT_EQ(managers[1]->get_best_known_height(), 6u) << "its own";
}

}  // namespace
}  // namespace norvel::network
