#include <netinet/ip_icmp.h>

#include <cerrno>
#include <ctime>
#include <vector>

#include "support/LeaveOut.h"
#include "support/Sockets.h"
#include "support/SystemFunction.h"

namespace {

using RecvFromType = ssize_t(int, void*, std::size_t, int, sockaddr*, socklen_t*);
using SendToType = ssize_t(int, const void*, std::size_t, int, const sockaddr*, socklen_t);

SystemFunction<RecvFromType> gRecvFrom{"recvfrom"};
SystemFunction<SendToType> gSendTo{"sendto"};

}  // namespace

extern "C" {
ssize_t recvfrom(int s, void* buffer, std::size_t size, int flags, sockaddr* from,
                 socklen_t* length) {
  return gRecvFrom(s, buffer, size, flags, from, length);
}
ssize_t sendto(int s, const void* buffer, std::size_t size, int flags, const sockaddr* to,
               socklen_t length) {
  return gSendTo(s, buffer, size, flags, to, length);
}
}

namespace {

class Datagrams : public testing::TestWithParam<Loopback> {
 protected:
  int Send(const void* data, int len, int seconds, int flags = 0) {
    count = -7;
    timedOut = -7;
    return ZUNET_sendtoicmpsocket(near.Get(), &farAddress, data, len, &count, flags, seconds,
                                  &timedOut);
  }
  int Receive(int len, int seconds, int flags = 0) {
    count = -7;
    timedOut = -7;
    return ZUNET_recvfromicmpsocket(far.Get(), &sender, buffer, len, &count, flags, seconds,
                                    &timedOut);
  }

  const Loopback loopback = GetParam();
  ZUNET_SockAddr nearAddress;
  ZUNET_SockAddr farAddress;
  Descriptor near = Bound(loopback, SOCK_DGRAM, nearAddress);
  Descriptor far = Bound(loopback, SOCK_DGRAM, farAddress);
  ZUNET_SockAddr sender = SockAddr(loopback.text);
  char buffer[64]{};
  int count = -7;
  int timedOut = -7;
};

INSTANTIATE_TEST_SUITE_P(, Datagrams, testing::ValuesIn(kLoopbacks), FamilyName);

TEST_P(Datagrams, TravelWithTheSendersAddress) {
  for (const int seconds : {0, -1, 5}) {
    ASSERT_EQ(Send("hello", 5, seconds), 0) << seconds;
    EXPECT_EQ(count, 5) << seconds;
    EXPECT_EQ(timedOut, 0) << seconds;
    sender = {};
    sender.addr.f.family = static_cast<std::uint16_t>(loopback.family);
    ASSERT_EQ(Receive(sizeof buffer, seconds), 0) << seconds;
    EXPECT_EQ(count, 5) << seconds;
    EXPECT_EQ(timedOut, 0) << seconds;
    EXPECT_STREQ(buffer, "hello") << seconds;
    EXPECT_EQ(Text(sender), loopback.text) << seconds;
    EXPECT_EQ(ZUNET_getport(&sender), ZUNET_getport(&nearAddress)) << seconds;
  }
}

TEST_P(Datagrams, AreCutToTheBufferAndNotContinued) {
  for (const int seconds : {0, 5}) {
    ASSERT_EQ(Send("hello", 5, seconds), 0);
    ASSERT_EQ(Send("world", 5, seconds), 0);
    EXPECT_EQ(Receive(2, seconds), 0);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(Receive(5, seconds), 0);
    EXPECT_EQ(std::string(buffer, 5), "world");
  }
}

TEST_P(Datagrams, MayBeEmpty) {
  for (const int seconds : {0, 5}) {
    EXPECT_EQ(Send("", 0, seconds), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(Receive(5, seconds), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(timedOut, 0);
  }
}

TEST_P(Datagrams, FailuresOfTheSystem) {
  static const char huge[70000]{};
  for (const int seconds : {0, 5}) {
    EXPECT_EQ(Send(huge, sizeof huge, seconds), EMSGSIZE);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(timedOut, 0);
    const int closed = dup(near.Get());
    close(closed);
    EXPECT_EQ(ZUNET_sendtoicmpsocket(closed, &farAddress, "x", 1, &count, 0, seconds, &timedOut),
              EBADF);
    EXPECT_EQ(ZUNET_recvfromicmpsocket(closed, &sender, buffer, 1, &count, 0, seconds, &timedOut),
              EBADF);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(timedOut, 0);
  }
  EXPECT_EQ(Receive(5, 0, MSG_DONTWAIT), EAGAIN);
  EXPECT_EQ(count, 0);
}

TEST_P(Datagrams, ShutDownSocketIsEpipeNotASignal) {
  const Descriptor connected = Connected(farAddress, loopback, SOCK_DGRAM);
  shutdown(connected.Get(), SHUT_WR);
  for (const int seconds : {0, 5}) {
    EXPECT_EQ(
        ZUNET_sendtoicmpsocket(connected.Get(), &farAddress, "x", 1, &count, 0, seconds, &timedOut),
        EPIPE);
  }
}

TEST_P(Datagrams, WhatTheSystemIsAsked) {
  struct Call {
    int s;
    const void* buffer;
    std::size_t size;
    int flags;
    const void* address;
    socklen_t length;
  } sent{}, received{};
  const Replacement<SendToType> onSend(
      gSendTo, [&](int s, const void* data, std::size_t size, int flags, const sockaddr* to,
                   socklen_t length) {
        sent = {s, data, size, flags, to, length};
        return ssize_t{3};
      });
  const Replacement<RecvFromType> onReceive(
      gRecvFrom,
      [&](int s, void* into, std::size_t size, int flags, sockaddr* from, socklen_t* length) {
        received = {s, into, size, flags, from, *length};
        *length = 99;
        return ssize_t{2};
      });
  // Something to read, for the wait.
  ASSERT_EQ(gSendTo.Real(near.Get(), "x", 1, 0, SystemAddress(farAddress), loopback.length), 1);
  for (const int seconds : {0, 5}) {
    sent = received = {};
    EXPECT_EQ(Send(buffer, 4, seconds, MSG_DONTROUTE), 0);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(sent.s, near.Get());
    EXPECT_EQ(sent.buffer, buffer);
    EXPECT_EQ(sent.size, 4u);
    EXPECT_EQ(sent.flags, MSG_DONTROUTE | MSG_NOSIGNAL);
    EXPECT_EQ(sent.address, &farAddress);
    EXPECT_EQ(sent.length, loopback.length);

    EXPECT_EQ(Receive(7, seconds, MSG_TRUNC), 0);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(received.s, far.Get());
    EXPECT_EQ(received.buffer, buffer);
    EXPECT_EQ(received.size, 7u);
    EXPECT_EQ(received.flags, MSG_TRUNC);
    EXPECT_EQ(received.address, &sender);
    EXPECT_EQ(received.length, loopback.length);
  }
  for (const std::uint16_t family : std::initializer_list<std::uint16_t>{AF_UNSPEC, AF_UNIX}) {
    sender.addr.f.family = farAddress.addr.f.family = family;
    EXPECT_EQ(Send(buffer, 4, 0), 0);
    EXPECT_EQ(Receive(7, 0), 0);
    EXPECT_EQ(sent.length, 28u) << family;
    EXPECT_EQ(received.length, 28u) << family;
  }
}

TEST(DatagramAddresses, OfTheShorterFamilyKeepTheirEnd) {
  ZUNET_SockAddr address;
  const Descriptor s = Bound(kLoopbacks[1], SOCK_DGRAM, address);
  ZUNET_SockAddr sender;
  std::memset(&sender, 0xEE, sizeof sender);
  sender.addr.f.family = AF_INET;  // 16 bytes, although the socket has more to say
  char byte;
  int count = -7;
  int timedOut = -7;
  EXPECT_EQ(ZUNET_sendtoicmpsocket(s.Get(), &address, "x", 1, &count, 0, 5, &timedOut), 0);
  EXPECT_EQ(ZUNET_recvfromicmpsocket(s.Get(), &sender, &byte, 1, &count, 0, 5, &timedOut), 0);
  EXPECT_EQ(sender.addr.f.family, AF_INET6);
  EXPECT_EQ(std::memcmp(&sender, &address, 16), 0);
  unsigned char bytes[sizeof sender];
  std::memcpy(bytes, &sender, sizeof bytes);
  for (std::size_t i = 16; i < sizeof bytes; ++i) EXPECT_EQ(bytes[i], 0xEE) << i;
}

// ---- Raw sockets ----

std::uint16_t Checksum(const std::vector<unsigned char>& packet) {
  unsigned sum = 0;
  for (std::size_t i = 0; i + 1 < packet.size(); i += 2) sum += packet[i] * 256u + packet[i + 1];
  while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
  return static_cast<std::uint16_t>(~sum);
}

class RawSocket : public testing::TestWithParam<Loopback> {
 protected:
  void SetUp() override {
    KDSOCKET made = -1;
    const int result = ZUNET_icmpsocket(GetParam().family, &made);
    if (result == EPERM) LeaveOut("raw sockets need CAP_NET_RAW");
    ASSERT_EQ(result, 0);
    raw = Descriptor(made);
  }

  Descriptor raw;
  ZUNET_SockAddr address = SockAddr(GetParam().text);
  int count = -7;
  int timedOut = -7;
};

INSTANTIATE_TEST_SUITE_P(, RawSocket, testing::ValuesIn(kLoopbacks), FamilyName);

TEST_P(RawSocket, MovesPacketsOnLoopback) {
  const auto id = static_cast<std::uint16_t>(getpid());
  std::vector<unsigned char> packet{ICMP_ECHO,
                                    0,
                                    0,
                                    0,
                                    static_cast<unsigned char>(id >> 8),
                                    static_cast<unsigned char>(id & 0xFF),
                                    0,
                                    7,
                                    'p',
                                    'i',
                                    'n',
                                    'g'};
  const std::uint16_t checksum = Checksum(packet);
  packet[2] = static_cast<unsigned char>(checksum >> 8);
  packet[3] = static_cast<unsigned char>(checksum & 0xFF);
  const int size = static_cast<int>(packet.size());
  ASSERT_EQ(
      ZUNET_sendtoicmpsocket(raw.Get(), &address, packet.data(), size, &count, 0, 5, &timedOut), 0);
  EXPECT_EQ(count, size);

  // IPv4 shows the header, the own request first and the system's answer then; IPv6 knows no such
  // request under this protocol number and shows it as it went out.
  const bool isV4 = GetParam().family == AF_INET;
  const std::size_t header = isV4 ? 20 : 0;
  const unsigned char wanted = isV4 ? ICMP_ECHOREPLY : ICMP_ECHO;
  for (int i = 0; i < 100; ++i) {  // others may ping here too
    unsigned char received[256]{};
    ZUNET_SockAddr from = SockAddr(GetParam().text);
    ASSERT_EQ(ZUNET_recvfromicmpsocket(raw.Get(), &from, received, sizeof received, &count, 0, 5,
                                       &timedOut),
              0);
    ASSERT_EQ(timedOut, 0);
    EXPECT_EQ(Text(from), GetParam().text);
    if (received[header] != wanted || std::memcmp(received + header + 4, &packet[4], 4) != 0) {
      continue;
    }
    EXPECT_EQ(count, size + static_cast<int>(header));
    EXPECT_EQ(std::memcmp(received + header + 8, "ping", 4), 0);
    return;
  }
  FAIL() << "the packet did not come";
}

}  // namespace
