#pragma once

#include <netdb.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "ZuNetwork/ZuIPAddr.h"
#include "support/SystemFunction.h"

// Replaces getaddrinfo(3), freeaddrinfo(3) and getnameinfo(3), also for the shared libraries: they
// do what they did until an answer is set up. Only for one source file of an executable.

namespace resolver {

using Forward = std::function<int(const char* name, const addrinfo& hints, addrinfo** list)>;
using Reverse = std::function<int(const sockaddr* address, socklen_t length, char* host,
                                  socklen_t size, int flags)>;

// Lookups come while libraries are loaded, before objects with a constructor are there.
inline std::atomic<const Forward*> gForward{nullptr};
inline std::atomic<const Reverse*> gReverse{nullptr};
inline std::atomic<int> gLists{0};  // handed out and not yet released

inline char gFakeMark[] = "fake";

// The functions look up their copy of the collision address with the first text that they read: the
// real resolver answers that, before any test.
inline const bool kCopyIsMade = [] {
  ZUNET_SockAddr any;
  return ZUNET_str2ip("127.0.0.1", &any) == 0;
}();

// Each address lies in a block of its exact size, so that sanitizers see reads behind it.
inline addrinfo* MakeList(const std::vector<CZuIPAddr>& addresses) {
  addrinfo* first = nullptr;
  addrinfo** next = &first;
  for (const CZuIPAddr& address : addresses) {
    const int family = address.m_Addr.addr.f.family;
    const std::size_t size = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
    auto* const entry = new addrinfo{};
    entry->ai_family = family;
    entry->ai_addrlen = static_cast<socklen_t>(size);
    entry->ai_addr = static_cast<sockaddr*>(std::malloc(size));
    entry->ai_canonname = gFakeMark;
    std::memcpy(entry->ai_addr, &address.m_Addr, size);
    *next = entry;
    next = &entry->ai_next;
  }
  return first;
}

inline void FreeFakeList(addrinfo* list) {
  while (list != nullptr) {
    addrinfo* const entry = std::exchange(list, list->ai_next);
    std::free(entry->ai_addr);
    delete entry;
  }
}

// While it lives, every lookup of a name gets this code and this list, and is noted.
class Answer {
 public:
  explicit Answer(int code, std::vector<CZuIPAddr> addresses = {}) {
    m_forward = [this, code, addresses](const char* name, const addrinfo& hints, addrinfo** list) {
      ++m_count;
      m_name = name;
      m_hints = hints;
      *list = MakeList(addresses);
      return code;
    };
    gForward = &m_forward;
  }
  ~Answer() { gForward = nullptr; }
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;

  int Count() const { return m_count; }
  const std::string& Name() const { return m_name; }  // of the last lookup
  const addrinfo& Hints() const { return m_hints; }

 private:
  Forward m_forward;
  int m_count = 0;
  std::string m_name;
  addrinfo m_hints{};
};

// While it lives, getnameinfo is this function.
class ReverseAnswer {
 public:
  explicit ReverseAnswer(Reverse reverse) : m_reverse(std::move(reverse)) { gReverse = &m_reverse; }
  ~ReverseAnswer() { gReverse = nullptr; }
  ReverseAnswer(const ReverseAnswer&) = delete;
  ReverseAnswer& operator=(const ReverseAnswer&) = delete;

 private:
  Reverse m_reverse;
};

inline SystemFunction<int(const char*, const char*, const addrinfo*, addrinfo**)> gGetAddrInfo{
    "getaddrinfo"};
inline SystemFunction<void(addrinfo*)> gFreeAddrInfo{"freeaddrinfo"};
inline SystemFunction<int(const sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int)>
    gGetNameInfo{"getnameinfo"};

}  // namespace resolver

extern "C" {

int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list) {
  const resolver::Forward* const forward = resolver::gForward;
  const int result = forward != nullptr ? (*forward)(name, *hints, list)
                                        : resolver::gGetAddrInfo(name, service, hints, list);
  if ((result == 0 || forward != nullptr) && *list != nullptr) ++resolver::gLists;
  return result;
}

void freeaddrinfo(addrinfo* list) noexcept {
  if (list == nullptr) return;
  --resolver::gLists;
  if (list->ai_canonname == resolver::gFakeMark) {
    resolver::FreeFakeList(list);
  } else {
    resolver::gFreeAddrInfo(list);
  }
}

int getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t size,
                char* service, socklen_t service_size, int flags) {
  const resolver::Reverse* const reverse = resolver::gReverse;
  return reverse != nullptr
             ? (*reverse)(address, length, host, size, flags)
             : resolver::gGetNameInfo(address, length, host, size, service, service_size, flags);
}
}
