#include "network/address_text.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <charconv>
#include <cstring>

namespace norvel::network {

std::string make_key(std::string_view address, uint16_t port) {
  return std::string(address) + ":" + std::to_string(port);
}

std::optional<HostPort> split_key(std::string_view text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  const char* const end = text.data() + text.size();
  uint16_t port = 0;
  const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, port);
  if (error != std::errc() || stop != end || port == 0) {
    return std::nullopt;
  }
  return HostPort{std::string(text.substr(0, colon)), port};
}

std::string ip_of_key(std::string_view key) {
  return std::string(key.substr(0, key.rfind(':')));
}

std::optional<Ipv4> parse_ipv4(const std::string& text) {
  in_addr address{};
  if (::inet_pton(AF_INET, text.c_str(), &address) != 1) {
    return std::nullopt;
  }
  Ipv4 ip;
  static_assert(sizeof address == ip.size());
  std::memcpy(ip.data(), &address, ip.size());
  return ip;
}

std::string format_ipv4(const Ipv4& ip) {
  std::string text;
  for (const uint8_t octet : ip) {
    text += (text.empty() ? "" : ".") + std::to_string(octet);
  }
  return text;
}

bool is_private_address(std::string_view ip) {
  if (ip.starts_with("127.") || ip.starts_with("10.") || ip.starts_with("192.168.")) {
    return true;
  }
  constexpr std::string_view kPrefix = "172.";
  if (!ip.starts_with(kPrefix)) {
    return false;
  }
  const std::string_view rest = ip.substr(kPrefix.size());
  unsigned second = 0;
  const auto [stop, error] = std::from_chars(rest.data(), rest.data() + rest.size(), second);
  return error == std::errc() && stop != rest.data() + rest.size() && *stop == '.' && second >= 16 && second <= 31;
}

std::string group_of(const std::string& address) {
  const auto ip = parse_ipv4(address);
  if (!ip || is_private_address(address)) {
    return "";
  }
  return std::to_string((*ip)[0]) + "." + std::to_string((*ip)[1]);
}

}  // namespace norvel::network
