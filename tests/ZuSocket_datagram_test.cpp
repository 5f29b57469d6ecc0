#include <netinet/in.h>
#include <netinet/ip_icmp.h>

#include <cerrno>

#include "support/LeaveOut.h"
#include "support/SocketObjects.h"
#include "support/SystemCalls.h"

// Datagrams to and from the object's address, for which the ICMP functions serve.

namespace {

using system_calls::FakeClock;

constexpr int kUntouched = 99;
constexpr char kNoTimedOut[] = "Invalid input parameter, pnTimedOut is NULL";

class ZuSocketDatagram : public SocketTest, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    OwnedSocket probe;
    if (Failed(probe.Bind(Address(GetParam())))) GTEST_SKIP() << "no " << GetParam() << " here";
    ASSERT_NO_FATAL_FAILURE(MakeBound(first));
    ASSERT_NO_FATAL_FAILURE(MakeBound(second));
    ASSERT_NO_FATAL_FAILURE(SetTarget(first, second));
    ASSERT_NO_FATAL_FAILURE(SetTarget(second, second));
  }

  static void MakeBound(OwnedSocket& socket) {
    ASSERT_OK(socket.DgramSocket(Address(GetParam())));
    ASSERT_OK(socket.Bind(Address(GetParam())));
  }

  static void SetTarget(CZuSocket& socket, const CZuSocket& target) {
    CZuIPAddr address;
    ASSERT_OK(target.GetLocalAddress(address));
    socket.AttachConnectedSocket(socket.GetDescriptor(), address);
  }

  static int PortOf(const CZuSocket& socket) {
    CZuIPAddr address;
    EXPECT_OK(socket.GetLocalAddress(address));
    return address.GetPortNumber();
  }

  OwnedSocket first;
  OwnedSocket second;
  char buffer[16] = "before";
  int count = kUntouched;
  int timedOut = kUntouched;
};

INSTANTIATE_TEST_SUITE_P(, ZuSocketDatagram, testing::Values("127.0.0.1", "::1"),
                         [](const testing::TestParamInfo<const char*>& param) {
                           return param.index == 0 ? "IPv4" : "IPv6";
                         });

TEST_P(ZuSocketDatagram, GoesToTheAddressAndBringsTheSender) {
  for (const int timeout : {5, 0, -1}) {
    SCOPED_TRACE(timeout);
    ASSERT_NO_FATAL_FAILURE(SetTarget(second, second));
    count = timedOut = kUntouched;
    ASSERT_OK(first.SendtoICMPSocket("ping", 4, timeout, &timedOut, 0, &count));
    EXPECT_EQ(count, 4);
    EXPECT_EQ(timedOut, 0);
    EXPECT_EQ(first.GetAddress().GetPortNumber(), PortOf(second)) << "the target stays";
    count = timedOut = kUntouched;
    ASSERT_OK(second.RecvfromICMPSocket(buffer, sizeof buffer, timeout, &timedOut, 0, &count));
    EXPECT_EQ(count, 4) << "a short datagram is no failure";
    EXPECT_EQ(timedOut, 0);
    EXPECT_STREQ(buffer, "pingre");
    EXPECT_EQ(Text(second.GetAddress()), GetParam());
    EXPECT_EQ(second.GetAddress().GetPortNumber(), PortOf(first));
  }
  ASSERT_OK(second.SendtoICMPSocket("pong", 4, 5, &timedOut, 0, nullptr));
  ASSERT_OK(first.RecvfromICMPSocket(buffer, sizeof buffer, 5, &timedOut, 0, nullptr));
  EXPECT_STREQ(buffer, "pongre") << "an answer goes to the sender";
}

TEST_P(ZuSocketDatagram, EmptyDatagramIsOne) {
  ASSERT_OK(first.SendtoICMPSocket("", 0, 5, &timedOut, 0, &count));
  EXPECT_EQ(count, 0);
  count = kUntouched;
  ASSERT_OK(second.RecvfromICMPSocket(buffer, sizeof buffer, 5, &timedOut, 0, &count));
  EXPECT_EQ(count, 0);
  EXPECT_EQ(second.GetAddress().GetPortNumber(), PortOf(first));
}

TEST_P(ZuSocketDatagram, TooLongOneIsCut) {
  ASSERT_OK(first.SendtoICMPSocket("123456", 6, 5, &timedOut, 0, nullptr));
  ASSERT_OK(second.RecvfromICMPSocket(buffer, 4, 5, &timedOut, 0, &count));
  EXPECT_EQ(count, 4);
  EXPECT_STREQ(buffer, "1234re");
}

TEST_P(ZuSocketDatagram, FlagsAreHandedOn) {
  ASSERT_OK(first.SendtoICMPSocket("ping", 4, 5, &timedOut, 0, nullptr));
  ASSERT_OK(second.RecvfromICMPSocket(buffer, 4, 5, &timedOut, MSG_PEEK, &count));
  ASSERT_OK(second.RecvfromICMPSocket(buffer, 4, 0, &timedOut, MSG_DONTWAIT, &count));
  EXPECT_EQ(count, 4);
  EXPECT_FAILS(second.RecvfromICMPSocket(buffer, 4, 0, &timedOut, MSG_DONTWAIT, &count),
               ErrNoCode(EAGAIN), "CZuSocket::RecvfromICMPSocket(");
  EXPECT_EQ(count, 0);
}

TEST_P(ZuSocketDatagram, FlagIsNeededWithATimeOutOnly) {
  for (const int timeout : {-1, 1}) {
    const CZuError sent = first.SendtoICMPSocket("x", 1, timeout, nullptr, 0, &count);
    EXPECT_FAILS(sent, Win32Code(87), kNoTimedOut);
    EXPECT_FAILS(sent, Win32Code(87), "CZuSocket::SendtoICMPSocket(");
    const CZuError received =
        second.RecvfromICMPSocket(buffer, sizeof buffer, timeout, nullptr, 0, &count);
    EXPECT_FAILS(received, Win32Code(87), kNoTimedOut);
    EXPECT_FAILS(received, Win32Code(87), "CZuSocket::RecvfromICMPSocket(");
    EXPECT_EQ(count, kUntouched);
  }
  ASSERT_OK(first.SendtoICMPSocket("ping", 4, 0, nullptr, 0, &count));
  EXPECT_EQ(count, 4);
  ASSERT_OK(second.RecvfromICMPSocket(buffer, sizeof buffer, 0, nullptr, 0, &count));
  EXPECT_EQ(count, 4);
}

TEST_P(ZuSocketDatagram, SilenceTimesOut) {
  FakeClock clock;
  const CZuError error = second.RecvfromICMPSocket(buffer, sizeof buffer, 2, &timedOut, 0, &count);
  EXPECT_FAILS(error, Win32Code(774), "Socket receive timed out");
  EXPECT_FAILS(error, Win32Code(774), "CZuSocket::RecvfromICMPSocket(");
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(clock.PassedMilliseconds(), 3000);
  EXPECT_EQ(clock.waits, (std::vector<double>{1, 1, 1}));
  EXPECT_EQ(second.GetAddress().GetPortNumber(), PortOf(second)) << "the address stays";
}

TEST_P(ZuSocketDatagram, SendingThatFindsNoRoomTimesOut) {
  FakeClock clock;
  std::vector<double> waits;
  const Replacement full(system_calls::gSelect,
                         [&](int, fd_set*, fd_set*, fd_set*, timeval* timeout) {
                           waits.push_back(static_cast<double>(timeout->tv_sec));
                           clock.Pass(std::max<std::int64_t>(timeout->tv_sec * 1000, 250));
                           *timeout = {};
                           return 0;
                         });
  const CZuError error = first.SendtoICMPSocket("x", 1, 1, &timedOut, 0, &count);
  EXPECT_FAILS(error, Win32Code(774), "Socket send timed out");
  EXPECT_FAILS(error, Win32Code(774), "CZuSocket::SendtoICMPSocket(");
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(waits, (std::vector<double>{1, 0, 0, 0, 0})) << "one second, then polling";
}

TEST_P(ZuSocketDatagram, FailuresCarryTheSystemsNumber) {
  for (const int timeout : {5, 0}) {
    SCOPED_TRACE(timeout);
    timedOut = count = kUntouched;
    const Fault sending(system_calls::gSendTo, EINTR);
    EXPECT_FAILS(first.SendtoICMPSocket("x", 1, timeout, &timedOut, 0, &count), ErrNoCode(EINTR),
                 "CZuSocket::SendtoICMPSocket(");
    EXPECT_EQ(timedOut, 0);
    EXPECT_EQ(count, 0);
    timedOut = count = kUntouched;
    ASSERT_OK(first.SendtoICMPSocket("x", 1, 5, &timedOut, 0, nullptr));
    const Fault receiving(system_calls::gRecvFrom, EINTR);
    EXPECT_FAILS(second.RecvfromICMPSocket(buffer, 1, timeout, &timedOut, 0, &count),
                 ErrNoCode(EINTR), "CZuSocket::RecvfromICMPSocket(");
    EXPECT_EQ(timedOut, 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(system_calls::gRecvFrom.Calls(), 1) << "it is not repeated";
  }
}

TEST_P(ZuSocketDatagram, FailedWaitIsTheSystemsError) {
  {
    const Fault fault(system_calls::gSelect, ENOMEM);
    EXPECT_FAILS(first.SendtoICMPSocket("x", 1, 5, &timedOut, 0, &count), ErrNoCode(ENOMEM),
                 "CZuSocket::SendtoICMPSocket(");
  }
  const Fault fault(system_calls::gSelect, ENOMEM);
  EXPECT_FAILS(second.RecvfromICMPSocket(buffer, 1, 5, &timedOut, 0, &count), ErrNoCode(ENOMEM),
               "CZuSocket::RecvfromICMPSocket(");
  EXPECT_EQ(timedOut, 0);
}

class ZuSocketIcmp : public SocketTest {};

TEST_F(ZuSocketIcmp, TargetOfTheOtherFamilyIsTheSystemsError) {
  OwnedSocket socket;
  ASSERT_OK(socket.DgramSocket(Address("127.0.0.1")));
  socket.AttachConnectedSocket(socket.GetDescriptor(), Address("2001:db8::1"));
  int timedOut = kUntouched;
  int count = kUntouched;
  EXPECT_FAILS(socket.SendtoICMPSocket("x", 1, 5, &timedOut, 0, &count), ErrNoCode(EAFNOSUPPORT),
               "CZuSocket::SendtoICMPSocket(");
  EXPECT_EQ(count, 0);
  EXPECT_EQ(timedOut, 0);
}

TEST_F(ZuSocketIcmp, EchoRequestIsAnsweredOverLoopBack) {
  OwnedSocket socket;
  const CZuError error = socket.ICMPSocket(Address("127.0.0.1"), CZuIPAddr::FAMILY_IPV4);
  if (FXErrorUtil::IsErrNo(error, EPERM)) LeaveOut("raw sockets need CAP_NET_RAW");
  ASSERT_OK(error);
  const unsigned char request[] = {ICMP_ECHO, 0, 0x66, 0xcb, 0x12, 0x34, 0x7f, 0x00};
  int timedOut = kUntouched;
  int count = kUntouched;
  ASSERT_OK(socket.SendtoICMPSocket(request, sizeof request, 5, &timedOut, 0, &count));
  EXPECT_EQ(count, static_cast<int>(sizeof request));
  unsigned char reply[64];
  do {  // the socket sees the request and whatever else is about
    ASSERT_OK(socket.RecvfromICMPSocket(reply, sizeof reply, 5, &timedOut, 0, &count));
  } while (count < 28 || reply[20] != ICMP_ECHOREPLY || reply[24] != 0x12 || reply[25] != 0x34);
  EXPECT_EQ(Text(socket.GetAddress()), "127.0.0.1");
}

}  // namespace
