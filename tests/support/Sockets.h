#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "ZuNetwork/ZuSocket_C.h"
#include "support/Addresses.h"

// Sockets of the system for tests of what is built on them: made without the code under test.

// A descriptor that is closed at the end.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : m_fd(fd) {}
  Descriptor(Descriptor&& other) noexcept : m_fd(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~Descriptor() { Reset(); }

  int Get() const { return m_fd; }
  int Release() { return std::exchange(m_fd, -1); }
  void Reset(int fd = -1) {
    if (m_fd >= 0) close(m_fd);
    m_fd = fd;
  }

 private:
  int m_fd;
};

struct Loopback {
  int family;
  const char* text;
  socklen_t length;
};

inline void PrintTo(const Loopback& loopback, std::ostream* stream) { *stream << loopback.text; }

constexpr Loopback kLoopbacks[] = {{AF_INET, "127.0.0.1", sizeof(sockaddr_in)},
                                   {AF_INET6, "::1", sizeof(sockaddr_in6)}};

inline std::string FamilyName(const testing::TestParamInfo<Loopback>& info) {
  return info.param.family == AF_INET ? "IPv4" : "IPv6";
}

inline sockaddr* SystemAddress(ZUNET_SockAddr& address) {
  return reinterpret_cast<sockaddr*>(&address);
}

// A socket bound to a free port of the loop-back interface; `address` says which.
inline Descriptor Bound(const Loopback& loopback, int type, ZUNET_SockAddr& address) {
  Descriptor bound(socket(loopback.family, type, 0));
  address = SockAddr(loopback.text);
  EXPECT_EQ(bind(bound.Get(), SystemAddress(address), loopback.length), 0) << strerror(errno);
  socklen_t length = sizeof address;
  EXPECT_EQ(getsockname(bound.Get(), SystemAddress(address), &length), 0);
  return bound;
}

inline Descriptor Listening(const Loopback& loopback, ZUNET_SockAddr& address, int backlog = 8) {
  Descriptor listener = Bound(loopback, SOCK_STREAM, address);
  EXPECT_EQ(listen(listener.Get(), backlog), 0);
  return listener;
}

inline Descriptor Connected(ZUNET_SockAddr address, const Loopback& loopback,
                            int type = SOCK_STREAM) {
  Descriptor client(socket(loopback.family, type, 0));
  EXPECT_EQ(connect(client.Get(), SystemAddress(address), loopback.length), 0) << strerror(errno);
  return client;
}

// Two stream sockets that are connected with each other.
struct StreamPair {
  explicit StreamPair(const Loopback& loopback) {
    ZUNET_SockAddr address;
    const Descriptor listener = Listening(loopback, address);
    near = Connected(address, loopback);
    far = Descriptor(accept(listener.Get(), nullptr, nullptr));
    EXPECT_GE(far.Get(), 0);
  }
  Descriptor near;
  Descriptor far;
};

// Fills what the system buffers for the peer of `fd`, so that a send has to wait.
inline void FillUp(int fd) {
  static const char block[65536]{};
  int idle = 0;
  // What was taken may be moved on to the receiving side a moment later, which makes room again.
  while (idle < 3) {
    if (send(fd, block, sizeof block, MSG_DONTWAIT | MSG_NOSIGNAL) > 0) {
      idle = 0;
      continue;
    }
    ++idle;
    usleep(5000);
  }
}

// Raises the limit of descriptors as far as it goes. True when `fd` can be opened then.
inline bool MayHaveDescriptor(int fd) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  return static_cast<rlim_t>(fd) < limit.rlim_cur;
}

// While it lives, a signal whose handler does nothing interrupts the system calls of the main
// thread every few milliseconds.
class Interrupts {
 public:
  Interrupts() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGALRM, &action, &m_before);
    SetInterval(5000);
  }
  ~Interrupts() {
    SetInterval(0);
    sigaction(SIGALRM, &m_before, nullptr);
  }
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;

 private:
  static void SetInterval(int microseconds) {
    itimerval timer{};
    timer.it_interval.tv_usec = timer.it_value.tv_usec = microseconds;
    setitimer(ITIMER_REAL, &timer, nullptr);
  }
  struct sigaction m_before {};
};

// A thread that no signal interrupts, joined at the end.
class QuietThread {
 public:
  explicit QuietThread(std::function<void()> body)
      : m_thread([run = std::move(body)] {
          sigset_t all;
          sigfillset(&all);
          pthread_sigmask(SIG_BLOCK, &all, nullptr);
          run();
        }) {}
  ~QuietThread() { m_thread.join(); }
  QuietThread(const QuietThread&) = delete;
  QuietThread& operator=(const QuietThread&) = delete;

 private:
  std::thread m_thread;
};

// Waits until `count` has reached `least`; gives up after ten seconds.
inline bool WaitFor(const std::atomic<int>& count, int least) {
  for (int i = 0; i < 10000 && count < least; ++i) usleep(1000);
  return count >= least;
}

// Runs `body` in a process of its own, for what a process has only once. A failed expectation in
// it is printed and fails here.
inline void InOwnProcess(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    alarm(30);
    body();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}
