#pragma once

#include <net/if.h>
#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "ZuNetwork/ZuSocket_C.h"

namespace ZuInternal {

// The 32-bit word at the place where sockaddr_in has its address. It is read of any family: of IPv6
// it is the flow information, mostly 0.
inline std::uint32_t V4Word(const ZUNET_SockAddr& address) {
  std::uint32_t word;
  const auto* const bytes = reinterpret_cast<const unsigned char*>(&address);
  std::memcpy(&word, bytes + offsetof(sockaddr_in, sin_addr), sizeof word);
  return word;
}

// For messages: "10.1.2.3", "fe80::1%eth0", or "family 0" for what is no address.
inline std::string AddressText(const ZUNET_SockAddr& address) {
  char text[INET6_ADDRSTRLEN + IF_NAMESIZE];
  if (ZUNET_ip2str(&address, text, sizeof text) == 0) return text;
  return "family " + std::to_string(address.addr.f.family);
}

// For messages: the same with its port, "10.1.2.3:80" or "[::1]:80".
inline std::string EndpointText(const ZUNET_SockAddr& address) {
  const std::string text = AddressText(address);
  const std::string port = ":" + std::to_string(ZUNET_getport(&address));
  if (address.addr.f.family == AF_INET) return text + port;
  return address.addr.f.family == AF_INET6 ? "[" + text + "]" + port : text;
}

}  // namespace ZuInternal
