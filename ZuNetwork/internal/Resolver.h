#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>

#include "ZuNetwork/ZuSocket_C.h"

// getaddrinfo(3) as all of the library asks it: for addresses that a TCP stream can use.

namespace ZuInternal {

struct FreeAddrInfo {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using AddrInfoList = std::unique_ptr<addrinfo, FreeAddrInfo>;

// Returns 0 or the resolver's code.
inline int Resolve(const char* text, int family, int flags, AddrInfoList& list) {
  addrinfo hints{};
  hints.ai_family = family;
  hints.ai_flags = flags;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_protocol = IPPROTO_TCP;
  addrinfo* found = nullptr;
  const int result = getaddrinfo(text, nullptr, &hints, &found);
  list.reset(found);
  return result;
}

inline bool IsUsable(const addrinfo& entry) {
  return entry.ai_family == AF_INET || entry.ai_family == AF_INET6;
}

// Gives `out` the address of a usable entry, with port 0. Of an IPv4 address the 12 bytes behind it
// stay as they are.
inline void CopyAddress(const addrinfo& entry, ZUNET_SockAddr& out) {
  if (entry.ai_family == AF_INET) {
    std::memcpy(&out, entry.ai_addr, sizeof(sockaddr_in));
  } else {
    std::memcpy(&out, entry.ai_addr, sizeof(sockaddr_in6));
  }
  ZUNET_setport(&out, 0);
}

// Gives `out` the first usable address of the list; false where there is none.
inline bool CopyFirstAddress(const addrinfo* entry, ZUNET_SockAddr& out) {
  while (entry != nullptr && !IsUsable(*entry)) entry = entry->ai_next;
  if (entry == nullptr) return false;
  CopyAddress(*entry, out);
  return true;
}

}  // namespace ZuInternal
