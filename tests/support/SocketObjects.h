#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "ZuNetwork/ZuSocket.h"
#include "support/Addresses.h"
#include "support/Expect.h"

// A socket that is closed with the test.
class OwnedSocket : public CZuSocket {
 public:
  OwnedSocket() = default;
  explicit OwnedSocket(int descriptor) { AttachConnectedSocket(descriptor); }
  ~OwnedSocket() { Close(); }
  OwnedSocket(const OwnedSocket&) = delete;
  OwnedSocket& operator=(const OwnedSocket&) = delete;
  using CZuSocket::operator=;
};

inline int OptionOf(const CZuSocket& socket, int level, int name) {
  int value = -99;
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(socket.GetDescriptor(), level, name, &value, &length), 0);
  return value;
}

inline bool IsOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

inline bool IsNonBlocking(const CZuSocket& socket) {
  return (fcntl(socket.GetDescriptor(), F_GETFL) & O_NONBLOCK) != 0;
}

// The descriptors that the process has open; the one of the listing itself counts every time.
inline std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// A number that was a descriptor a moment ago.
inline int ClosedDescriptor() {
  const int descriptor = dup(STDERR_FILENO);
  close(descriptor);
  return descriptor;
}

// Whether descriptors up to `highest` can be had.
inline bool RaiseDescriptorLimit(int highest) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_cur > static_cast<rlim_t>(highest);
}

// Listens on a free port of `text`; `address` is where.
inline void ListenOn(const char* text, OwnedSocket& listener, CZuIPAddr& address) {
  ASSERT_OK(listener.Bind(Address(text)));
  ASSERT_OK(listener.Listen(5));
  ASSERT_OK(listener.GetLocalAddress(address));
}

// Connects two blocking sockets over TCP.
inline void ConnectOver(const char* text, OwnedSocket& client, OwnedSocket& server) {
  OwnedSocket listener;
  CZuIPAddr address;
  ASSERT_NO_FATAL_FAILURE(ListenOn(text, listener, address));
  ASSERT_OK(client.Connect(address));
  ASSERT_OK(listener.Accept(server));
}

// Every wait of a test is bounded, and every descriptor that it opened is closed behind it.
class SocketTest : public testing::Test {
 protected:
  SocketTest() : m_open(OpenDescriptors()) { alarm(kLongestTest); }
  ~SocketTest() override {
    alarm(0);
    ZUNET_setlistencb(nullptr);
    ZUNET_setclosecb(nullptr);
    EXPECT_EQ(OpenDescriptors(), m_open) << "descriptors were left open";
  }

 private:
  static constexpr unsigned kLongestTest = 60;

  std::ptrdiff_t m_open;
};

// The hooks of a test: the descriptors that they were called with.
inline std::vector<int> gListened;
inline std::vector<int> gClosed;

inline void RecordHooks() {
  gListened.clear();
  gClosed.clear();
  ZUNET_setlistencb([](KDSOCKET descriptor) { gListened.push_back(descriptor); });
  ZUNET_setclosecb([](KDSOCKET descriptor) { gClosed.push_back(descriptor); });
}
