#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "ZuNetwork/ZuIPAddr.h"

// Addresses as their bytes, for all who look at prefixes of them.
namespace zu::internal {

using V6Bytes = std::array<std::uint8_t, 16>;

inline bool IsV4(const CZuIPAddr& address) noexcept {
  return address.m_Addr.addr.f.family == CZuIPAddr::FAMILY_IPV4;
}
inline bool IsV6(const CZuIPAddr& address) noexcept {
  return address.m_Addr.addr.f.family == CZuIPAddr::FAMILY_IPV6;
}

// In host byte order.
inline std::uint32_t V4Number(const CZuIPAddr& address) noexcept {
  return ntohl(address.m_Addr.addr.v4.sin_addr.s_addr);
}

inline V6Bytes ToV6Bytes(const CZuIPAddr& address) noexcept {
  V6Bytes bytes;
  std::memcpy(bytes.data(), &address.m_Addr.addr.v6.sin6_addr, bytes.size());
  return bytes;
}

// Without a family, whatever the process prefers.
inline CZuIPAddr NoAddress() noexcept { return ZUNET_SockAddr{}; }

// "No address was given": a default-constructed one has the family that the process prefers.
bool IsNone(const CZuIPAddr& address) noexcept;

inline socklen_t Length(const CZuIPAddr& address) noexcept {
  return IsV4(address) ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}
inline const sockaddr* ToSockAddr(const CZuIPAddr& address) noexcept {
  return reinterpret_cast<const sockaddr*>(&address.m_Addr);
}

// What a text of a stranger looks like in a message: short, and without control characters.
std::string Printable(std::string_view text);

}  // namespace zu::internal
