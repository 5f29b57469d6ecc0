#pragma once

#include <dlfcn.h>
#include <netdb.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <utility>
#include <vector>

// Replaces functions of the system, also for the shared libraries. Every call is counted and
// forwarded, unless a test asked for something else by one of the classes below, each of which
// counts while it lives. Only for one source file of an executable.

namespace system_calls {

enum Call {
  kSocket,
  kBind,
  kListen,
  kGetSockName,
  kConnect,
  kAccept,
  kIoctl,
  kShutdown,
  kSend,
  kRecv,
  kSendTo,
  kRecvFrom,
  kSelect,
  kCallCount
};

struct Script {
  std::atomic<int> calls{0};
  std::atomic<int> first{0};
  std::atomic<int> last{0};
  std::atomic<int> err{0};
};

inline std::array<Script, kCallCount> gScripts;

inline int CountOf(Call call) { return gScripts[call].calls; }
inline void ResetCount(Call call) { gScripts[call].calls = 0; }

// Lets `count` calls fail with `err`, beginning with the call number `first` from now.
class Fault {
 public:
  Fault(Call call, int err, int first = 1, int count = 1) : m_script(gScripts[call]) {
    m_script.calls = 0;
    m_script.err = err;
    m_script.last = first + count - 1;
    m_script.first = first;
  }
  ~Fault() { m_script.last = m_script.first = 0; }
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

  bool HasHappened() const { return m_script.calls >= m_script.first; }

 private:
  Script& m_script;
};

inline bool Fails(Call call) {
  Script& script = gScripts[call];
  const int number = ++script.calls;
  if (number < script.first || number > script.last) return false;
  errno = script.err;
  return true;
}

// Replaces a function that has a slot below.
template <typename Function>
class Replacement {
 public:
  Replacement(Function& slot, Function function) : m_slot(slot) { m_slot = std::move(function); }
  ~Replacement() { m_slot = nullptr; }
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

 private:
  Function& m_slot;
};

using SelectFunction = std::function<int(int, fd_set*, fd_set*, fd_set*, timeval*)>;
using SocketFunction = std::function<int(int, int, int)>;
using LookupFunction = std::function<int(const char*, const addrinfo*, addrinfo**)>;
inline SelectFunction gSelect;
inline SocketFunction gSocket;
inline LookupFunction gLookup;

using ReplacedSelect = Replacement<SelectFunction>;
using ReplacedSocket = Replacement<SocketFunction>;
using ReplacedLookup = Replacement<LookupFunction>;

inline std::atomic<int> gLastBacklog{-1};

// What one send or recv moves at most.
inline std::atomic<std::size_t> gMostBytes{SIZE_MAX};

class ShortTransfers {
 public:
  explicit ShortTransfers(std::size_t bytes) { gMostBytes = bytes; }
  ~ShortTransfers() { gMostBytes = SIZE_MAX; }
  ShortTransfers(const ShortTransfers&) = delete;
  ShortTransfers& operator=(const ShortTransfers&) = delete;
};

inline int NextSelect(int nfds, fd_set* in, fd_set* out, fd_set* except, timeval* timeout) {
  static const auto next = reinterpret_cast<decltype(&::select)>(dlsym(RTLD_NEXT, "select"));
  return next(nfds, in, out, except, timeout);
}

inline int NextLookup(const char* name, const addrinfo* hints, addrinfo** found) {
  static const auto next =
      reinterpret_cast<decltype(&::getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return next(name, nullptr, hints, found);
}

inline std::atomic<std::int64_t> gFakeMilliseconds{-1};

// Time passes only in waits that find nothing ready: as long as the wait would have taken, at least
// a quarter of a second.
class FakeClock {
 public:
  FakeClock()
      : m_select(gSelect,
                 [this](int nfds, fd_set* in, fd_set* out, fd_set* except, timeval* timeout) {
                   return Wait(nfds, in, out, except, timeout);
                 }) {
    gFakeMilliseconds = kStart;
  }
  ~FakeClock() { gFakeMilliseconds = -1; }
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  std::int64_t PassedMilliseconds() const { return gFakeMilliseconds - kStart; }

  // The seconds that each wait was asked for.
  std::vector<double> waits;

 private:
  static constexpr std::int64_t kStart = 1'000'000'000;
  static constexpr std::int64_t kPoll = 250;

  int Wait(int nfds, fd_set* in, fd_set* out, fd_set* except, timeval* timeout) {
    if (timeout == nullptr) return NextSelect(nfds, in, out, except, nullptr);
    waits.push_back(static_cast<double>(timeout->tv_sec) +
                    static_cast<double>(timeout->tv_usec) / 1e6);
    timeval none{};
    const int ready = NextSelect(nfds, in, out, except, &none);
    if (ready != 0) return ready;
    const std::int64_t milliseconds = timeout->tv_sec * 1000 + timeout->tv_usec / 1000;
    gFakeMilliseconds += std::max(milliseconds, kPoll);
    *timeout = {};
    return 0;
  }

  ReplacedSelect m_select;
};

}  // namespace system_calls

// The function of the same name that would have been called.
#define ZUTEST_NEXT(name) reinterpret_cast<decltype(&::name)>(dlsym(RTLD_NEXT, #name))

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  static const auto next = ZUTEST_NEXT(socket);
  if (system_calls::Fails(system_calls::kSocket)) return -1;
  if (!system_calls::gSocket) return next(domain, type, protocol);
  const auto replacement = std::exchange(system_calls::gSocket, nullptr);  // it may call this
  const int descriptor = replacement(domain, type, protocol);
  system_calls::gSocket = replacement;
  return descriptor;
}

int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
  static const auto next = ZUTEST_NEXT(bind);
  return system_calls::Fails(system_calls::kBind) ? -1 : next(fd, address, length);
}

int listen(int fd, int backlog) noexcept {
  static const auto next = ZUTEST_NEXT(listen);
  system_calls::gLastBacklog = backlog;
  return system_calls::Fails(system_calls::kListen) ? -1 : next(fd, backlog);
}

int getsockname(int fd, sockaddr* address, socklen_t* length) noexcept {
  static const auto next = ZUTEST_NEXT(getsockname);
  return system_calls::Fails(system_calls::kGetSockName) ? -1 : next(fd, address, length);
}

int connect(int fd, const sockaddr* address, socklen_t length) {
  static const auto next = ZUTEST_NEXT(connect);
  return system_calls::Fails(system_calls::kConnect) ? -1 : next(fd, address, length);
}

int accept(int fd, sockaddr* address, socklen_t* length) {
  static const auto next = ZUTEST_NEXT(accept);
  return system_calls::Fails(system_calls::kAccept) ? -1 : next(fd, address, length);
}

int shutdown(int fd, int how) noexcept {
  static const auto next = ZUTEST_NEXT(shutdown);
  return system_calls::Fails(system_calls::kShutdown) ? -1 : next(fd, how);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  static const auto next = ZUTEST_NEXT(ioctl);
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return system_calls::Fails(system_calls::kIoctl) ? -1 : next(fd, request, argument);
}

ssize_t send(int fd, const void* bytes, size_t count, int flags) {
  static const auto next = ZUTEST_NEXT(send);
  if (system_calls::Fails(system_calls::kSend)) return errno == 0 ? 0 : -1;
  return next(fd, bytes, std::min(count, system_calls::gMostBytes.load()), flags);
}

ssize_t recv(int fd, void* bytes, size_t count, int flags) {
  static const auto next = ZUTEST_NEXT(recv);
  if (system_calls::Fails(system_calls::kRecv)) return -1;
  return next(fd, bytes, std::min(count, system_calls::gMostBytes.load()), flags);
}

ssize_t sendto(int fd, const void* bytes, size_t count, int flags, const sockaddr* address,
               socklen_t length) {
  static const auto next = ZUTEST_NEXT(sendto);
  if (system_calls::Fails(system_calls::kSendTo)) return -1;
  return next(fd, bytes, count, flags, address, length);
}

ssize_t recvfrom(int fd, void* bytes, size_t count, int flags, sockaddr* address,
                 socklen_t* length) {
  static const auto next = ZUTEST_NEXT(recvfrom);
  if (system_calls::Fails(system_calls::kRecvFrom)) return -1;
  return next(fd, bytes, count, flags, address, length);
}

int select(int nfds, fd_set* in, fd_set* out, fd_set* except, timeval* timeout) {
  if (system_calls::Fails(system_calls::kSelect)) return -1;
  if (system_calls::gSelect) return system_calls::gSelect(nfds, in, out, except, timeout);
  return system_calls::NextSelect(nfds, in, out, except, timeout);
}

int getaddrinfo(const char* name, const char*, const addrinfo* hints, addrinfo** found) {
  if (system_calls::gLookup) return system_calls::gLookup(name, hints, found);
  return system_calls::NextLookup(name, hints, found);
}

time_t time(time_t* out) noexcept {
  static const auto next = ZUTEST_NEXT(time);
  const std::int64_t fake = system_calls::gFakeMilliseconds;
  const time_t now = fake < 0 ? next(nullptr) : fake / 1000;
  if (out != nullptr) *out = now;
  return now;
}

}  // extern "C"
