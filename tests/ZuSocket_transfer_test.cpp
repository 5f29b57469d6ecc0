#include <netinet/in.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "ZuNetwork/ZuFdset.h"
#include "support/Heap.h"
#include "support/SocketObjects.h"
#include "support/SystemCalls.h"

// Moving data: plain, with a time-out and as datagrams.

namespace {

using system_calls::FakeClock;
using system_calls::ShortTransfers;

constexpr int kUntouched = 99;
constexpr char kShutdown[] = "Socket shutdown detected";
constexpr char kReceiveTimedOut[] = "Socket receive timed out";
constexpr char kSendTimedOut[] = "Socket send timed out";
constexpr char kNoTimedOut[] = "Invalid input parameter, pnTimedOut is NULL";

std::string NameOfFamily(const testing::TestParamInfo<const char*>& param) {
  return param.index == 0 ? "IPv4" : "IPv6";
}

// Two ends of a TCP connection.
class ZuSocketTransfer : public SocketTest, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    OwnedSocket probe;
    if (Failed(probe.Bind(Address(GetParam())))) GTEST_SKIP() << "no " << GetParam() << " here";
    ASSERT_NO_FATAL_FAILURE(ConnectOver(GetParam(), near, far));
  }
  OwnedSocket near;
  OwnedSocket far;
  char buffer[16] = "before";
  int count = kUntouched;
  int timedOut = kUntouched;
};

INSTANTIATE_TEST_SUITE_P(, ZuSocketTransfer, testing::Values("127.0.0.1", "::1"), NameOfFamily);

// Two ends that hold back exactly what fits: nothing trickles on after a refusal.
class ZuSocketStream : public SocketTest {
 protected:
  ZuSocketStream() {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    near.AttachConnectedSocket(pair[0]);
    far.AttachConnectedSocket(pair[1]);
  }
  void FillNear() {
    ASSERT_OK(near.SetToNonBlocking());
    const std::vector<char> bytes(1 << 20);
    CZuError error;
    while (!Failed(error)) {
      error = near.Send(bytes.data(), static_cast<int>(bytes.size()), 0, &count);
    }
    ASSERT_FAILS(error, ErrNoCode(EAGAIN), "CZuSocket::Send(");
  }
  OwnedSocket near;
  OwnedSocket far;
  char buffer[16] = "before";
  int count = kUntouched;
  int timedOut = kUntouched;
};

// ---- Plain ----

TEST_P(ZuSocketTransfer, MovesAllBytesBothWays) {
  ASSERT_OK(near.Send("ping", 4, 0, &count));
  EXPECT_EQ(count, 4);
  count = kUntouched;
  ASSERT_OK(far.Recv(buffer, 4, 0, &count));
  EXPECT_EQ(count, 4);
  EXPECT_STREQ(buffer, "pingre");
  ASSERT_OK(far.Send("pong", 4, 0, nullptr));
  ASSERT_OK(near.Recv(buffer, 4, 0, nullptr));
  EXPECT_STREQ(buffer, "pongre");
}

TEST_P(ZuSocketTransfer, CloseBeforeAllCameIsAShutdown) {
  ASSERT_OK(near.Send("ping", 4, 0, nullptr));
  near.Close();
  const CZuError error = far.Recv(buffer, 10, 0, &count);
  EXPECT_FAILS(error, Win32Code(774), kShutdown);
  EXPECT_FAILS(error, Win32Code(774), "CZuSocket::Recv(");
  EXPECT_EQ(count, 4);
  EXPECT_STREQ(buffer, "pingre");
  EXPECT_FAILS(far.Recv(buffer, 1, 0, &count), Win32Code(774), kShutdown);
  EXPECT_EQ(count, 0);
  EXPECT_FAILS(far.Recv(buffer, 1, 0, nullptr), Win32Code(774), kShutdown);
}

TEST_P(ZuSocketTransfer, ResetIsTheSystemsError) {
  linger hard{1, 0};
  ASSERT_OK(near.SetSockOpt(SOL_SOCKET, SO_LINGER, reinterpret_cast<char*>(&hard), sizeof hard));
  near.Close();
  EXPECT_FAILS(far.Recv(buffer, 1, 0, &count), ErrNoCode(ECONNRESET), "CZuSocket::Recv(");
  EXPECT_EQ(count, 0);
}

TEST_P(ZuSocketTransfer, ClosedPeerIsAnErrorToTheSenderAndNoSignal) {
  ASSERT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
  far.Close();
  CZuError error;
  while (!Failed(error)) error = near.Send("x", 1, 0, &count);
  EXPECT_FAILS(error, ErrNoCode(EPIPE), "CZuSocket::Send(");
  EXPECT_EQ(count, 0);
  EXPECT_FAILS(near.SendWithTimeOut("x", 1, 5, &timedOut, 0, &count), ErrNoCode(EPIPE),
               "SendWithTimeOut");
  EXPECT_EQ(timedOut, 0);
}

TEST_P(ZuSocketTransfer, NothingToMoveIsNoCall) {
  system_calls::gRecv.ResetCalls();
  system_calls::gSend.ResetCalls();
  for (const int length : {0, -1}) {
    ASSERT_OK(near.Recv(buffer, length, 0, &count));
    EXPECT_EQ(count, 0);
    count = kUntouched;
    ASSERT_OK(near.Send(buffer, length, 0, &count));
    EXPECT_EQ(count, 0);
    count = kUntouched;
    ASSERT_OK(near.RecvWithTimeout(buffer, length, 5, &timedOut, 0, &count));
    ASSERT_OK(near.SendWithTimeOut(buffer, length, 5, &timedOut, 0, &count));
    EXPECT_EQ(count, 0);
    EXPECT_EQ(timedOut, 0);
  }
  EXPECT_EQ(system_calls::gRecv.Calls(), 0);
  EXPECT_EQ(system_calls::gSend.Calls(), 0);
}

TEST_P(ZuSocketTransfer, PeekLeavesTheBytes) {
  ASSERT_OK(near.Send("ping", 4, 0, nullptr));
  ASSERT_OK(far.Recv(buffer, 4, MSG_PEEK, &count));
  EXPECT_EQ(count, 4);
  ASSERT_OK(far.RecvWithTimeout(buffer, 4, 5, &timedOut, MSG_PEEK, &count));
  EXPECT_EQ(count, 4);
  unsigned queued = 0;
  ASSERT_OK(far.GetReadQueueLen(&queued));
  EXPECT_EQ(queued, 4u);
  EXPECT_STREQ(buffer, "pingre");
}

TEST_F(ZuSocketStream, PeekGoesOnUntilAllIsThere) {
  ASSERT_OK(near.Send("ping", 4, 0, nullptr));
  std::thread late([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_OK(near.Send("pong", 4, 0, nullptr));
  });
  EXPECT_OK(far.Recv(buffer, 8, MSG_PEEK, &count));
  late.join();
  EXPECT_EQ(count, 8);
  EXPECT_STREQ(buffer, "pingpong");
}

TEST_F(ZuSocketStream, TimedPeekForMoreThanWillComeTimesOut) {
  ASSERT_OK(near.Send("ping", 4, 0, nullptr));
  near.Close();
  EXPECT_FAILS(far.RecvWithTimeout(buffer, 8, 1, &timedOut, MSG_PEEK, &count), Win32Code(774),
               kReceiveTimedOut);
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 4);
}

TEST_F(ZuSocketStream, CountIsStoredWhenReceivingFails) {
  ASSERT_OK(far.Send("ping", 4, 0, nullptr));
  ASSERT_OK(near.SetToNonBlocking());
  EXPECT_FAILS(near.Recv(buffer, 10, 0, &count), ErrNoCode(EAGAIN), "CZuSocket::Recv(");
  EXPECT_EQ(count, 4);
  EXPECT_STREQ(buffer, "pingre");
}

TEST_F(ZuSocketStream, CountIsStoredWhenSendingFails) {
  ASSERT_OK(near.SetToNonBlocking());
  const std::vector<char> bytes(1 << 24);
  EXPECT_FAILS(near.Send(bytes.data(), static_cast<int>(bytes.size()), 0, &count),
               ErrNoCode(EAGAIN), "CZuSocket::Send(");
  EXPECT_GT(count, 0);
  unsigned queued = 0;
  ASSERT_OK(far.GetReadQueueLen(&queued));
  EXPECT_EQ(static_cast<unsigned>(count), queued);
}

TEST_F(ZuSocketStream, FailureAfterAPartKeepsTheCount) {
  const ShortTransfers shorter(3);
  {
    const Fault fault(system_calls::gSend, ENOBUFS, 3);
    EXPECT_FAILS(near.Send("12345678", 8, 0, &count), ErrNoCode(ENOBUFS), "CZuSocket::Send(");
    EXPECT_EQ(count, 6);
  }
  {
    const Fault fault(system_calls::gSend, ENOBUFS, 2);
    EXPECT_FAILS(near.SendWithTimeOut("78", 8, 5, &timedOut, 0, &count), ErrNoCode(ENOBUFS),
                 "SendWithTimeOut");
    EXPECT_EQ(count, 3);
    EXPECT_EQ(timedOut, 0);
  }
  timedOut = kUntouched;
  {
    const Fault fault(system_calls::gRecv, ENOBUFS, 2);
    EXPECT_FAILS(far.Recv(buffer, 8, 0, &count), ErrNoCode(ENOBUFS), "CZuSocket::Recv(");
    EXPECT_EQ(count, 3);
  }
  const Fault fault(system_calls::gRecv, ENOBUFS, 2);
  EXPECT_FAILS(far.RecvWithTimeout(buffer, 8, 5, &timedOut, 0, &count), ErrNoCode(ENOBUFS),
               "RecvWithTimeout");
  EXPECT_EQ(count, 3);
  EXPECT_EQ(timedOut, 0);
}

TEST_F(ZuSocketStream, InterruptsAndShortTransfersGoOn) {
  const ShortTransfers shorter(1);
  for (const bool timed : {false, true}) {
    SCOPED_TRACE(timed);
    {
      const Fault fault(system_calls::gSend, EINTR, 2, 2);
      ASSERT_OK(timed ? near.SendWithTimeOut("ping", 4, 5, &timedOut, 0, &count)
                      : near.Send("ping", 4, 0, &count));
      EXPECT_EQ(count, 4);
      EXPECT_EQ(system_calls::gSend.Calls(), 6);
    }
    const Fault fault(system_calls::gRecv, EINTR, 2, 2);
    ASSERT_OK(timed ? far.RecvWithTimeout(buffer, 4, 5, &timedOut, 0, &count)
                    : far.Recv(buffer, 4, 0, &count));
    EXPECT_EQ(count, 4);
    EXPECT_STREQ(buffer, "pingre");
    EXPECT_EQ(system_calls::gRecv.Calls(), 6);
  }
}

TEST_F(ZuSocketStream, SendThatMovesNothingIsAShutdown) {
  const ShortTransfers shorter(3);
  {
    const Fault fault(system_calls::gSend, 0, 2);
    EXPECT_FAILS(near.Send("12345678", 8, 0, &count), Win32Code(774), kShutdown);
    EXPECT_EQ(count, 3);
  }
  const Fault fault(system_calls::gSend, 0, 2);
  EXPECT_FAILS(near.SendWithTimeOut("12345678", 8, 5, &timedOut, 0, &count), Win32Code(774),
               kShutdown);
  EXPECT_EQ(count, 3);
  EXPECT_EQ(timedOut, 0);
}

// ---- With a time-out ----

TEST_P(ZuSocketTransfer, TimedCallsMoveAllBytes) {
  ASSERT_OK(near.SendWithTimeOut("ping", 4, 5, &timedOut, 0, &count));
  EXPECT_EQ(count, 4);
  EXPECT_EQ(timedOut, 0);
  count = timedOut = kUntouched;
  ASSERT_OK(far.RecvWithTimeout(buffer, 4, 5, &timedOut, 0, &count));
  EXPECT_EQ(count, 4);
  EXPECT_EQ(timedOut, 0);
  EXPECT_STREQ(buffer, "pingre");
  ASSERT_OK(near.SendWithTimeOut("ping", 4, 5, &timedOut, 0, nullptr));
  ASSERT_OK(far.RecvWithTimeout(buffer, 4, 5, &timedOut, 0, nullptr));
}

TEST_P(ZuSocketTransfer, SilenceTimesOutOnceTheClockShowsMore) {
  FakeClock clock;
  const CZuError error = near.RecvWithTimeout(buffer, 1, 2, &timedOut, 0, &count);
  EXPECT_FAILS(error, Win32Code(774), kReceiveTimedOut);
  EXPECT_FAILS(error, Win32Code(774), "CZuSocket::RecvWithTimeout(");
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(clock.PassedMilliseconds(), 3000) << "two seconds have to be over";
  EXPECT_EQ(clock.waits, (std::vector<double>{1, 1, 1})) << "each wait has a second of its own";
  EXPECT_FAILS(near.RecvWithTimeout(buffer, 1, 1, &timedOut, 0, nullptr), Win32Code(774),
               kReceiveTimedOut);
}

TEST_P(ZuSocketTransfer, ReceivedPartIsCountedAtTheTimeOut) {
  ASSERT_OK(near.Send("ping", 4, 0, nullptr));
  const FakeClock clock;
  EXPECT_FAILS(far.RecvWithTimeout(buffer, 10, 3, &timedOut, 0, &count), Win32Code(774),
               kReceiveTimedOut);
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 4);
  EXPECT_STREQ(buffer, "pingre");
}

TEST_F(ZuSocketStream, SendingTimesOutAfterOneWaitAndThenByPolling) {
  ASSERT_NO_FATAL_FAILURE(FillNear());
  FakeClock clock;
  const CZuError error = near.SendWithTimeOut("x", 1, 2, &timedOut, 0, &count);
  EXPECT_FAILS(error, Win32Code(774), kSendTimedOut);
  EXPECT_FAILS(error, Win32Code(774), "CZuSocket::SendWithTimeOut(");
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(clock.PassedMilliseconds(), 3000);
  ASSERT_GT(clock.waits.size(), 2u);
  EXPECT_EQ(clock.waits[0], 1);
  for (std::size_t i = 1; i < clock.waits.size(); ++i) EXPECT_EQ(clock.waits[i], 0) << i;
  EXPECT_FAILS(near.SendWithTimeOut("x", 1, 1, &timedOut, 0, nullptr), Win32Code(774),
               kSendTimedOut);
}

TEST_F(ZuSocketStream, SentPartIsCountedAtTheTimeOut) {
  ASSERT_OK(near.SetToNonBlocking());
  const FakeClock clock;
  const std::vector<char> bytes(1 << 24);
  // A stream that is writable takes a part; the rest waits for a reader who never comes.
  const CZuError error =
      near.SendWithTimeOut(bytes.data(), static_cast<int>(bytes.size()), 2, &timedOut, 0, &count);
  EXPECT_GT(count, 0);
  EXPECT_LT(count, static_cast<int>(bytes.size()));
  EXPECT_FAILS(error, Win32Code(774), kSendTimedOut);
  EXPECT_EQ(timedOut, 1);
}

TEST_F(ZuSocketStream, BlockingSocketMaySendLongerThanTheTimeOut) {
  FakeClock clock;
  const std::vector<char> bytes(1 << 22);
  const int length = static_cast<int>(bytes.size());
  std::thread reader([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    clock.Pass(100'000);
    std::vector<char> received(bytes.size());
    EXPECT_OK(far.Recv(received.data(), length, 0, nullptr));
  });
  EXPECT_OK(near.SendWithTimeOut(bytes.data(), length, 1, &timedOut, 0, &count));
  reader.join();
  EXPECT_EQ(count, length);
  EXPECT_EQ(timedOut, 0) << "one call of the system took it all";
  EXPECT_GE(clock.PassedMilliseconds(), 100'000);
}

TEST_P(ZuSocketTransfer, SlowReaderGetsAllOfALargeSend) {
  std::vector<char> sent(8 << 20);
  for (std::size_t i = 0; i < sent.size(); ++i) sent[i] = static_cast<char>(i * 31 >> 8);
  std::vector<char> received(sent.size());
  std::thread reader([&] {
    int reached = 0;
    int late = 0;
    EXPECT_OK(far.RecvWithTimeout(received.data(), static_cast<int>(received.size()), 30, &late, 0,
                                  &reached));
    EXPECT_EQ(reached, static_cast<int>(received.size()));
  });
  EXPECT_OK(
      near.SendWithTimeOut(sent.data(), static_cast<int>(sent.size()), 30, &timedOut, 0, &count));
  reader.join();
  EXPECT_EQ(count, static_cast<int>(sent.size()));
  EXPECT_TRUE(sent == received);
}

TEST_P(ZuSocketTransfer, CloseIsAShutdownAndNoTimeOut) {
  ASSERT_OK(near.Send("ping", 4, 0, nullptr));
  near.Close();
  EXPECT_FAILS(far.RecvWithTimeout(buffer, 10, 5, &timedOut, 0, &count), Win32Code(774), kShutdown);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(timedOut, 0);
}

TEST_P(ZuSocketTransfer, NoTimeOutMeansNoWaitBeforeTheCall) {
  for (const int timeout : {0, -1}) {
    SCOPED_TRACE(timeout);
    count = timedOut = kUntouched;
    system_calls::gSelect.ResetCalls();
    ASSERT_OK(near.SendWithTimeOut("ping", 4, timeout, &timedOut, 0, &count));
    EXPECT_EQ(timedOut, 0);
    EXPECT_EQ(count, 4);
    count = timedOut = kUntouched;
    ASSERT_OK(far.RecvWithTimeout(buffer, 4, timeout, &timedOut, 0, &count));
    EXPECT_EQ(timedOut, 0);
    EXPECT_EQ(count, 4);
    EXPECT_EQ(system_calls::gSelect.Calls(), 0);
  }
}

TEST_P(ZuSocketTransfer, NoTimeOutWaitsForAsLongAsItTakes) {
  std::thread sender([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_OK(near.Send("ping", 4, 0, nullptr));
  });
  EXPECT_OK(far.RecvWithTimeout(buffer, 4, 0, &timedOut, 0, &count));
  sender.join();
  EXPECT_EQ(count, 4);
}

TEST_P(ZuSocketTransfer, FlagIsNeededWhateverTheTimeOut) {
  for (const int timeout : {-1, 0, 1}) {
    const CZuError received = near.RecvWithTimeout(buffer, 1, timeout, nullptr, 0, &count);
    EXPECT_FAILS(received, Win32Code(87), kNoTimedOut);
    EXPECT_FAILS(received, Win32Code(87), "CZuSocket::RecvWithTimeout(");
    const CZuError sent = near.SendWithTimeOut("x", 1, timeout, nullptr, 0, &count);
    EXPECT_FAILS(sent, Win32Code(87), kNoTimedOut);
    EXPECT_FAILS(sent, Win32Code(87), "CZuSocket::SendWithTimeOut(");
    EXPECT_EQ(count, kUntouched);
  }
}

TEST_P(ZuSocketTransfer, EmptyObjectIsReportedBeforeAMissingFlag) {
  CZuSocket empty;
  EXPECT_FAILS(empty.RecvWithTimeout(buffer, 1, 1, nullptr, 0, nullptr), Win32Code(774),
               "Not a valid socket");
  EXPECT_FAILS(empty.SendWithTimeOut("x", 1, 1, nullptr, 0, nullptr), Win32Code(774),
               "Not a valid socket");
  EXPECT_FAILS(empty.RecvfromICMPSocket(buffer, 1, 1, nullptr, 0, nullptr), Win32Code(774),
               "Not a valid socket");
  EXPECT_FAILS(empty.SendtoICMPSocket("x", 1, 1, nullptr, 0, nullptr), Win32Code(774),
               "Not a valid socket");
}

TEST_P(ZuSocketTransfer, FailedWaitIsTheSystemsError) {
  {
    const Fault fault(system_calls::gSelect, ENOMEM);
    EXPECT_FAILS(far.RecvWithTimeout(buffer, 1, 5, &timedOut, 0, &count), ErrNoCode(ENOMEM),
                 "RecvWithTimeout");
    EXPECT_EQ(count, 0);
    EXPECT_EQ(timedOut, 0);
  }
  const Fault fault(system_calls::gSelect, ENOMEM);
  EXPECT_FAILS(far.SendWithTimeOut("x", 1, 5, &timedOut, 0, &count), ErrNoCode(ENOMEM),
               "SendWithTimeOut");
}

TEST_P(ZuSocketTransfer, InterruptedWaitGoesOn) {
  const Fault fault(system_calls::gSelect, EINTR, 1, 3);
  ASSERT_OK(near.SendWithTimeOut("ping", 4, 5, &timedOut, 0, &count));
  EXPECT_EQ(system_calls::gSelect.Calls(), 4);
  EXPECT_EQ(count, 4);
}

// ---- Descriptors and memory ----

TEST_F(ZuSocketStream, DescriptorThatNoSetHoldsMovesNothingAndDoesNotWait) {
  if (!RaiseDescriptorLimit(9000)) GTEST_SKIP() << "the system's limit is below 9,001 descriptors";
  ASSERT_EQ(dup2(near.GetDescriptor(), 9000), 9000);
  OwnedSocket high(9000);
  system_calls::gSelect.ResetCalls();
  EXPECT_FAILS(high.RecvWithTimeout(buffer, 1, 5, &timedOut, 0, &count), Win32Code(774), kShutdown);
  EXPECT_EQ(timedOut, 0);
  EXPECT_EQ(count, 0);
  timedOut = count = kUntouched;
  EXPECT_FAILS(high.SendWithTimeOut("x", 1, 5, &timedOut, 0, &count), Win32Code(774), kShutdown);
  EXPECT_EQ(timedOut, 0);
  EXPECT_EQ(count, 0);
  EXPECT_OK(high.SendtoICMPSocket("x", 1, 5, &timedOut, 0, &count));
  EXPECT_OK(high.RecvfromICMPSocket(buffer, 1, 5, &timedOut, 0, &count));
  EXPECT_EQ(timedOut, 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(system_calls::gSelect.Calls(), 0);
  EXPECT_OK(high.Send("x", 1, 0, &count)) << "without a time-out any descriptor will do";
}

TEST_F(ZuSocketStream, DescriptorBelowTheMaximumIsWaitedFor) {
  if (!RaiseDescriptorLimit(9000)) GTEST_SKIP() << "the system's limit is below 9,001 descriptors";
  ASSERT_EQ(dup2(near.GetDescriptor(), 9000), 9000);
  OwnedSocket high(9000);
  ZuFdset::maxsock_set(9001);
  ASSERT_OK(far.Send("ping", 4, 0, nullptr));
  EXPECT_OK(high.RecvWithTimeout(buffer, 4, 5, &timedOut, 0, &count));
  EXPECT_OK(high.SendWithTimeOut("pong", 4, 5, &timedOut, 0, &count));
  const FakeClock clock;
  EXPECT_FAILS(high.RecvWithTimeout(buffer, 4, 5, &timedOut, 0, &count), Win32Code(774),
               kReceiveTimedOut);
  ZuFdset::maxsock_set(KDFDSET_INTERNAL_SOCKETS);
}

TEST_P(ZuSocketTransfer, NoHeapMemoryIsNeeded) {
  ASSERT_LT(near.GetDescriptor(), static_cast<int>(KDFDSET_INTERNAL_SOCKETS));
  CZuIPAddr address;
  const std::size_t news = heap::Calls(heap::kNew);
  const std::size_t callocs = heap::Calls(heap::kCalloc);
  for (int round = 0; round < 10; ++round) {
    const bool ok = !Failed(near.Send("ping", 4, 0, &count)) &&
                    !Failed(far.Recv(buffer, 4, 0, &count)) &&
                    !Failed(near.SendWithTimeOut("ping", 4, 5, &timedOut, 0, &count)) &&
                    !Failed(far.RecvWithTimeout(buffer, 4, 5, &timedOut, 0, &count)) &&
                    !Failed(near.GetLocalAddress(address));
    if (!ok) FAIL();
  }
  EXPECT_EQ(heap::Calls(heap::kNew) - news, 0u);
  EXPECT_EQ(heap::Calls(heap::kCalloc) - callocs, 0u);
}

TEST_F(ZuSocketStream, HighDescriptorWithoutMemoryMovesNothing) {
  if (!RaiseDescriptorLimit(9000)) GTEST_SKIP() << "the system's limit is below 9,001 descriptors";
  ASSERT_EQ(dup2(near.GetDescriptor(), 9000), 9000);
  OwnedSocket high(9000);
  ZuFdset::maxsock_set(9001);
  const std::size_t callocs = heap::Calls(heap::kCalloc);
  {
    const heap::Failing none(heap::kCalloc);
    EXPECT_FAILS(high.SendWithTimeOut("x", 1, 5, &timedOut, 0, &count), Win32Code(774), kShutdown);
  }
  EXPECT_GT(heap::Calls(heap::kCalloc), callocs) << "what counts the memory sees it";
  EXPECT_EQ(timedOut, 0);
  ZuFdset::maxsock_set(KDFDSET_INTERNAL_SOCKETS);
}

// ---- Threads ----

TEST_P(ZuSocketTransfer, ConstantFunctionsRunOnOneObjectFromTwoThreads) {
  constexpr int kRounds = 300;
  const CZuSocket& shared = near;
  std::thread echo([this] {
    char byte = 0;
    int late = 0;
    for (int i = 0; i < kRounds; ++i) {
      ASSERT_OK(far.RecvWithTimeout(&byte, 1, 30, &late, 0, nullptr));
      ASSERT_OK(far.Send(&byte, 1, 0, nullptr));
    }
  });
  std::thread sender([&] {
    int late = 0;
    for (int i = 0; i < kRounds; ++i) {
      const char byte = static_cast<char>(i);
      ASSERT_OK(shared.SendWithTimeOut(&byte, 1, 30, &late, 0, nullptr));
      EXPECT_STREQ(shared.GetLocalAddressString().c_str(), GetParam());
    }
  });
  int late = 0;
  for (int i = 0; i < kRounds; ++i) {
    char byte = 0;
    ASSERT_OK(shared.RecvWithTimeout(&byte, 1, 30, &late, 0, nullptr));
    ASSERT_EQ(byte, static_cast<char>(i));
    ASSERT_STREQ(shared.GetPeerAddressString().c_str(), GetParam());
    ASSERT_TRUE(shared == near);
  }
  sender.join();
  echo.join();
}

}  // namespace
