#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ZuNetwork/ZuIPAddr.h"
#include "ZuNetwork/ZuSocket_C.h"

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

// For the plain functions, whose tests do without the class above them.
inline ZUNET_SockAddr SockAddr(const std::string& text, int port = 0) {
  ZUNET_SockAddr address{};
  if (text.find(':') != std::string::npos) {
    address.addr.v6 = V6(text.c_str(), port);
  } else {
    address.addr.v4 = V4(text.c_str(), port);
  }
  return address;
}

inline CZuIPAddr Address(const std::string& text, int port = 0) { return SockAddr(text, port); }

// As "10.1.2.3", "::1", or "family 7" for what is neither.
inline std::string Text(const ZUNET_SockAddr& address) {
  const int family = address.addr.f.family;
  char text[INET6_ADDRSTRLEN] = "";
  if (family == AF_INET) return inet_ntop(family, &address.addr.v4.sin_addr, text, sizeof text);
  if (family == AF_INET6) return inet_ntop(family, &address.addr.v6.sin6_addr, text, sizeof text);
  return "family " + std::to_string(family);
}

inline std::string Text(const CZuIPAddr& address) { return Text(address.m_Addr); }

inline std::vector<std::string> Texts(const std::vector<CZuIPAddr>& addresses) {
  std::vector<std::string> texts;
  for (const CZuIPAddr& address : addresses) texts.push_back(Text(address));
  return texts;
}
