#include "ZuNetwork/ZuSocket_C.h"

#include <arpa/inet.h>
#include <endian.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>

#include "ZuNetwork/internal/Resolver.h"
#include "ZuNetwork/internal/SocketAddress.h"

using ZuInternal::AddrInfoList;
using ZuInternal::CopyAddress;
using ZuInternal::CopyFirstAddress;
using ZuInternal::IsUsable;
using ZuInternal::Resolve;
using ZuInternal::V4Word;

static_assert(sizeof(ZUNET_SockAddr) == sizeof(sockaddr_in6));
static_assert(offsetof(sockaddr_in, sin_port) == offsetof(sockaddr_in6, sin6_port));

namespace {

std::atomic<bool> ZUNET_IsFamilyPreferenceSet{false};
std::atomic<int> ZUNET_GlobalFamilyPreference{AF_UNSPEC};

using Hook = void (*)(KDSOCKET);
std::atomic<Hook> gListenHook{nullptr};
std::atomic<Hook> gCloseHook{nullptr};

// Resolvers that number their codes upwards report a refused address length as 4.
constexpr int kPositiveEaiFail = 4;

constexpr timeval kOneSecond{1, 0};

void Call(Hook hook, KDSOCKET sock) {
  if (hook != nullptr) hook(sock);
}

int ErrNoUnlessZero(int result) { return result == 0 ? 0 : errno; }

// ---- Addresses ----

socklen_t LengthOf(const ZUNET_SockAddr& address) {
  return address.addr.f.family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

sockaddr* Raw(ZUNET_SockAddr* address) { return reinterpret_cast<sockaddr*>(address); }

const sockaddr* Raw(const ZUNET_SockAddr* address) {
  return reinterpret_cast<const sockaddr*>(address);
}

// Whether the first `bits` of the addresses, 1 to 32, are alike.
bool SameV4Prefix(const ZUNET_SockAddr& left, const ZUNET_SockAddr& right, int bits) {
  return ntohl(V4Word(left) ^ V4Word(right)) >> (32 - bits) == 0;
}

std::uint64_t V6Word(const ZUNET_SockAddr& address, std::size_t index) {
  std::uint64_t word;
  std::memcpy(&word, address.addr.v6.sin6_addr.s6_addr + 8 * index, sizeof word);
  return word;
}

// The same of 1 to 128 bits.
bool SameV6Prefix(const ZUNET_SockAddr& left, const ZUNET_SockAddr& right, int bits) {
  const std::uint64_t first = be64toh(V6Word(left, 0) ^ V6Word(right, 0));
  if (bits <= 64) return first >> (64 - bits) == 0;
  const std::uint64_t second = be64toh(V6Word(left, 1) ^ V6Word(right, 1));
  return first == 0 && second >> (128 - bits) == 0;
}

socklen_t TextSize(std::size_t size) {
  return static_cast<socklen_t>(
      std::min<std::size_t>(size, std::numeric_limits<std::int32_t>::max()));
}

void ClearText(char* text, std::size_t size) {
  if (text != nullptr && size > 0) *text = '\0';
}

// ---- Resolver ----

// 127.0.53.53, or an address of no family where memory is short: IsCollision then refuses nothing.
ZUNET_SockAddr ConvertCollisionAddress() {
  ZUNET_SockAddr converted{};
  AddrInfoList list;
  if (Resolve("127.0.53.53", AF_UNSPEC, AI_NUMERICHOST, list) == 0) {
    CopyFirstAddress(list.get(), converted);
  }
  return converted;
}

bool IsCollision(const ZUNET_SockAddr& address) {
  static const ZUNET_SockAddr collision = ConvertCollisionAddress();  // on first need
  return collision.addr.f.family == AF_INET && V4Word(address) == V4Word(collision);
}

// Lookups by name fail without a reason where nothing is known under the name.
int LookupErrNo() { return errno == 0 ? ENOENT : errno; }

// ---- Transfers ----

class TimeLimit {
 public:
  explicit TimeLimit(int seconds) : m_start(time(nullptr)), m_seconds(seconds) {}

  bool IsPassed() const { return static_cast<std::int32_t>(time(nullptr) - m_start) > m_seconds; }

 private:
  time_t m_start;
  int m_seconds;
};

enum class WaitKind { kToReceive, kToSend };

constexpr int kNotWatchable = -1;

// Waits at most `*wait`, from which the system takes off what passed. Returns 0 or an errno value;
// `*ready` is above 0 when `s` is ready and kNotWatchable when no set holds it.
int WaitUntilReady(KDSOCKET s, WaitKind kind, timeval* wait, int* ready) {
  *ready = kNotWatchable;
  kdfdset set;
  kdfdset_alloc(kdfdset_maxsock_get(), &set);
  int err = 0;
  if (kdfdset_set(s, &set) == 0) {
    fd_set* const fds = kdfdset_get_fdsetp(&set);
    fd_set* const readable = kind == WaitKind::kToReceive ? fds : nullptr;
    fd_set* const writable = kind == WaitKind::kToSend ? fds : nullptr;
    err = ZUNET_select(s + 1, readable, writable, nullptr, wait, ready);
  }
  kdfdset_free(&set);
  return err;
}

ssize_t ReceiveSome(KDSOCKET s, void* buffer, int len, int* recvlen, int flags) {
  if ((flags & MSG_PEEK) != 0) *recvlen = 0;  // a peek starts over: nothing was taken out
  return recv(s, static_cast<char*>(buffer) + *recvlen, static_cast<std::size_t>(len - *recvlen),
              flags);
}

ssize_t SendSome(KDSOCKET s, const void* buffer, int len, const int* sentlen, int flags) {
  return send(s, static_cast<const char*>(buffer) + *sentlen,
              static_cast<std::size_t>(len - *sentlen), flags | MSG_NOSIGNAL);
}

// Adds what one call moved to `*total`. True when it was the last one: `*err` is its errno, or 0
// when the peer closed. An interrupted call moves nothing and is not the last one.
bool IsLast(ssize_t moved, int* total, int* err) {
  if (moved > 0) {
    *total += static_cast<int>(moved);
    return false;
  }
  if (moved < 0 && errno == EINTR) return false;
  *err = moved < 0 ? errno : 0;
  return true;
}

int SendDatagram(KDSOCKET s, const ZUNET_SockAddr* to, const void* buffer, int len, int* sentlen,
                 int flags) {
  const ssize_t sent = sendto(s, buffer, static_cast<std::size_t>(len), flags | MSG_NOSIGNAL,
                              Raw(to), LengthOf(*to));
  if (sent < 0) return errno;
  *sentlen = static_cast<int>(sent);
  return 0;
}

// The buffer is declared constant since the public functions for both directions are declared
// alike.
int ReceiveDatagram(KDSOCKET s, ZUNET_SockAddr* from, const void* buffer, int len, int* recvlen,
                    int flags) {
  socklen_t length = LengthOf(*from);
  const ssize_t received = recvfrom(s, const_cast<void*>(buffer), static_cast<std::size_t>(len),
                                    flags, Raw(from), &length);
  if (received < 0) return errno;
  *recvlen = static_cast<int>(received);
  return 0;
}

}  // namespace

void ZUNET_setlistencb(void (*cb)(KDSOCKET)) { gListenHook = cb; }

void ZUNET_setclosecb(void (*cb)(KDSOCKET)) { gCloseHook = cb; }

void ZUNET_SetFamilyPreference(int nFamily) {
  if (!ZUNET_IsFamilyPreferenceSet.exchange(true)) ZUNET_GlobalFamilyPreference = nFamily;
}

int ZUNET_GetFamilyPreference(void) {
  return ZUNET_GlobalFamilyPreference.load(std::memory_order_relaxed);
}

int ZUNET_socket(int nFamily, KDSOCKET* OutSock) {
  *OutSock = socket(nFamily, SOCK_STREAM, 0);
  return *OutSock == -1 ? errno : 0;
}

int ZUNET_dgramsocket(int nFamily, KDSOCKET* OutSock) {
  *OutSock = socket(nFamily, SOCK_DGRAM, IPPROTO_UDP);
  return *OutSock == -1 ? errno : 0;
}

int ZUNET_icmpsocket(int nFamily, KDSOCKET* OutSock) {
  *OutSock = socket(nFamily, SOCK_RAW, IPPROTO_ICMP);
  return *OutSock == -1 ? errno : 0;
}

int ZUNET_bind(KDSOCKET Sock, const ZUNET_SockAddr* SockAddr) {
  return ErrNoUnlessZero(bind(Sock, Raw(SockAddr), LengthOf(*SockAddr)));
}

int ZUNET_listen(KDSOCKET Sock, int backlog) {
  Call(gListenHook, Sock);
  return ErrNoUnlessZero(listen(Sock, backlog));
}

int ZUNET_connect(KDSOCKET Sock, ZUNET_SockAddr* SockAddr) {
  while (connect(Sock, Raw(SockAddr), LengthOf(*SockAddr)) != 0) {
    if (errno != EINTR) return errno;
  }
  return 0;
}

int ZUNET_accept(KDSOCKET Listening, KDSOCKET* Accepted, ZUNET_SockAddr* SockAddr) {
  const int err = ZUNET_getsockname(Listening, SockAddr);
  if (err != 0) return err;
  const socklen_t size = LengthOf(*SockAddr);
  do {
    socklen_t length = size;
    *Accepted = accept(Listening, Raw(SockAddr), &length);
  } while (*Accepted < 0 && errno == EINTR);
  return *Accepted < 0 ? errno : 0;
}

void ZUNET_close(KDSOCKET Sock) {
  Call(gCloseHook, Sock);
  close(Sock);
}

int ZUNET_shutdown(KDSOCKET s, int how) { return ErrNoUnlessZero(shutdown(s, how)); }

int ZUNET_getsockname(KDSOCKET Sock, ZUNET_SockAddr* SockAddr) {
  socklen_t length = sizeof *SockAddr;
  return ErrNoUnlessZero(getsockname(Sock, Raw(SockAddr), &length));
}

int ZUNET_getpeername(KDSOCKET Sock, ZUNET_SockAddr* SockAddr) {
  socklen_t length = sizeof *SockAddr;
  return ErrNoUnlessZero(getpeername(Sock, Raw(SockAddr), &length));
}

int ZUNET_getsockopt(KDSOCKET s, int level, int optname, char* optval, int* optlen) {
  return ErrNoUnlessZero(
      getsockopt(s, level, optname, optval, reinterpret_cast<socklen_t*>(optlen)));
}

int ZUNET_setsockopt(KDSOCKET s, int level, int optname, const char* optval, int optlen) {
  return ErrNoUnlessZero(setsockopt(s, level, optname, optval, static_cast<socklen_t>(optlen)));
}

int ZUNET_ioctl(KDSOCKET s, int cmd, unsigned int* arg) {
  const unsigned long request = static_cast<unsigned>(cmd);  // without the sign
  return ioctl(s, request, arg) < 0 ? errno : 0;
}

int ZUNET_settcpkeepaliveoptions(KDSOCKET s, unsigned long ulTcpKeepAliveTimeout,
                                 unsigned long ulTcpKeepAliveInterval) {
  if (setsockopt(s, IPPROTO_TCP, TCP_KEEPIDLE, &ulTcpKeepAliveTimeout,
                 sizeof ulTcpKeepAliveTimeout) != 0) {
    return errno;
  }
  return ErrNoUnlessZero(setsockopt(s, IPPROTO_TCP, TCP_KEEPINTVL, &ulTcpKeepAliveInterval,
                                    sizeof ulTcpKeepAliveInterval));
}

int ZUNET_select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                 const timeval* timeout, int* pRetCount) {
  // The system takes off what passed from the caller's own value. A wait that goes on after an
  // interrupt thus ends when the first one would have, and a caller that passes one value several
  // times waits that long for all of them together.
  auto* const left = const_cast<timeval*>(timeout);
  int count;
  do {
    count = select(nfds, readfds, writefds, exceptfds, left);
  } while (count < 0 && errno == EINTR);
  if (count < 0) return errno;
  if (pRetCount != nullptr) *pRetCount = count;
  return 0;
}

int ZUNET_recv(KDSOCKET s, void* _buf, int len, int* recvlen, int flags) {
  int err = 0;
  *recvlen = 0;
  while (*recvlen < len) {
    if (IsLast(ReceiveSome(s, _buf, len, recvlen, flags), recvlen, &err)) return err;
  }
  return 0;
}

int ZUNET_send(KDSOCKET s, const void* _buf, int len, int* sentlen, int flags) {
  int err = 0;
  *sentlen = 0;
  while (*sentlen < len) {
    if (IsLast(SendSome(s, _buf, len, sentlen, flags), sentlen, &err)) return err;
  }
  return 0;
}

int ZUNET_recvwithtimeout(KDSOCKET s, void* _buf, int len, int* recvlen, int timeoutsecs,
                          int* timedout, int flags) {
  *timedout = 0;
  if (timeoutsecs < 1) return ZUNET_recv(s, _buf, len, recvlen, flags);
  *recvlen = 0;
  const TimeLimit limit(timeoutsecs);
  while (*recvlen < len) {
    if (limit.IsPassed()) {
      *timedout = 1;
      return 0;
    }
    timeval wait = kOneSecond;
    int ready = 0;
    int err = WaitUntilReady(s, WaitKind::kToReceive, &wait, &ready);
    if (err != 0 || ready == kNotWatchable) return err;
    if (ready == 0) continue;
    if (IsLast(ReceiveSome(s, _buf, len, recvlen, flags), recvlen, &err)) return err;
  }
  return 0;
}

int ZUNET_sendwithtimeout(KDSOCKET s, const void* _buf, int len, int* sentlen, int timeoutsecs,
                          int* timedout, int flags) {
  *timedout = 0;
  if (timeoutsecs < 1) return ZUNET_send(s, _buf, len, sentlen, flags);
  *sentlen = 0;
  const TimeLimit limit(timeoutsecs);
  timeval wait = kOneSecond;  // for all waits together: once it is used up they return at once
  while (*sentlen < len) {
    if (limit.IsPassed()) {
      *timedout = 1;
      return 0;
    }
    int ready = 0;
    int err = WaitUntilReady(s, WaitKind::kToSend, &wait, &ready);
    if (err != 0 || ready == kNotWatchable) return err;
    if (ready == 0) continue;
    if (IsLast(SendSome(s, _buf, len, sentlen, flags), sentlen, &err)) return err;
  }
  return 0;
}

int ZUNET_sendtoicmpsocket(KDSOCKET s, ZUNET_SockAddr* SockAddr, const void* _buf, int len,
                           int* sentlen, int flags, int timeoutsecs, int* timedout) {
  *sentlen = 0;
  *timedout = 0;
  if (timeoutsecs < 1) return SendDatagram(s, SockAddr, _buf, len, sentlen, flags);
  const TimeLimit limit(timeoutsecs);
  timeval wait = kOneSecond;  // for all waits together, as in ZUNET_sendwithtimeout
  while (!limit.IsPassed()) {
    int ready = 0;
    const int err = WaitUntilReady(s, WaitKind::kToSend, &wait, &ready);
    if (err != 0 || ready == kNotWatchable) return err;
    if (ready > 0) return SendDatagram(s, SockAddr, _buf, len, sentlen, flags);
  }
  *timedout = 1;
  return 0;
}

int ZUNET_recvfromicmpsocket(KDSOCKET s, ZUNET_SockAddr* SockAddr, const void* _buf, int len,
                             int* recvlen, int flags, int timeoutsecs, int* timedout) {
  *recvlen = 0;
  *timedout = 0;
  if (timeoutsecs < 1) return ReceiveDatagram(s, SockAddr, _buf, len, recvlen, flags);
  const TimeLimit limit(timeoutsecs);
  while (!limit.IsPassed()) {
    timeval wait = kOneSecond;
    int ready = 0;
    const int err = WaitUntilReady(s, WaitKind::kToReceive, &wait, &ready);
    if (err != 0 || ready == kNotWatchable) return err;
    if (ready > 0) return ReceiveDatagram(s, SockAddr, _buf, len, recvlen, flags);
  }
  *timedout = 1;
  return 0;
}

int ZUNET_getservbyname(const char* Name, const char* Proto, servent** pEnt) {
  errno = 0;
  *pEnt = getservbyname(Name, Proto);
  return *pEnt == nullptr ? LookupErrNo() : 0;
}

int ZUNET_getservbyport(int port, const char* Proto, servent** pEnt) {
  errno = 0;
  *pEnt = getservbyport(port, Proto);
  return *pEnt == nullptr ? LookupErrNo() : 0;
}

int ZUNET_gethostname(char* HostName, int len) {
  if (len < 0) return EINVAL;
  return ErrNoUnlessZero(gethostname(HostName, static_cast<std::size_t>(len)));
}

int ZUNET_ip2str(const ZUNET_SockAddr* SockAddr, char* IpStr, size_t IpStrLen) {
  ClearText(IpStr, IpStrLen);
  const socklen_t size = TextSize(IpStrLen);
  const int result =
      getnameinfo(Raw(SockAddr), LengthOf(*SockAddr), IpStr, size, nullptr, 0, NI_NUMERICHOST);
  if (result != kPositiveEaiFail) return result;
  return getnameinfo(Raw(SockAddr), sizeof(sockaddr_in), IpStr, size, nullptr, 0, NI_NUMERICHOST);
}

int ZUNET_ip2name(const ZUNET_SockAddr* SockAddr, char* szHostName, size_t nHostNameLen) {
  ClearText(szHostName, nHostNameLen);
  errno = 0;
  const int result = getnameinfo(Raw(SockAddr), LengthOf(*SockAddr), szHostName,
                                 TextSize(nHostNameLen), nullptr, 0, NI_NAMEREQD);
  return result == 0 ? 0 : LookupErrNo();
}

int ZUNET_str2ip(const char* IpStr, ZUNET_SockAddr* SockAddr) {
  AddrInfoList list;
  const int result = Resolve(IpStr, AF_UNSPEC, AI_NUMERICHOST, list);
  if (result != 0) return result;
  const bool found = CopyFirstAddress(list.get(), *SockAddr);
  if (IsCollision(*SockAddr)) return ZUNET_NAME_COLLISION;  // also of what the caller left there
  return found ? 0 : EAI_FAMILY;
}

int ZUNET_name2ip(const char* szHostName, ZUNET_HostEnt* HostEnt, int nFamily) {
  const int family = nFamily == AF_UNSPEC ? ZUNET_GetFamilyPreference() : nFamily;
  AddrInfoList list;
  const int result = Resolve(szHostName, family, AI_CANONNAME, list);
  if (result != 0) return result;

  std::size_t count = 0;
  for (const addrinfo* entry = list.get(); entry != nullptr; entry = entry->ai_next) {
    if (IsUsable(*entry)) ++count;
  }
  auto* const addresses = static_cast<ZUNET_SockAddr*>(std::calloc(count, sizeof(ZUNET_SockAddr)));
  HostEnt->addr_list = addresses;
  if (addresses == nullptr) {
    (void)list.release();  // leaks the list, as a collision below does
    return ENOMEM;
  }

  std::size_t copied = 0;
  for (const addrinfo* entry = list.get(); entry != nullptr; entry = entry->ai_next) {
    if (!IsUsable(*entry)) continue;
    ZUNET_SockAddr& address = addresses[copied++];
    CopyAddress(*entry, address);
    if (entry->ai_family == AF_INET && IsCollision(address)) {
      // Each refused look-up leaks the resolver's list: existing programs know this return as it
      // is. The addresses so far are the caller's to free.
      (void)list.release();
      return ZUNET_NAME_COLLISION;
    }
  }
  HostEnt->addr_count = static_cast<std::int32_t>(copied);
  return 0;
}

void ZUNET_freehostent(ZUNET_HostEnt* HostEnt) {
  HostEnt->addr_count = 0;
  std::free(HostEnt->addr_list);
  HostEnt->addr_list = nullptr;
}

int ZUNET_addrequal(ZUNET_SockAddr* addr1, ZUNET_SockAddr* addr2, int bits, int cmp_ports) {
  if (addr1 == addr2) return 1;
  if (addr1 == nullptr || addr2 == nullptr) return 0;
  if (addr1->addr.f.family != addr2->addr.f.family) return 0;
  if (cmp_ports != 0 && ZUNET_getport(addr1) != ZUNET_getport(addr2)) return 0;
  if (addr1->addr.f.family == AF_INET) {
    return SameV4Prefix(*addr1, *addr2, bits < 1 || bits > 32 ? 32 : bits) ? 1 : 0;
  }
  return SameV6Prefix(*addr1, *addr2, bits < 1 || bits > 128 ? 128 : bits) ? 1 : 0;
}

void ZUNET_setport(ZUNET_SockAddr* addr, int port) {
  addr->addr.v4.sin_port = htons(static_cast<std::uint16_t>(port));
}

int ZUNET_getport(const ZUNET_SockAddr* addr) { return ntohs(addr->addr.v4.sin_port); }
