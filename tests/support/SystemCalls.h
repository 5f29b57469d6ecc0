#pragma once

#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <vector>

#include "support/SystemFunction.h"

// The functions of the system that sockets need, to be counted, replaced or made to fail. Only for
// one source file of an executable.

namespace system_calls {

inline SystemFunction<int(int, int, int)> gSocket{"socket"};
inline SystemFunction<int(int, const sockaddr*, socklen_t)> gBind{"bind"};
inline SystemFunction<int(int, int)> gListen{"listen"};
inline SystemFunction<int(int, sockaddr*, socklen_t*)> gGetSockName{"getsockname"};
inline SystemFunction<int(int, const sockaddr*, socklen_t)> gConnect{"connect"};
inline SystemFunction<int(int, sockaddr*, socklen_t*)> gAccept{"accept"};
inline SystemFunction<int(int, int)> gShutdown{"shutdown"};
inline SystemFunction<int(int, unsigned long, void*), int (*)(int, unsigned long, ...)> gIoctl{
    "ioctl"};
inline SystemFunction<ssize_t(int, const void*, size_t, int)> gSend{"send"};
inline SystemFunction<ssize_t(int, void*, size_t, int)> gRecv{"recv"};
inline SystemFunction<ssize_t(int, const void*, size_t, int, const sockaddr*, socklen_t)> gSendTo{
    "sendto"};
inline SystemFunction<ssize_t(int, void*, size_t, int, sockaddr*, socklen_t*)> gRecvFrom{
    "recvfrom"};
inline SystemFunction<int(int, fd_set*, fd_set*, fd_set*, timeval*)> gSelect{"select"};
inline SystemFunction<int(const char*, const char*, const addrinfo*, addrinfo**)> gGetAddrInfo{
    "getaddrinfo"};
inline SystemFunction<time_t(time_t*)> gTime{"time"};

// While it lives, one send or recv moves so many bytes at most.
class ShortTransfers {
 public:
  explicit ShortTransfers(std::size_t bytes)
      : m_send(gSend,
               [bytes](int fd, const void* from, size_t count, int flags) {
                 return gSend.Real(fd, from, std::min(count, bytes), flags);
               }),
        m_recv(gRecv, [bytes](int fd, void* to, size_t count, int flags) {
          return gRecv.Real(fd, to, std::min(count, bytes), flags);
        }) {}

 private:
  Replacement<ssize_t(int, const void*, size_t, int)> m_send;
  Replacement<ssize_t(int, void*, size_t, int)> m_recv;
};

// Time passes only in waits that find nothing ready: as long as the wait would have taken, at least
// a quarter of a second.
class FakeClock {
 public:
  // Some time between two waits.
  void Pass(std::int64_t milliseconds) { m_milliseconds += milliseconds; }

  std::int64_t PassedMilliseconds() const { return m_milliseconds - kStart; }

  // The seconds that each wait was asked for.
  std::vector<double> waits;

 private:
  static constexpr std::int64_t kStart = 1'000'000'000;
  static constexpr std::int64_t kPoll = 250;

  time_t Tell(time_t* out) const {
    const time_t now = m_milliseconds / 1000;
    if (out != nullptr) *out = now;
    return now;
  }

  int Wait(int nfds, fd_set* in, fd_set* out, fd_set* except, timeval* timeout) {
    if (timeout == nullptr) return gSelect.Real(nfds, in, out, except, nullptr);
    waits.push_back(static_cast<double>(timeout->tv_sec) +
                    static_cast<double>(timeout->tv_usec) / 1e6);
    timeval none{};
    const int ready = gSelect.Real(nfds, in, out, except, &none);
    if (ready != 0) return ready;
    Pass(std::max(timeout->tv_sec * 1000 + timeout->tv_usec / 1000, kPoll));
    *timeout = {};
    return 0;
  }

  std::atomic<std::int64_t> m_milliseconds{kStart};
  Replacement<time_t(time_t*)> m_time{gTime, [this](time_t* out) { return Tell(out); }};
  Replacement<int(int, fd_set*, fd_set*, fd_set*, timeval*)> m_select{
      gSelect, [this](int nfds, fd_set* in, fd_set* out, fd_set* except, timeval* timeout) {
        return Wait(nfds, in, out, except, timeout);
      }};
};

}  // namespace system_calls

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  return system_calls::gSocket(domain, type, protocol);
}

int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  return system_calls::gBind(fd, address, length);
}

int listen(int fd, int backlog) noexcept { return system_calls::gListen(fd, backlog); }

int getsockname(int fd, sockaddr* address, socklen_t* length) noexcept {
  return system_calls::gGetSockName(fd, address, length);
}

int connect(int fd, const sockaddr* address, socklen_t length) {
  return system_calls::gConnect(fd, address, length);
}

int accept(int fd, sockaddr* address, socklen_t* length) {
  return system_calls::gAccept(fd, address, length);
}

int shutdown(int fd, int how) noexcept { return system_calls::gShutdown(fd, how); }

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return system_calls::gIoctl(fd, request, argument);
}

ssize_t send(int fd, const void* bytes, size_t count, int flags) {
  return system_calls::gSend(fd, bytes, count, flags);
}

ssize_t recv(int fd, void* bytes, size_t count, int flags) {
  return system_calls::gRecv(fd, bytes, count, flags);
}

ssize_t sendto(int fd, const void* bytes, size_t count, int flags, const sockaddr* address,
               socklen_t length) {
  return system_calls::gSendTo(fd, bytes, count, flags, address, length);
}

ssize_t recvfrom(int fd, void* bytes, size_t count, int flags, sockaddr* address,
                 socklen_t* length) {
  return system_calls::gRecvFrom(fd, bytes, count, flags, address, length);
}

int select(int nfds, fd_set* in, fd_set* out, fd_set* except, timeval* timeout) {
  return system_calls::gSelect(nfds, in, out, except, timeout);
}

int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** found) {
  return system_calls::gGetAddrInfo(name, service, hints, found);
}

time_t time(time_t* out) noexcept { return system_calls::gTime(out); }

}  // extern "C"
