// Known addresses: limits, seeds, the file, and when they are dialled again.

#include "network/address_book.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <random>
#include <set>

#include "network/address_text.h"
#include "network/dial_backoff.h"
#include "support/chain_builder.h"

namespace norvel::network {
namespace {

class AddressBookTest : public testing::Test {
 protected:
  KnownPeer seen(const std::string& address, int64_t last_seen, uint16_t port = 8333) const {
    return {.address = address, .port = port, .last_seen = last_seen};
  }

  bool knows(const std::string& key) const {
    return std::ranges::any_of(book_.list(),
                               [&](const KnownPeer& peer) { return make_key(peer.address, peer.port) == key; });
  }

  NetworkClock clock_;
  AddressBook book_{clock_};
};

TEST_F(AddressBookTest, TheLeastRecentlySeenOfAGroupLeaves) {
  book_.add_seed("203.0.0.1", 8333);
  for (int i = 0; i < 65; ++i) {
    book_.add(seen("203.0.113." + std::to_string(i), 1'000 + i));
  }
  EXPECT_EQ(book_.size(), 65u);
  EXPECT_FALSE(knows("203.0.113.0:8333"));
  EXPECT_TRUE(knows("203.0.113.1:8333"));
  EXPECT_TRUE(knows("203.0.0.1:8333"));
  EXPECT_FALSE(book_.add(seen("203.0.114.1", 5))) << "older than all of its group";
  // One that claims the future ranks as seen now, and so does not outlive a later one.
  ASSERT_TRUE(book_.add(seen("203.0.115.1", INT64_MAX)));
  clock_.advance_ms(10'000);
  for (int i = 0; i < 64; ++i) {
    book_.note_version("203.0.116." + std::to_string(i), 8333, 8333);
  }
  EXPECT_FALSE(knows("203.0.115.1:8333"));
  for (int i = 0; i < 100; ++i) {
    book_.add(seen("192.168.0." + std::to_string(i), 1));
  }
  EXPECT_EQ(book_.size(), 165u) << "private ranges have no group";
}

TEST_F(AddressBookTest, StaysBelowItsLimitUnderAFlood) {
  std::mt19937 random(5);
  book_.add_seed("seed.example.org", 8333);
  for (int i = 0; i < 100'000; ++i) {
    const auto bits = static_cast<uint32_t>(random());
    book_.add(seen(format_ipv4({static_cast<uint8_t>(bits), static_cast<uint8_t>(bits >> 8),
                                static_cast<uint8_t>(bits >> 16), static_cast<uint8_t>(bits >> 24)}),
                   i + 1));
  }
  EXPECT_EQ(book_.size(), kKnownPeersMax);
  EXPECT_TRUE(knows("seed.example.org:8333"));
  const auto told = book_.sample("");
  ASSERT_EQ(told.size(), kAddressesMax);
  std::set<std::string> keys;
  for (const KnownPeer& peer : book_.list()) {
    keys.insert(make_key(peer.address, peer.port));
  }
  const std::string last_told = *std::next(keys.begin(), kAddressesMax);  // one name and all addresses before it
  for (const AddressEntry& entry : told) {
    EXPECT_LE(make_key(format_ipv4(entry.ip), entry.port), last_told);
  }
}

TEST_F(AddressBookTest, MovesARecordWithItsPort) {
  book_.add({.address = "203.0.113.7", .port = 1'000, .last_seen = 5, .services = 9});
  book_.add_seed("203.0.113.8", 1'000);
  book_.note_version("203.0.113.7", 1'000, 2'000);
  book_.note_version("203.0.113.8", 1'000, 2'000);
  book_.note_version("203.0.113.9", 1'000, 0);
  const auto known = book_.list();
  ASSERT_EQ(known.size(), 3u);
  EXPECT_EQ(make_key(known[0].address, known[0].port), "203.0.113.7:2000");
  EXPECT_EQ(known[0].services, 9u);
  EXPECT_GE(known[0].last_seen, clock_.now() - 1);
  EXPECT_TRUE(known[1].seed && known[1].port == 1'000);
  EXPECT_EQ(known[2].services, 1u);
}

TEST_F(AddressBookTest, NeverKnowsItself) {
  book_.add(seen("203.0.113.7", 5, 1));
  book_.add(seen("203.0.113.7", 5, 2));
  book_.mark_self("203.0.113.7:1", "203.0.113.7:2", false);
  EXPECT_EQ(book_.size(), 0u);
  EXPECT_FALSE(book_.add(seen("203.0.113.7", 5, 1)));
  EXPECT_FALSE(book_.is_self("203.0.113.7:2")) << "the source port of a peer";
  book_.add_seed("203.0.113.7", 1);
  book_.mark_self("203.0.113.7:1", "203.0.113.7:1", false);
  EXPECT_EQ(book_.size(), 1u) << "what was told is nothing against a seed";
  EXPECT_FALSE(book_.was_reached_as_self("203.0.113.7:1"));
  book_.add_seed("203.0.113.7", 4);
  book_.mark_self("203.0.113.7:3", "203.0.113.7:4", true);
  book_.add_seed("203.0.113.7", 4);
  EXPECT_EQ(book_.size(), 1u);
  for (size_t i = 0; i < 5 * kSelfAddressesMax; ++i) {
    book_.mark_self("203.0.113.8:" + std::to_string(i), "203.0.113.8:0", false);
  }
  EXPECT_FALSE(book_.is_self("203.0.113.7:1")) << "the oldest claim made room";
  EXPECT_FALSE(book_.is_self("203.0.113.8:" + std::to_string(4 * kSelfAddressesMax - 1)));
  EXPECT_TRUE(book_.is_self("203.0.113.8:" + std::to_string(4 * kSelfAddressesMax)));
  EXPECT_TRUE(book_.is_self("203.0.113.7:3") && book_.is_self("203.0.113.7:4"));
}

TEST_F(AddressBookTest, TellsAllButNamesAndTheAsker) {
  book_.add(seen("203.0.113.7", 5));
  book_.add(seen("203.0.113.8", 6));
  book_.add_seed("seed.example.org", 8333);
  EXPECT_EQ(book_.sample("203.0.113.7:8333"), (std::vector<AddressEntry>{{{203, 0, 113, 8}, 8333, 6, 0}}));
}

TEST_F(AddressBookTest, ReadsWhatItWroteAndSkipsTheRest) {
  const TemporaryDirectory directory;
  const std::string path = directory / "peers.dat";
  EXPECT_EQ(book_.load(path), std::nullopt);
  book_.add(seen("203.0.113.8", 6));
  book_.add(seen("203.0.113.7", 5, 7));
  ASSERT_TRUE(book_.save(path));
  std::ifstream in(path);
  const std::string text((std::istreambuf_iterator<char>(in)), {});
  EXPECT_EQ(text, "# Norvel peer list\n203.0.113.7:7 5\n203.0.113.8:8333 6\n");
  std::ofstream(path, std::ios::app) << "\n#1.2.3.4:5 6\n1.2.3.4:0 1\n1.2.3.4:65536 1\nno port\n:9 1\n1.2.3.4:x\n"
                                     << std::string(100'000, 'a') << ":1 2\n5.6.7.8:90";
  AddressBook other(clock_);
  EXPECT_EQ(other.load(path), 3u);
  const auto known = other.list();
  ASSERT_EQ(known.size(), 3u);
  EXPECT_EQ(known[0], seen("203.0.113.7", 5, 7));
  EXPECT_EQ(known[2], seen("5.6.7.8", 0, 90));
  EXPECT_FALSE(book_.save(directory / "none/peers.dat"));
}

TEST(DialBackoff, DoublesUpToHalfAnHour) {
  NetworkClock clock;
  DialBackoff backoff(clock);
  const std::string key = "203.0.113.7:8333";
  const auto delay_s = [&](int64_t delay_max_ms) {
    backoff.note_dial(key);
    int64_t waited_s = 0;
    for (; !backoff.may_dial(key, delay_max_ms); ++waited_s) {
      clock.advance_ms(1'000);
    }
    return waited_s;
  };
  EXPECT_TRUE(backoff.may_dial(key, kDialDelayMaxMs));
  for (const int64_t want : {10, 20, 40, 80, 160, 320, 640, 1'280, 1'800, 1'800}) {
    EXPECT_EQ(delay_s(kDialDelayMaxMs), want);
  }
  EXPECT_EQ(delay_s(kDialDelayUrgentMs), 60);
  backoff.note_success(key, true);
  EXPECT_FALSE(backoff.may_dial(key, kDialDelayMaxMs));
  clock.advance_ms(10'000);
  EXPECT_TRUE(backoff.may_dial(key, kDialDelayMaxMs));
  EXPECT_EQ(delay_s(kDialDelayMaxMs), 20);
}

TEST(DialBackoff, RemembersWhomItReachedLongerThanOthers) {
  NetworkClock clock;
  DialBackoff backoff(clock);
  backoff.note_success("reached:1", true);
  backoff.note_success("under another port:1", false);
  clock.advance_ms(1'000);
  for (size_t i = 1; i < kDialRecordsMax; ++i) {
    backoff.note_dial(std::to_string(i));
  }
  EXPECT_EQ(backoff.past("under another port:1").last_ms, 0) << "the oldest of the others made room";
  EXPECT_EQ(backoff.list_reached(), std::vector<std::string>{"reached:1"});
  for (size_t i = 0; i <= kReachedPerGroupMax; ++i) {
    clock.advance_ms(1);
    backoff.note_success("203.0.113.7:" + std::to_string(1'000 + i), true);
    backoff.note_success("192.168.0.1:" + std::to_string(1'000 + i), true);
  }
  EXPECT_EQ(backoff.list_reached().size(), 1 + 2 * kReachedPerGroupMax + 1) << "private ranges have no group";
  EXPECT_FALSE(backoff.past("203.0.113.7:1000").reached);
  EXPECT_TRUE(backoff.past("203.0.113.7:1001").reached);
}

}  // namespace
}  // namespace norvel::network
