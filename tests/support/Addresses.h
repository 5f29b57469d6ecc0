#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ZuNetwork/ZuIPAddr.h"
#include "support/Expect.h"

// Addresses for tests: made and shown by the system's inet_pton and inet_ntop.

inline sockaddr_in V4(const char* text, int port = 0) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  EXPECT_EQ(inet_pton(AF_INET, text, &address.sin_addr), 1) << text;
  return address;
}

inline sockaddr_in6 V6(const char* text, int port = 0) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(static_cast<std::uint16_t>(port));
  EXPECT_EQ(inet_pton(AF_INET6, text, &address.sin6_addr), 1) << text;
  return address;
}

inline CZuIPAddr Address(const std::string& text, int port = 0) {
  if (text.find(':') != std::string::npos) return V6(text.c_str(), port);
  return V4(text.c_str(), port);
}

// As "10.1.2.3", "::1", or "family 7" for what is neither.
inline std::string Text(const CZuIPAddr& address) {
  const int family = address.m_Addr.addr.f.family;
  char text[INET6_ADDRSTRLEN] = "";
  if (family == AF_INET) return inet_ntop(family, &address.m_Addr.addr.v4.sin_addr, text, 46);
  if (family == AF_INET6) return inet_ntop(family, &address.m_Addr.addr.v6.sin6_addr, text, 46);
  return "family " + std::to_string(family);
}

inline std::vector<std::string> Texts(const std::vector<CZuIPAddr>& addresses) {
  std::vector<std::string> texts;
  for (const CZuIPAddr& address : addresses) texts.push_back(Text(address));
  return texts;
}
