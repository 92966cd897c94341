// Addresses of peers as text and bytes. A key is "address:port", the port decimal.
//
// Threads: free functions without state.

#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace norvel::network {

using Ipv4 = std::array<uint8_t, 4>;  // first octet first

std::string make_key(std::string_view address, uint16_t port);

struct HostPort {
  std::string host;
  uint16_t port = 0;

  bool operator==(const HostPort&) const = default;
};

// Splits at the last ":"; the port is decimal, 1 to 65535, and nothing follows it.
std::optional<HostPort> split_key(std::string_view text);

// What stands before the last ":"; all of it without one.
std::string ip_of_key(std::string_view key);

// Four decimal octets; nothing else.
std::optional<Ipv4> parse_ipv4(const std::string& text);
std::string format_ipv4(const Ipv4& ip);

// Of a loopback or private range: 127/8, 10/8, 192.168/16 or 172.16/12.
bool is_private_address(std::string_view ip);

// The /16: "203.0" of 203.0.113.7; empty for a name or a private address.
std::string group_of(const std::string& address);

}  // namespace norvel::network
