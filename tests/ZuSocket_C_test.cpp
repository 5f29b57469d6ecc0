#include "ZuNetwork/ZuSocket_C.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <vector>

#include "support/Sockets.h"
#include "support/SystemFunction.h"

namespace {

SystemFunction<int(int, int, int)> gSocket{"socket"};
SystemFunction<int(int, const sockaddr*, socklen_t)> gBind{"bind"};
SystemFunction<int(int, const sockaddr*, socklen_t)> gConnect{"connect"};
SystemFunction<int(int, sockaddr*, socklen_t*)> gAccept{"accept"};
SystemFunction<int(int, int, int, const void*, socklen_t)> gSetSockOpt{"setsockopt"};
SystemFunction<int(int, fd_set*, fd_set*, fd_set*, timeval*)> gSelect{"select"};

}  // namespace

extern "C" {
int socket(int family, int type, int protocol) noexcept { return gSocket(family, type, protocol); }
int bind(int s, const sockaddr* address, socklen_t length) noexcept {
  return gBind(s, address, length);
}
int connect(int s, const sockaddr* address, socklen_t length) {
  return gConnect(s, address, length);
}
int accept(int s, sockaddr* address, socklen_t* length) { return gAccept(s, address, length); }
int setsockopt(int s, int level, int name, const void* value, socklen_t length) noexcept {
  return gSetSockOpt(s, level, name, value, length);
}
int select(int count, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* timeout) {
  return gSelect(count, reads, writes, excepts, timeout);
}
}

namespace {

constexpr int kNoDescriptor = 123456;

template <typename T>
int IntOption(int fd, int level, T name) {
  int value = -1;
  socklen_t length = sizeof value;
  EXPECT_EQ(getsockopt(fd, level, name, &value, &length), 0) << strerror(errno);
  return value;
}

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }

int FailWith(int err) {
  errno = err;
  return -1;
}

TEST(SocketAddress, IsAUnionOfTheSystemsAddresses) {
  EXPECT_EQ(sizeof(ZUNET_SockAddr), 28u);
  ZUNET_SockAddr address{};
  EXPECT_EQ(sizeof address.addr.f.family, 2u);
  address.addr.v6.sin6_family = 0x1234;
  EXPECT_EQ(address.addr.f.family, 0x1234);
  address.addr.v4.sin_family = 0x4321;
  EXPECT_EQ(address.addr.f.family, 0x4321);
}

// ---- Making sockets ----

struct Maker {
  const char* name;
  int (*make)(int, KDSOCKET*);
  int type, protocol, protocolInUse;
};

constexpr Maker kMakers[] = {{"stream", ZUNET_socket, SOCK_STREAM, 0, IPPROTO_TCP},
                             {"datagram", ZUNET_dgramsocket, SOCK_DGRAM, 17, IPPROTO_UDP},
                             {"icmp", ZUNET_icmpsocket, SOCK_RAW, 1, IPPROTO_ICMP}};

TEST(MakingSockets, GivesTheKindAndProtocolForEitherFamily) {
  for (const Maker& maker : kMakers) {
    for (const Loopback& loopback : kLoopbacks) {
      KDSOCKET made = -7;
      const int result = maker.make(loopback.family, &made);
      if (result == EPERM && maker.type == SOCK_RAW) continue;  // needs a privilege
      const Descriptor closer(made);
      ASSERT_EQ(result, 0) << maker.name << loopback.text;
      EXPECT_EQ(IntOption(made, SOL_SOCKET, SO_DOMAIN), loopback.family) << maker.name;
      EXPECT_EQ(IntOption(made, SOL_SOCKET, SO_TYPE), maker.type) << maker.name;
      EXPECT_EQ(IntOption(made, SOL_SOCKET, SO_PROTOCOL), maker.protocolInUse) << maker.name;
    }
  }
}

TEST(MakingSockets, AsksTheSystemForExactlyThat) {
  for (const Maker& maker : kMakers) {
    std::vector<int> asked;
    const Replacement<int(int, int, int)> record(gSocket, [&](int f, int type, int protocol) {
      asked = {f, type, protocol};
      return 55;
    });
    KDSOCKET made = -7;
    EXPECT_EQ(maker.make(4711, &made), 0) << maker.name;
    EXPECT_EQ(made, 55) << maker.name;
    EXPECT_EQ(asked, (std::vector<int>{4711, maker.type, maker.protocol})) << maker.name;
  }
}

TEST(MakingSockets, FailureIsTheErrNoAndStoresMinusOne) {
  for (const Maker& maker : kMakers) {
    KDSOCKET made = 7;
    EXPECT_EQ(maker.make(9999, &made), EAFNOSUPPORT) << maker.name;
    EXPECT_EQ(made, -1) << maker.name;
    for (const int err : {EMFILE, EPERM, ENOBUFS}) {
      const Replacement<int(int, int, int)> fail(gSocket,
                                                 [err](int, int, int) { return FailWith(err); });
      made = 7;
      EXPECT_EQ(maker.make(AF_INET, &made), err) << maker.name;
      EXPECT_EQ(made, -1) << maker.name;
    }
  }
}

// ---- Binding, connecting, accepting ----

class OnLoopback : public testing::TestWithParam<Loopback> {
 protected:
  const Loopback loopback = GetParam();
  ZUNET_SockAddr address = SockAddr(loopback.text);
};

INSTANTIATE_TEST_SUITE_P(, OnLoopback, testing::ValuesIn(kLoopbacks), FamilyName);

TEST_P(OnLoopback, RoundTripOfBindListenConnectAccept) {
  KDSOCKET listener = -1;
  KDSOCKET client = -1;
  KDSOCKET accepted = -7;
  ASSERT_EQ(ZUNET_socket(loopback.family, &listener), 0);
  ASSERT_EQ(ZUNET_bind(listener, &address), 0);
  ASSERT_EQ(ZUNET_listen(listener, 4), 0);
  ZUNET_SockAddr bound;
  std::memset(&bound, 0xEE, sizeof bound);
  ASSERT_EQ(ZUNET_getsockname(listener, &bound), 0);
  EXPECT_EQ(Text(bound), loopback.text);
  EXPECT_NE(ZUNET_getport(&bound), 0);

  ASSERT_EQ(ZUNET_socket(loopback.family, &client), 0);
  ASSERT_EQ(ZUNET_connect(client, &bound), 0);
  ZUNET_SockAddr peer;
  std::memset(&peer, 0xEE, sizeof peer);
  ASSERT_EQ(ZUNET_accept(listener, &accepted, &peer), 0);
  ASSERT_GE(accepted, 0);

  ZUNET_SockAddr own;
  ASSERT_EQ(ZUNET_getsockname(client, &own), 0);
  EXPECT_EQ(Text(peer), loopback.text);
  EXPECT_EQ(ZUNET_getport(&peer), ZUNET_getport(&own));
  ASSERT_EQ(ZUNET_getpeername(client, &peer), 0);
  EXPECT_EQ(ZUNET_getport(&peer), ZUNET_getport(&bound));
  EXPECT_EQ(Text(peer), loopback.text);
  for (const KDSOCKET each : {listener, client, accepted}) {
    ZUNET_close(each);
    EXPECT_FALSE(IsOpen(each));
  }
}

TEST_P(OnLoopback, AddressLengthFollowsTheFamily) {
  socklen_t bindLength = 0;
  socklen_t connectLength = 0;
  const auto record = [](socklen_t& into) {
    return [&into](int, const sockaddr*, socklen_t length) {
      into = length;
      return 0;
    };
  };
  const Replacement<int(int, const sockaddr*, socklen_t)> onBind(gBind, record(bindLength));
  const Replacement<int(int, const sockaddr*, socklen_t)> onConnect(gConnect,
                                                                    record(connectLength));
  EXPECT_EQ(ZUNET_bind(1, &address), 0);
  EXPECT_EQ(ZUNET_connect(1, &address), 0);
  EXPECT_EQ(bindLength, loopback.length);
  EXPECT_EQ(connectLength, loopback.length);
  for (const std::uint16_t family : std::initializer_list<std::uint16_t>{AF_UNSPEC, AF_UNIX}) {
    address.addr.f.family = family;
    EXPECT_EQ(ZUNET_bind(1, &address), 0);
    EXPECT_EQ(ZUNET_connect(1, &address), 0);
    EXPECT_EQ(bindLength, 28u) << family;
    EXPECT_EQ(connectLength, 28u) << family;
  }
}

TEST_P(OnLoopback, BindFailures) {
  ZUNET_SockAddr used;
  const Descriptor first = Bound(loopback, SOCK_STREAM, used);
  const Descriptor second(socket(loopback.family, SOCK_STREAM, 0));
  EXPECT_EQ(ZUNET_bind(second.Get(), &used), EADDRINUSE);
  EXPECT_EQ(ZUNET_bind(first.Get(), &used), EINVAL);
  EXPECT_EQ(ZUNET_bind(kNoDescriptor, &address), EBADF);
  EXPECT_EQ(ZUNET_bind(-1, &address), EBADF);
  ZUNET_SockAddr foreign = SockAddr(loopback.family == AF_INET ? "198.51.100.1" : "2001:db8::1");
  EXPECT_EQ(ZUNET_bind(second.Get(), &foreign), EADDRNOTAVAIL);
}

TEST_P(OnLoopback, ConnectFailures) {
  ZUNET_SockAddr unheard;
  const Descriptor bound = Bound(loopback, SOCK_STREAM, unheard);
  const Descriptor client(socket(loopback.family, SOCK_STREAM, 0));
  EXPECT_EQ(ZUNET_connect(client.Get(), &unheard), ECONNREFUSED);
  EXPECT_EQ(ZUNET_connect(kNoDescriptor, &unheard), EBADF);
  ZUNET_SockAddr address2;
  const Descriptor listener = Listening(loopback, address2);
  EXPECT_EQ(ZUNET_connect(client.Get(), &address2), 0);
  EXPECT_EQ(ZUNET_connect(client.Get(), &address2), EISCONN);
}

TEST(Connect, IsRepeatedWhileItIsInterruptedOnly) {
  for (const int last : {0, ECONNREFUSED, EINPROGRESS}) {
    int calls = 0;
    const Replacement<int(int, const sockaddr*, socklen_t)> interrupted(
        gConnect, [&](int, const sockaddr*, socklen_t) {
          if (++calls <= 2) return FailWith(EINTR);
          return last == 0 ? 0 : FailWith(last);
        });
    ZUNET_SockAddr address = SockAddr("127.0.0.1", 1);
    EXPECT_EQ(ZUNET_connect(1, &address), last);
    EXPECT_EQ(calls, 3) << last;
  }
}

TEST(Connect, OutlastsSignals) {
  ZUNET_SockAddr address;
  const Descriptor listener = Listening(kLoopbacks[0], address, 0);
  const Descriptor first = Connected(address, kLoopbacks[0]);  // fills the queue
  const Descriptor client(socket(AF_INET, SOCK_STREAM, 0));
  std::atomic<int> interrupted{0};
  const Replacement<int(int, const sockaddr*, socklen_t)> count(
      gConnect, [&](int s, const sockaddr* to, socklen_t length) {
        const int result = gConnect.Real(s, to, length);
        if (result != 0 && errno == EINTR) ++interrupted;
        return result;
      });
  const QuietThread release([&] {
    EXPECT_TRUE(WaitFor(interrupted, 3));
    close(accept(listener.Get(), nullptr, nullptr));
  });
  const Interrupts interrupts;
  EXPECT_EQ(ZUNET_connect(client.Get(), &address), 0);
  EXPECT_GE(interrupted, 3);
}

TEST_P(OnLoopback, ListenFailures) {
  const Descriptor datagrams(socket(loopback.family, SOCK_DGRAM, 0));
  EXPECT_EQ(ZUNET_listen(datagrams.Get(), 1), EOPNOTSUPP);
  EXPECT_EQ(ZUNET_listen(kNoDescriptor, 1), EBADF);
}

TEST_P(OnLoopback, AcceptLearnsTheFamilyFromTheListener) {
  ZUNET_SockAddr bound;
  const Descriptor listener = Listening(loopback, bound);
  socklen_t length = 0;
  const Replacement<int(int, sockaddr*, socklen_t*)> record(gAccept,
                                                            [&](int, sockaddr*, socklen_t* given) {
                                                              length = *given;
                                                              return 55;
                                                            });
  ZUNET_SockAddr peer{};
  peer.addr.f.family = loopback.family == AF_INET ? AF_INET6 : AF_INET;
  KDSOCKET accepted = -7;
  EXPECT_EQ(ZUNET_accept(listener.Get(), &accepted, &peer), 0);
  EXPECT_EQ(accepted, 55);
  EXPECT_EQ(length, loopback.length);
  EXPECT_EQ(peer.addr.f.family, loopback.family);
}

TEST_P(OnLoopback, AcceptFailures) {
  KDSOCKET accepted = 77;
  ZUNET_SockAddr peer{};
  EXPECT_EQ(ZUNET_accept(kNoDescriptor, &accepted, &peer), EBADF);
  EXPECT_EQ(accepted, 77);  // the listener's name came first

  ZUNET_SockAddr bound;
  const Descriptor deaf = Bound(loopback, SOCK_STREAM, bound);
  EXPECT_EQ(ZUNET_accept(deaf.Get(), &accepted, &peer), EINVAL);
  EXPECT_EQ(accepted, -1);

  const Descriptor listener = Listening(loopback, bound);
  fcntl(listener.Get(), F_SETFL, O_NONBLOCK);
  accepted = 77;
  EXPECT_EQ(ZUNET_accept(listener.Get(), &accepted, &peer), EAGAIN);
  EXPECT_EQ(accepted, -1);
}

TEST_P(OnLoopback, InterruptedAcceptStoresEveryResultAndAFreshLength) {
  ZUNET_SockAddr bound;
  const Descriptor listener = Listening(loopback, bound);
  for (const int last : {0, ECONNABORTED}) {
    KDSOCKET accepted = 77;
    std::vector<int> stored;
    std::vector<socklen_t> lengths;
    const Replacement<int(int, sockaddr*, socklen_t*)> interrupted(
        gAccept, [&](int, sockaddr*, socklen_t* length) {
          stored.push_back(accepted);
          lengths.push_back(std::exchange(*length, 0));
          if (stored.size() <= 2) return FailWith(EINTR);
          return last == 0 ? 55 : FailWith(last);
        });
    ZUNET_SockAddr peer;
    EXPECT_EQ(ZUNET_accept(listener.Get(), &accepted, &peer), last);
    EXPECT_EQ(accepted, last == 0 ? 55 : -1);
    EXPECT_EQ(stored, (std::vector<int>{77, -1, -1}));
    EXPECT_EQ(lengths, std::vector<socklen_t>(3, loopback.length));
  }
}

TEST_P(OnLoopback, AcceptOutlastsSignals) {
  ZUNET_SockAddr bound;
  const Descriptor listener = Listening(loopback, bound);
  std::atomic<int> interrupted{0};
  const Replacement<int(int, sockaddr*, socklen_t*)> count(
      gAccept, [&](int s, sockaddr* from, socklen_t* length) {
        const int result = gAccept.Real(s, from, length);
        if (result < 0 && errno == EINTR) ++interrupted;
        return result;
      });
  Descriptor client;
  KDSOCKET accepted = -7;
  {
    const QuietThread release([&] {
      EXPECT_TRUE(WaitFor(interrupted, 3));
      client = Connected(bound, loopback);
    });
    const Interrupts interrupts;
    ZUNET_SockAddr peer;
    EXPECT_EQ(ZUNET_accept(listener.Get(), &accepted, &peer), 0);
  }
  EXPECT_GE(interrupted, 3);
  EXPECT_TRUE(IsOpen(accepted));
  close(accepted);
}

TEST_P(OnLoopback, NamesOfUnconnectedAndMissingSockets) {
  ZUNET_SockAddr name;
  const Descriptor alone(socket(loopback.family, SOCK_STREAM, 0));
  EXPECT_EQ(ZUNET_getsockname(alone.Get(), &name), 0);
  EXPECT_EQ(name.addr.f.family, loopback.family);
  EXPECT_EQ(ZUNET_getport(&name), 0);
  EXPECT_EQ(ZUNET_getpeername(alone.Get(), &name), ENOTCONN);
  EXPECT_EQ(ZUNET_getsockname(kNoDescriptor, &name), EBADF);
  EXPECT_EQ(ZUNET_getpeername(kNoDescriptor, &name), EBADF);
}

TEST_P(OnLoopback, ShutdownEndsOneDirectionOrBoth) {
  char byte;
  {
    const StreamPair pair(loopback);
    EXPECT_EQ(ZUNET_shutdown(pair.near.Get(), SHUT_WR), 0);
    EXPECT_EQ(recv(pair.far.Get(), &byte, 1, 0), 0);
    EXPECT_EQ(send(pair.far.Get(), "x", 1, 0), 1);
    EXPECT_EQ(recv(pair.near.Get(), &byte, 1, 0), 1);
  }
  {
    const StreamPair pair(loopback);
    EXPECT_EQ(ZUNET_shutdown(pair.near.Get(), SHUT_RD), 0);
    EXPECT_EQ(recv(pair.near.Get(), &byte, 1, 0), 0);
    EXPECT_EQ(send(pair.near.Get(), "x", 1, 0), 1);
  }
  const StreamPair pair(loopback);
  EXPECT_EQ(ZUNET_shutdown(pair.near.Get(), 99), EINVAL);
  EXPECT_EQ(ZUNET_shutdown(pair.near.Get(), SHUT_RDWR), 0);
  EXPECT_EQ(recv(pair.near.Get(), &byte, 1, 0), 0);
  EXPECT_EQ(recv(pair.far.Get(), &byte, 1, 0), 0);
  const Descriptor alone(socket(loopback.family, SOCK_STREAM, 0));
  EXPECT_EQ(ZUNET_shutdown(alone.Get(), SHUT_WR), ENOTCONN);
  EXPECT_EQ(ZUNET_shutdown(kNoDescriptor, SHUT_WR), EBADF);
}

// ---- Hooks ----

struct HookCall {
  KDSOCKET descriptor = -1;
  int count = 0;
  bool wasBefore = false;
};

HookCall gListenCall;
HookCall gCloseCall;

class Hooks : public testing::Test {
 protected:
  Hooks() {
    gListenCall = {};
    gCloseCall = {};
    ZUNET_setlistencb([](KDSOCKET s) {
      gListenCall = {s, gListenCall.count + 1,
                     IsOpen(s) && IntOption(s, SOL_SOCKET, SO_ACCEPTCONN) == 0};
    });
    ZUNET_setclosecb([](KDSOCKET s) { gCloseCall = {s, gCloseCall.count + 1, IsOpen(s)}; });
  }
  ~Hooks() override {
    ZUNET_setlistencb(nullptr);
    ZUNET_setclosecb(nullptr);
  }
};

TEST_F(Hooks, ListenHookIsCalledBeforeTheSystem) {
  const Descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(ZUNET_listen(listener.Get(), 1), 0);
  EXPECT_EQ(gListenCall.count, 1);
  EXPECT_EQ(gListenCall.descriptor, listener.Get());
  EXPECT_TRUE(gListenCall.wasBefore);
  EXPECT_EQ(IntOption(listener.Get(), SOL_SOCKET, SO_ACCEPTCONN), 1);
  EXPECT_EQ(gCloseCall.count, 0);
}

TEST_F(Hooks, CloseHookIsCalledBeforeTheSystem) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  ZUNET_close(fd);
  EXPECT_EQ(gCloseCall.count, 1);
  EXPECT_EQ(gCloseCall.descriptor, fd);
  EXPECT_TRUE(gCloseCall.wasBefore);
  EXPECT_FALSE(IsOpen(fd));
  EXPECT_EQ(gListenCall.count, 0);
}

TEST_F(Hooks, AreCalledAlsoWhereTheSystemRefuses) {
  EXPECT_EQ(ZUNET_listen(kNoDescriptor, 1), EBADF);
  EXPECT_EQ(gListenCall.descriptor, kNoDescriptor);
  ZUNET_close(kNoDescriptor);
  EXPECT_EQ(gCloseCall.descriptor, kNoDescriptor);
}

TEST_F(Hooks, NullRemovesThem) {
  ZUNET_setlistencb(nullptr);
  ZUNET_setclosecb(nullptr);
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(ZUNET_listen(fd, 1), 0);
  ZUNET_close(fd);
  EXPECT_FALSE(IsOpen(fd));
  EXPECT_EQ(gListenCall.count + gCloseCall.count, 0);
}

TEST_F(Hooks, TheLatestCounts) {
  ZUNET_setclosecb([](KDSOCKET) { gCloseCall.count += 100; });
  ZUNET_close(socket(AF_INET, SOCK_STREAM, 0));
  EXPECT_EQ(gCloseCall.count, 100);
}

// ---- Options ----

TEST_P(OnLoopback, OptionsAreSetAndRead) {
  const Descriptor s(socket(loopback.family, SOCK_STREAM, 0));
  int value = 1;
  EXPECT_EQ(ZUNET_setsockopt(s.Get(), IPPROTO_TCP, TCP_NODELAY,
                             reinterpret_cast<const char*>(&value), sizeof value),
            0);
  struct {
    int value, guard;
  } read{-1, -1};
  int length = sizeof read;
  EXPECT_EQ(
      ZUNET_getsockopt(s.Get(), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&read), &length),
      0);
  EXPECT_EQ(read.value, 1);
  EXPECT_EQ(read.guard, -1);
  EXPECT_EQ(length, 4);
}

TEST_P(OnLoopback, OptionFailures) {
  const Descriptor s(socket(loopback.family, SOCK_STREAM, 0));
  char value[4]{};
  int length = sizeof value;
  EXPECT_EQ(ZUNET_setsockopt(s.Get(), IPPROTO_TCP, 9999, value, 4), ENOPROTOOPT);
  EXPECT_EQ(ZUNET_getsockopt(s.Get(), IPPROTO_TCP, 9999, value, &length), ENOPROTOOPT);
  EXPECT_EQ(ZUNET_setsockopt(s.Get(), IPPROTO_TCP, TCP_NODELAY, value, 1), EINVAL);
  EXPECT_EQ(ZUNET_setsockopt(kNoDescriptor, IPPROTO_TCP, TCP_NODELAY, value, 4), EBADF);
  EXPECT_EQ(ZUNET_getsockopt(kNoDescriptor, IPPROTO_TCP, TCP_NODELAY, value, &length), EBADF);
}

TEST_P(OnLoopback, IoctlTellsWhatIsThereAndSetsNonBlocking) {
  const StreamPair pair(loopback);
  ASSERT_EQ(send(pair.far.Get(), "hello", 5, 0), 5);
  char buffer[5];
  ASSERT_EQ(recv(pair.near.Get(), buffer, 5, MSG_PEEK | MSG_WAITALL), 5);
  unsigned count = 99;
  EXPECT_EQ(ZUNET_ioctl(pair.near.Get(), FIONREAD, &count), 0);
  EXPECT_EQ(count, 5u);
  unsigned on = 1;
  EXPECT_EQ(ZUNET_ioctl(pair.near.Get(), FIONBIO, &on), 0);
  EXPECT_NE(fcntl(pair.near.Get(), F_GETFL) & O_NONBLOCK, 0);
  on = 0;
  EXPECT_EQ(ZUNET_ioctl(pair.near.Get(), FIONBIO, &on), 0);
  EXPECT_EQ(fcntl(pair.near.Get(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(ZUNET_ioctl(pair.near.Get(), 0x7777, &on), ENOTTY);
  EXPECT_EQ(ZUNET_ioctl(kNoDescriptor, FIONBIO, &on), EBADF);
}

TEST_P(OnLoopback, KeepAliveTimesAreSetWithoutSwitchingItOn) {
  const Descriptor s(socket(loopback.family, SOCK_STREAM, 0));
  EXPECT_EQ(ZUNET_settcpkeepaliveoptions(s.Get(), 1234, 77), 0);
  EXPECT_EQ(IntOption(s.Get(), IPPROTO_TCP, TCP_KEEPIDLE), 1234);
  EXPECT_EQ(IntOption(s.Get(), IPPROTO_TCP, TCP_KEEPINTVL), 77);
  EXPECT_EQ(IntOption(s.Get(), SOL_SOCKET, SO_KEEPALIVE), 0);
}

TEST(KeepAlive, HandsTheWholeNumberToTheSystemIdleTimeFirst) {
  struct Call {
    int s, level, name;
    unsigned long value;
    socklen_t length;
  };
  const struct {
    int failing, result;
    std::size_t calls;
  } cases[] = {{0, 0, 2}, {TCP_KEEPIDLE, EPERM, 1}, {TCP_KEEPINTVL, EPERM, 2}};
  for (const auto& c : cases) {
    std::vector<Call> calls;
    const Replacement<int(int, int, int, const void*, socklen_t)> record(
        gSetSockOpt, [&](int s, int level, int name, const void* value, socklen_t length) {
          Call call{s, level, name, 0, length};
          std::memcpy(&call.value, value, std::min<std::size_t>(length, sizeof call.value));
          calls.push_back(call);
          return name == c.failing ? FailWith(EPERM) : 0;
        });
    EXPECT_EQ(ZUNET_settcpkeepaliveoptions(55, 0x1122334455667788, 0x99AABBCCDD), c.result);
    ASSERT_EQ(calls.size(), c.calls) << c.failing;
    for (std::size_t i = 0; i < calls.size(); ++i) {
      EXPECT_EQ(calls[i].s, 55);
      EXPECT_EQ(calls[i].level, 6);
      EXPECT_EQ(calls[i].name, i == 0 ? 4 : 5);
      EXPECT_EQ(calls[i].length, 8u);
      EXPECT_EQ(calls[i].value, i == 0 ? 0x1122334455667788u : 0x99AABBCCDDu);
    }
  }
}

TEST_P(OnLoopback, KeepAliveFailures) {
  const Descriptor s(socket(loopback.family, SOCK_STREAM, 0));
  const int interval = IntOption(s.Get(), IPPROTO_TCP, TCP_KEEPINTVL);
  EXPECT_EQ(ZUNET_settcpkeepaliveoptions(s.Get(), 0, static_cast<u_long>(interval + 1)), EINVAL);
  EXPECT_EQ(IntOption(s.Get(), IPPROTO_TCP, TCP_KEEPINTVL), interval);
  EXPECT_EQ(ZUNET_settcpkeepaliveoptions(s.Get(), 99, 0), EINVAL);
  EXPECT_EQ(IntOption(s.Get(), IPPROTO_TCP, TCP_KEEPIDLE), 99);
  EXPECT_EQ(ZUNET_settcpkeepaliveoptions(kNoDescriptor, 1, 1), EBADF);
  const Descriptor datagrams(socket(loopback.family, SOCK_DGRAM, 0));
  EXPECT_NE(ZUNET_settcpkeepaliveoptions(datagrams.Get(), 1, 1), 0);
}

// ---- Waiting ----

class Select : public testing::Test {
 protected:
  Select() : pair(kLoopbacks[0]), count(pair.near.Get() + 1) { FD_ZERO(&set); }
  fd_set* Near() {
    FD_ZERO(&set);
    FD_SET(pair.near.Get(), &set);
    return &set;
  }
  StreamPair pair;
  fd_set set;
  int count;
  int ready = -7;
};

TEST_F(Select, StoresHowManyAreReady) {
  timeval now{};
  EXPECT_EQ(ZUNET_select(count, Near(), nullptr, nullptr, &now, &ready), 0);
  EXPECT_EQ(ready, 0);
  EXPECT_FALSE(FD_ISSET(pair.near.Get(), &set));
  EXPECT_EQ(ZUNET_select(count, nullptr, Near(), nullptr, &now, &ready), 0);
  EXPECT_EQ(ready, 1);
  EXPECT_TRUE(FD_ISSET(pair.near.Get(), &set));
  ASSERT_EQ(send(pair.far.Get(), "x", 1, 0), 1);
  fd_set writes = *Near();
  EXPECT_EQ(ZUNET_select(count, &set, &writes, nullptr, nullptr, &ready), 0);
  EXPECT_GE(ready, 1);
  ASSERT_EQ(send(pair.far.Get(), "!", 1, MSG_OOB), 1);
  timeval long_{10, 0};
  EXPECT_EQ(ZUNET_select(count, nullptr, nullptr, Near(), &long_, &ready), 0);
  EXPECT_EQ(ready, 1);
}

TEST_F(Select, CountMayBeNull) {
  timeval now{};
  EXPECT_EQ(ZUNET_select(count, nullptr, Near(), nullptr, &now, nullptr), 0);
  EXPECT_TRUE(FD_ISSET(pair.near.Get(), &set));
}

TEST_F(Select, CountsTheCallersTimeDown) {
  timeval wait{0, 20000};
  EXPECT_EQ(ZUNET_select(count, Near(), nullptr, nullptr, &wait, &ready), 0);
  EXPECT_EQ(ready, 0);
  EXPECT_EQ(wait.tv_sec, 0);
  EXPECT_EQ(wait.tv_usec, 0);
  wait = {100, 0};
  EXPECT_EQ(ZUNET_select(count, nullptr, Near(), nullptr, &wait, &ready), 0);
  EXPECT_LE(wait.tv_sec, 100);
  EXPECT_GE(wait.tv_sec, 90);
}

TEST_F(Select, Failures) {
  timeval now{};
  const int closed = dup(pair.near.Get());
  close(closed);
  FD_SET(closed, &set);
  EXPECT_EQ(ZUNET_select(closed + 1, &set, nullptr, nullptr, &now, &ready), EBADF);
  EXPECT_EQ(ZUNET_select(-1, nullptr, nullptr, nullptr, &now, &ready), EINVAL);
  timeval negative{-1, 0};
  EXPECT_EQ(ZUNET_select(0, nullptr, nullptr, nullptr, &negative, &ready), EINVAL);
}

TEST_F(Select, IsRepeatedWhileItIsInterruptedOnly) {
  for (const int last : {0, ENOMEM}) {
    int calls = 0;
    ready = -7;
    timeval wait{9, 0};
    const Replacement<int(int, fd_set*, fd_set*, fd_set*, timeval*)> interrupted(
        gSelect, [&](int, fd_set*, fd_set*, fd_set*, timeval* given) {
          EXPECT_EQ(given, &wait);  // each call goes on with what is left
          if (++calls <= 2) return FailWith(EINTR);
          return last == 0 ? 3 : FailWith(last);
        });
    EXPECT_EQ(ZUNET_select(count, Near(), nullptr, nullptr, &wait, &ready), last);
    EXPECT_EQ(calls, 3) << last;
    EXPECT_EQ(ready, last == 0 ? 3 : -7);
  }
}

TEST_F(Select, OutlastsSignalsAndStillEndsInTime) {
  std::atomic<int> interrupted{0};
  const Replacement<int(int, fd_set*, fd_set*, fd_set*, timeval*)> counter(
      gSelect, [&](int n, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* wait) {
        const int result = gSelect.Real(n, reads, writes, excepts, wait);
        if (result < 0 && errno == EINTR) ++interrupted;
        return result;
      });
  const auto start = std::chrono::steady_clock::now();
  {
    const Interrupts interrupts;
    timeval wait{0, 200000};
    EXPECT_EQ(ZUNET_select(count, Near(), nullptr, nullptr, &wait, &ready), 0);
    EXPECT_EQ(ready, 0);
  }
  const auto passed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(passed, std::chrono::milliseconds(150));
  EXPECT_LT(passed, std::chrono::seconds(5));
  EXPECT_GE(interrupted, 3);

  interrupted = 0;
  const QuietThread release([&] {
    EXPECT_TRUE(WaitFor(interrupted, 3));
    EXPECT_EQ(send(pair.far.Get(), "x", 1, 0), 1);
  });
  const Interrupts interrupts;
  EXPECT_EQ(ZUNET_select(count, Near(), nullptr, nullptr, nullptr, &ready), 0);
  EXPECT_EQ(ready, 1);
}

TEST(HostName, IsTheSystems) {
  char expected[256] = "";
  ASSERT_EQ(gethostname(expected, sizeof expected), 0);
  char name[256] = "x";
  EXPECT_EQ(ZUNET_gethostname(name, sizeof name), 0);
  EXPECT_STREQ(name, expected);
  EXPECT_EQ(ZUNET_gethostname(name, 1), ENAMETOOLONG);
}

TEST(Sockets, OfDistinctThreadsDoNotDisturbEachOther) {
  const auto work = [](const Loopback& loopback) {
    for (int round = 0; round < 20; ++round) {
      const StreamPair pair(loopback);
      char buffer[4]{};
      int count = -1;
      int timedOut = -1;
      EXPECT_EQ(ZUNET_sendwithtimeout(pair.near.Get(), "abcd", 4, &count, 5, &timedOut, 0), 0);
      EXPECT_EQ(ZUNET_recvwithtimeout(pair.far.Get(), buffer, 4, &count, 5, &timedOut, 0), 0);
      EXPECT_EQ(count, 4);
      ZUNET_SockAddr name;
      EXPECT_EQ(ZUNET_getpeername(pair.near.Get(), &name), 0);
      EXPECT_EQ(Text(name), loopback.text);
    }
  };
  const QuietThread first([&] { work(kLoopbacks[0]); });
  const QuietThread second([&] { work(kLoopbacks[1]); });
}

}  // namespace
