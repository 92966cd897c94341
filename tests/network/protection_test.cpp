// Bans, connection rate, subnets, and the texts of addresses.

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <vector>

#include "network/address_text.h"
#include "network/ban_list.h"
#include "network/connection_rate.h"
#include "network/connections.h"
#include "network/network_manager.h"
#include "network/subnet_guard.h"

namespace norvel::network {
namespace {

TEST(NetworkClock, CountsOneSecondOfAPassThatStalls) {
  NetworkClock clock;
  const int64_t begin = clock.heard_ms();
  const auto heard_s = [&] { return (clock.heard_ms() - begin) / 1'000; };
  clock.stall_ms(5'000);
  EXPECT_EQ(heard_s(), 5) << "no pass has begun";
  clock.begin_pass();
  clock.stall_ms(100'000);
  EXPECT_EQ(heard_s(), 6);
  clock.begin_pass();
  EXPECT_EQ(heard_s(), 6) << "does not go back";
  clock.advance_ms(10'000);
  EXPECT_EQ(heard_s(), 16) << "by hand is no stall";
  clock.stall_ms(100'000);
  clock.end_passes();
  EXPECT_EQ(heard_s(), 17);
  clock.stall_ms(5'000);
  EXPECT_EQ(heard_s(), 22);
  EXPECT_GE(clock.now_ms() - begin, 220'000);
}

TEST(BanList, BansAtAHundredPointsAndForgivesInTime) {
  NetworkClock clock;
  BanList bans(clock, 60);
  EXPECT_FALSE(bans.add_points("203.0.113.7", 99));
  EXPECT_FALSE(bans.add_points("203.0.113.8", 99));
  EXPECT_TRUE(bans.add_points("203.0.113.7", 1));
  EXPECT_TRUE(bans.add_points("203.0.113.7", 0xffffffff)) << "does not wrap";
  EXPECT_FALSE(bans.is_banned("203.0.113.7"));
  bans.ban("203.0.113.7");
  EXPECT_FALSE(bans.add_points("203.0.113.7", 99)) << "the score went with the ban";
  clock.advance_ms(59'000);
  EXPECT_TRUE(bans.expire().empty());
  EXPECT_TRUE(bans.is_banned("203.0.113.7"));
  clock.advance_ms(2'000);
  EXPECT_EQ(bans.expire(), std::vector<std::string>{"203.0.113.7"});
  EXPECT_FALSE(bans.is_banned("203.0.113.7"));
  bans.ban("203.0.113.8");
  bans.unban("203.0.113.8");
  EXPECT_FALSE(bans.is_banned("203.0.113.8"));
}

TEST(BanList, IsBounded) {
  NetworkClock clock;
  BanList bans(clock, 60);
  bans.ban("0");
  clock.advance_ms(2'000);
  for (size_t i = 1; i <= kBanEntriesMax; ++i) {
    bans.ban(std::to_string(i));
  }
  EXPECT_FALSE(bans.is_banned("0")) << "the oldest made room";
  EXPECT_TRUE(bans.is_banned("1"));
}

TEST(ConnectionRate, AdmitsThreeASecond) {
  NetworkClock clock;
  ConnectionRate rate(clock);
  clock.advance_ms(1'000 - clock.now_ms() % 1'000);  // to the start of a second
  for (const bool want : {true, true, true, false, false}) {
    EXPECT_EQ(rate.admit("203.0.113.7"), want);
  }
  EXPECT_TRUE(rate.admit("203.0.113.8"));
  clock.advance_ms(1'000);
  rate.purge();
  EXPECT_TRUE(rate.admit("203.0.113.7"));
}

TEST(SubnetGuard, CountsPublicAddressesByTheirFirstThreeOctets) {
  const struct {
    const char* ip;
    bool counted;
  } rows[] = {
      {"203.0.113.7", true}, {"127.0.0.1", false},    {"10.1.2.3", false},  {"192.168.1.1", false},
      {"172.16.0.1", false}, {"172.31.255.1", false}, {"172.15.0.1", true}, {"172.32.0.1", true},
      {"172.160.0.1", true}, {"192.169.1.1", true},   {"100.64.0.1", true}, {"11.0.0.1", true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.ip);
    SubnetGuard guard;
    std::vector<SubnetGuard::Slot> slots;
    for (int i = 0; i < 3; ++i) {
      auto admission = guard.check_and_register(row.ip);
      ASSERT_TRUE(admission.allowed);
      slots.push_back(std::move(admission.slot));
    }
    EXPECT_EQ(guard.check_and_register(row.ip).allowed, !row.counted);
    EXPECT_EQ(guard.count_of(row.ip), row.counted ? 3u : 0u) << "the refused one is not counted";
    slots.pop_back();
    EXPECT_TRUE(guard.check_and_register(row.ip).allowed);
    slots.clear();
    EXPECT_EQ(guard.count_of(row.ip), 0u);
  }
  SubnetGuard guard;
  std::vector<SubnetGuard::Slot> slots;
  for (const char* ip : {"203.0.113.1", "203.0.113.2", "203.0.113.3"}) {
    slots.push_back(guard.check_and_register(ip).slot);
  }
  EXPECT_EQ(guard.check_and_register("203.0.113.4").refusal,
            "[Network] Eclipse guard: refusing 203.0.113.4 (203.0.113.x already has 3 connections)");
  EXPECT_TRUE(guard.check_and_register("203.0.114.4").allowed);
}

TEST(Connections, GiveTheirPlacesBack) {
  NetworkClock clock;
  LogLimiter log(clock);
  const NetworkCallbacks callbacks;
  Connections connections({8, 8, 60}, clock, log, callbacks);
  const auto enters = [&](const std::string& ip, uint16_t port = 1) {
    return connections.admit_inbound(FileDescriptor(::socket(AF_INET, SOCK_STREAM, 0)), ip, port);
  };
  EXPECT_FALSE(enters("203.0.113.1")) << "not open";
  EXPECT_EQ(connections.subnets().count_of("203.0.113.1"), 0u);
  connections.open();
  EXPECT_TRUE(enters("203.0.113.1"));
  EXPECT_FALSE(enters("203.0.113.1")) << "the key is taken";
  EXPECT_TRUE(connections.reserve_outbound("203.0.113.2")) << "a dial that failed at once";
  EXPECT_TRUE(enters("203.0.113.2"));
  EXPECT_TRUE(enters("203.0.113.3"));
  EXPECT_FALSE(enters("203.0.113.4"));
  EXPECT_FALSE(connections.reserve_outbound("203.0.113.4"));
  connections.ban("203.0.113.3", "");
  EXPECT_FALSE(connections.reserve_outbound("203.0.113.3"));
  connections.disconnect("203.0.113.1:1");
  connections.disconnect("203.0.113.1:1");
  EXPECT_EQ(connections.subnets().count_of("203.0.113.1"), 1u);
  EXPECT_EQ(connections.table().inbound_count(), 1u);
  connections.close();
  EXPECT_EQ(connections.subnets().count_of("203.0.113.1"), 0u);
  EXPECT_EQ(connections.table().inbound_count(), 0u);
}

TEST(ParseAddress, SplitsAtTheLastColon) {
  const struct {
    const char* text;
    const char* host;  // null: refused
    uint16_t port;
  } rows[] = {
      {"127.0.0.1:8333", "127.0.0.1", 8333},
      {"a:b:1", "a:b", 1},
      {"host:65535", "host", 65535},
      {"host:65536", nullptr, 0},
      {"host:0", nullptr, 0},
      {"host", nullptr, 0},
      {"host:", nullptr, 0},
      {"host:8x", nullptr, 0},
      {"host:-1", nullptr, 0},
      {"host: 1", nullptr, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    std::string host = "before";
    uint16_t port = 7;
    EXPECT_EQ(utils::parse_address(row.text, host, port), row.host != nullptr);
    EXPECT_EQ(host, row.host == nullptr ? "before" : row.host);
    EXPECT_EQ(port, row.host == nullptr ? 7 : row.port);
  }
}

TEST(TimestampValid, HoldsTwoHoursEitherWay) {
  const int64_t now = utils::get_current_timestamp();
  EXPECT_TRUE(utils::is_timestamp_valid(now - 7'199));
  EXPECT_TRUE(utils::is_timestamp_valid(now + 7'200));
  EXPECT_FALSE(utils::is_timestamp_valid(now - 7'210));
  EXPECT_FALSE(utils::is_timestamp_valid(now + 7'210));
  EXPECT_FALSE(utils::is_timestamp_valid(INT64_MIN));
}

}  // namespace
}  // namespace norvel::network
