#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "ZuNetwork/ZuFdset.h"
#include "support/SocketObjects.h"
#include "support/SystemCalls.h"

// Accepting with a time-out, and pairs of sockets.

namespace {

using system_calls::FakeClock;
using Clock = std::chrono::steady_clock;

constexpr int kUntouched = 99;

std::string NameOfFamily(const testing::TestParamInfo<const char*>& param) {
  return param.index == 0 ? "IPv4" : "IPv6";
}

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// ---- Accepting with a time-out ----

class ZuSocketAccept : public SocketTest, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    OwnedSocket probe;
    if (Failed(probe.Bind(Address(GetParam())))) GTEST_SKIP() << "no " << GetParam() << " here";
    ASSERT_NO_FATAL_FAILURE(ListenOn(GetParam(), listener, address));
    listener.AttachConnectedSocket(listener.GetDescriptor(), Address("10.1.2.3", 4));
    descriptor = listener.GetDescriptor();
  }

  void TearDown() override {
    if (IsSkipped()) return;
    EXPECT_EQ(listener.GetDescriptor(), descriptor) << "the listener stays as it was";
    EXPECT_EQ(Text(listener.GetAddress()), "10.1.2.3");
    EXPECT_TRUE(IsOpen(descriptor));
  }

  void ExpectNothingAccepted() const {
    EXPECT_EQ(accepted.GetDescriptor(), -1);
    EXPECT_TRUE(accepted.GetAddress() == CZuIPAddr());
  }

  OwnedSocket listener;
  int descriptor = -1;
  CZuIPAddr address;
  OwnedSocket client;
  OwnedSocket accepted;
  int timedOut = kUntouched;
};

INSTANTIATE_TEST_SUITE_P(, ZuSocketAccept, testing::Values("127.0.0.1", "::1"), NameOfFamily);

TEST_P(ZuSocketAccept, TakesTheConnectionWithThePeersAddress) {
  for (const int timeout : {5, 0, -1}) {
    SCOPED_TRACE(timeout);
    timedOut = kUntouched;
    ASSERT_OK(client.Connect(address));
    ASSERT_OK(listener.AcceptWithTimeout(accepted, timeout, &timedOut));
    EXPECT_EQ(timedOut, 0);
    CZuIPAddr local;
    ASSERT_OK(client.GetLocalAddress(local));
    EXPECT_EQ(Text(accepted.GetAddress()), GetParam());
    EXPECT_EQ(accepted.GetAddress().GetPortNumber(), local.GetPortNumber());
    accepted.Close();
    client.Close();
  }
}

TEST_P(ZuSocketAccept, FlagIsNeededWhateverTheTimeOut) {
  for (const int timeout : {-1, 0, 1}) {
    const CZuError error = listener.AcceptWithTimeout(accepted, timeout, nullptr);
    EXPECT_FAILS(error, Win32Code(87), "Invalid input parameter, pnTimedOut is NULL");
    EXPECT_FAILS(error, Win32Code(87), "CZuSocket::AcceptWithTimeout(");
  }
  const CZuSocket empty;
  EXPECT_FAILS(empty.AcceptWithTimeout(listener, 0, nullptr), Win32Code(87),
               "Invalid input parameter, pnTimedOut is NULL");
  ExpectNothingAccepted();
}

TEST_P(ZuSocketAccept, NoClientTimesOutBySecondsOfTheClock) {
  const Clock::time_point start = Clock::now();
  const CZuError error = listener.AcceptWithTimeout(accepted, 1, &timedOut);
  EXPECT_FAILS(error, ErrNoCode(62),
               "no connection request received from client within the timeout 1");
  EXPECT_FAILS(error, ErrNoCode(62), "CZuSocket::AcceptWithTimeout(");
  EXPECT_EQ(timedOut, 1);
  EXPECT_GE(SecondsSince(start), 0.99);
  EXPECT_LT(SecondsSince(start), 10);
  ExpectNothingAccepted();
}

TEST_P(ZuSocketAccept, MessageCarriesTheTimeOut) {
  for (const int timeout : {1, 7, 86400, 2147483647}) {
    FakeClock clock;
    timedOut = kUntouched;
    const std::string text =
        "no connection request received from client within the timeout " + std::to_string(timeout);
    const CZuError error = listener.AcceptWithTimeout(accepted, timeout, &timedOut);
    EXPECT_FAILS(error, ErrNoCode(ETIME), (text + ":").c_str());
    EXPECT_EQ(clock.waits, (std::vector<double>{static_cast<double>(timeout)})) << "one wait";
    EXPECT_EQ(timedOut, 1);
  }
}

TEST_P(ZuSocketAccept, WaitsForReadinessAndForExceptions) {
  int asked = 0;
  const Replacement watched(system_calls::gSelect, [&](int nfds, fd_set* in, fd_set* out,
                                                       fd_set* except, timeval* timeout) {
    asked = nfds;
    for (int fd = 0; fd < nfds; ++fd) {
      EXPECT_EQ(FD_ISSET(fd, in) != 0, fd == descriptor) << fd;
      EXPECT_FALSE(FD_ISSET(fd, out)) << fd;
      EXPECT_EQ(FD_ISSET(fd, except) != 0, fd == descriptor) << fd;
    }
    EXPECT_EQ(timeout->tv_sec, 3);
    EXPECT_EQ(timeout->tv_usec, 0);
    return system_calls::gSelect.Real(nfds, in, out, except, timeout);
  });
  ASSERT_OK(client.Connect(address));
  ASSERT_OK(listener.AcceptWithTimeout(accepted, 3, &timedOut));
  EXPECT_EQ(asked, descriptor + 1);
}

TEST_P(ZuSocketAccept, NoTimeOutWaitsForAClient) {
  for (const int timeout : {0, -1}) {
    SCOPED_TRACE(timeout);
    timedOut = kUntouched;
    system_calls::gSelect.ResetCalls();
    std::thread late([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      EXPECT_OK(client.Connect(address));
    });
    const Clock::time_point start = Clock::now();
    EXPECT_OK(listener.AcceptWithTimeout(accepted, timeout, &timedOut));
    late.join();
    EXPECT_GE(SecondsSince(start), 0.09);
    EXPECT_EQ(timedOut, 0);
    EXPECT_EQ(system_calls::gSelect.Calls(), 0);
    accepted.Close();
    client.Close();
  }
}

TEST_P(ZuSocketAccept, NoTimeOutOnANonBlockingListenerIsRefusedAtOnce) {
  ASSERT_OK(listener.SetToNonBlocking());
  EXPECT_FAILS(listener.AcceptWithTimeout(accepted, 0, &timedOut), ErrNoCode(EAGAIN),
               "CZuSocket::Accept(");
  EXPECT_EQ(timedOut, 0);
  ExpectNothingAccepted();
}

TEST_P(ZuSocketAccept, OutputInUseIsRefusedOnceAClientIsThere) {
  OwnedSocket busy(dup(STDERR_FILENO));
  const int held = busy.GetDescriptor();
  ASSERT_OK(client.Connect(address));
  for (const int timeout : {5, 0}) {
    timedOut = kUntouched;
    const CZuError error = listener.AcceptWithTimeout(busy, timeout, &timedOut);
    EXPECT_FAILS(error, Win32Code(774), "Output socket object is already a connected socket");
    EXPECT_EQ(error.AsString().find("AcceptWithTimeout"), std::string::npos)
        << "the error passes unchanged";
    EXPECT_EQ(timedOut, 0);
    EXPECT_EQ(busy.GetDescriptor(), held);
  }
  ASSERT_OK(listener.AcceptWithTimeout(accepted, 5, &timedOut)) << "the client waits on";
}

TEST_P(ZuSocketAccept, OutputInUseIsNotLookedAtBeforeATimeOut) {
  OwnedSocket busy(dup(STDERR_FILENO));
  const FakeClock clock;
  EXPECT_FAILS(listener.AcceptWithTimeout(busy, 2, &timedOut), ErrNoCode(ETIME),
               "within the timeout 2");
  EXPECT_EQ(timedOut, 1);
}

TEST_P(ZuSocketAccept, EmptyObjectWaitsInVainOrSaysSo) {
  const CZuSocket empty;
  {
    const FakeClock clock;
    EXPECT_FAILS(empty.AcceptWithTimeout(accepted, 2, &timedOut), ErrNoCode(ETIME),
                 "within the timeout 2");
    EXPECT_EQ(timedOut, 1);
  }
  EXPECT_FAILS(empty.AcceptWithTimeout(accepted, 0, &timedOut), Win32Code(774),
               "Not a listening socket");
  EXPECT_EQ(timedOut, 0);
}

TEST_P(ZuSocketAccept, DescriptorThatNoSetHoldsIsNotWaitedFor) {
  if (!RaiseDescriptorLimit(9000)) GTEST_SKIP() << "the system's limit is below 9,001 descriptors";
  ASSERT_EQ(dup2(descriptor, 9000), 9000);
  const OwnedSocket high(9000);
  ASSERT_OK(client.Connect(address));
  {
    const FakeClock clock;
    EXPECT_FAILS(high.AcceptWithTimeout(accepted, 2, &timedOut), ErrNoCode(ETIME),
                 "within the timeout 2");
    EXPECT_EQ(timedOut, 1);
  }
  ZuFdset::maxsock_set(9001);
  EXPECT_OK(high.AcceptWithTimeout(accepted, 5, &timedOut));
  EXPECT_EQ(timedOut, 0);
  ZuFdset::maxsock_set(KDFDSET_INTERNAL_SOCKETS);
}

TEST_P(ZuSocketAccept, ExceptionIsReportedAlsoWhenAClientIsThere) {
  ASSERT_OK(client.Connect(address));
  for (const bool readable : {false, true}) {
    SCOPED_TRACE(readable);
    timedOut = kUntouched;
    const Replacement exceptional(system_calls::gSelect,
                                  [&](int, fd_set* in, fd_set*, fd_set*, timeval*) {
                                    if (!readable) FD_CLR(descriptor, in);
                                    return readable ? 2 : 1;
                                  });
    const CZuError error = listener.AcceptWithTimeout(accepted, 5, &timedOut);
    const std::string text = "exception detected on socket " + std::to_string(descriptor);
    EXPECT_FAILS(error, ErrNoCode(5), text.c_str());
    EXPECT_FAILS(error, ErrNoCode(5), "CZuSocket::AcceptWithTimeout(");
    EXPECT_EQ(timedOut, 0);
    ExpectNothingAccepted();
  }
}

TEST_P(ZuSocketAccept, FailedWaitIsPassedOnWithItsPlace) {
  const Fault fault(system_calls::gSelect, ENOMEM);
  const CZuError error = listener.AcceptWithTimeout(accepted, 5, &timedOut);
  EXPECT_FAILS(error, ErrNoCode(ENOMEM), "select call failed");
  const std::string text = error.AsString();
  const std::size_t inner = text.find("CZuSocketSelector::Select(");
  const std::size_t outer = text.find("CZuSocket::AcceptWithTimeout(");
  EXPECT_LT(inner, outer) << text;
  EXPECT_LT(outer, text.find("select call failed")) << text;
  EXPECT_EQ(timedOut, 0);
  ExpectNothingAccepted();
}

TEST_P(ZuSocketAccept, SignalEndsTheWait) {
  struct sigaction ignore {};
  ignore.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGUSR1, &ignore, nullptr), 0);
  std::atomic<bool> done{false};
  const pthread_t waiter = pthread_self();
  std::thread interrupter([&] {
    while (!done) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      pthread_kill(waiter, SIGUSR1);
    }
  });
  const CZuError error = listener.AcceptWithTimeout(accepted, 30, &timedOut);
  done = true;
  interrupter.join();
  EXPECT_FAILS(error, ErrNoCode(EINTR), "select call failed");
  EXPECT_EQ(timedOut, 0);
  ExpectNothingAccepted();
}

TEST_P(ZuSocketAccept, WaitThatFailsWithoutAReasonIsNoTimeOut) {
  ASSERT_OK(client.Connect(address));
  const Replacement odd(system_calls::gSelect,
                        [&](int, fd_set* in, fd_set*, fd_set* except, timeval*) {
                          FD_CLR(descriptor, in);
                          FD_CLR(descriptor, except);
                          errno = 0;
                          return -1;
                        });
  ASSERT_OK(listener.AcceptWithTimeout(accepted, 5, &timedOut));
  EXPECT_EQ(timedOut, 0);
}

TEST_P(ZuSocketAccept, FailedAcceptPassesUnchanged) {
  ASSERT_OK(client.Connect(address));
  for (const int timeout : {5, 0}) {
    const Fault fault(system_calls::gAccept, EMFILE);
    const CZuError error = listener.AcceptWithTimeout(accepted, timeout, &timedOut);
    EXPECT_FAILS(error, ErrNoCode(EMFILE), "CZuSocket::Accept(");
    EXPECT_EQ(error.AsString().find("AcceptWithTimeout"), std::string::npos);
    EXPECT_EQ(timedOut, 0);
    ExpectNothingAccepted();
  }
}

TEST_P(ZuSocketAccept, ClientThatLeftMakesTheAcceptWaitForTheNext) {
  const Replacement stale(system_calls::gSelect,
                          [&](int, fd_set*, fd_set*, fd_set* except, timeval*) {
                            FD_CLR(descriptor, except);
                            return 1;  // readable, although nobody is there any more
                          });
  std::thread next([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_OK(client.Connect(address));
  });
  const Clock::time_point start = Clock::now();
  EXPECT_OK(listener.AcceptWithTimeout(accepted, 1, &timedOut));
  next.join();
  EXPECT_GE(SecondsSince(start), 1.1) << "longer than the time-out";
  EXPECT_EQ(timedOut, 0);
}

// ---- Pairs ----

class ZuSocketPair : public SocketTest {
 protected:
  CZuError Make() { return CZuSocket::CreateSocketPair(&first, &second); }

  OwnedSocket first;
  OwnedSocket second;
  char buffer[16] = "before";
  int count = kUntouched;
  int timedOut = kUntouched;
};

// Lets "localhost" be this address alone.
class LocalhostIs {
 public:
  explicit LocalhostIs(const char* text)
      : m_lookup(system_calls::gGetAddrInfo, [text](const char* name, const char* service,
                                                    const addrinfo* hints, addrinfo** found) {
          EXPECT_STREQ(name, "localhost");
          EXPECT_EQ(service, nullptr);
          EXPECT_EQ(hints->ai_family, AF_UNSPEC) << "the preference decides";
          return system_calls::gGetAddrInfo.Real(text, service, hints, found);
        }) {}

 private:
  Replacement<int(const char*, const char*, const addrinfo*, addrinfo**)> m_lookup;
};

TEST_F(ZuSocketPair, PassesBytesBothWays) {
  ASSERT_OK(Make());
  ASSERT_OK(first.Send("ping", 4, 0, &count));
  ASSERT_OK(second.RecvWithTimeout(buffer, 4, 5, &timedOut, 0, &count));
  EXPECT_STREQ(buffer, "pingre");
  ASSERT_OK(second.SendWithTimeOut("pong", 4, 5, &timedOut, 0, &count));
  ASSERT_OK(first.RecvWithTimeout(buffer, 4, 5, &timedOut, 0, &count));
  EXPECT_STREQ(buffer, "pongre");
}

TEST_F(ZuSocketPair, EmptyOneWouldBlock) {
  ASSERT_OK(Make());
  for (const CZuSocket& socket : {CZuSocket(first), CZuSocket(second)}) {
    EXPECT_TRUE(IsNonBlocking(socket));
    count = kUntouched;
    EXPECT_FAILS(socket.Recv(buffer, 1, 0, &count), ErrNoCode(EAGAIN), "CZuSocket::Recv(");
    EXPECT_EQ(count, 0);
  }
}

TEST_F(ZuSocketPair, IsMadeOverLoopBackOfEitherFamily) {
  for (const char* const text : {"127.0.0.1", "::1"}) {
    SCOPED_TRACE(text);
    OwnedSocket probe;
    if (Failed(probe.Bind(Address(text)))) continue;
    const LocalhostIs localhost(text);
    ASSERT_OK(Make());
    EXPECT_EQ(OptionOf(first, SOL_SOCKET, SO_TYPE), SOCK_STREAM);
    EXPECT_STREQ(first.GetPeerAddressString().c_str(), text);
    CZuIPAddr local;
    ASSERT_OK(first.GetLocalAddress(local));
    EXPECT_TRUE(first.GetAddress() == CZuIPAddr()) << "the connecting one keeps no address";
    EXPECT_EQ(Text(second.GetAddress()), text);
    EXPECT_EQ(second.GetAddress().GetPortNumber(), local.GetPortNumber());
    first.Close();
    second.Close();
  }
}

TEST_F(ZuSocketPair, HooksSeeTheListenerOnly) {
  RecordHooks();
  ASSERT_OK(Make());
  ASSERT_EQ(gListened.size(), 1u);
  EXPECT_EQ(gClosed, gListened);
  EXPECT_FALSE(IsOpen(gListened[0]) && gListened[0] != first.GetDescriptor() &&
               gListened[0] != second.GetDescriptor());
  EXPECT_EQ(OptionOf(first, SOL_SOCKET, SO_ACCEPTCONN), 0);
  EXPECT_EQ(OptionOf(second, SOL_SOCKET, SO_ACCEPTCONN), 0);
}

TEST_F(ZuSocketPair, ListenerDoesNotOutliveTheCall) {
  const std::ptrdiff_t before = OpenDescriptors();
  ASSERT_OK(Make());
  EXPECT_EQ(OpenDescriptors(), before + 2);
}

TEST_F(ZuSocketPair, ListensWithABacklogOfFive) {
  std::vector<int> backlogs;
  const Replacement record(system_calls::gListen, [&](int descriptor, int backlog) {
    backlogs.push_back(backlog);
    return system_calls::gListen.Real(descriptor, backlog);
  });
  ASSERT_OK(Make());
  EXPECT_EQ(backlogs, std::vector<int>{5});
}

TEST_F(ZuSocketPair, BlockingPairIsStillAPair) {
  const Fault fault(system_calls::gIoctl, EIO, 1, 2);
  ASSERT_OK(Make());
  EXPECT_EQ(system_calls::gIoctl.Calls(), 2);
  EXPECT_FALSE(IsNonBlocking(first));
  EXPECT_FALSE(IsNonBlocking(second));
}

TEST_F(ZuSocketPair, FirstMayHoldAnUnconnectedSocket) {
  ASSERT_OK(first.Bind(Address("127.0.0.1")));
  const int descriptor = first.GetDescriptor();
  const LocalhostIs localhost("127.0.0.1");
  ASSERT_OK(Make());
  EXPECT_EQ(first.GetDescriptor(), descriptor);
}

TEST_F(ZuSocketPair, NullPointersAreRefused) {
  for (const auto& [left, right] : {std::pair<CZuSocket*, CZuSocket*>{nullptr, &second},
                                    {&first, nullptr},
                                    {nullptr, nullptr}}) {
    EXPECT_FAILS(CZuSocket::CreateSocketPair(left, right), Win32Code(87), "Null parameter passed");
  }
  EXPECT_EQ(first.GetDescriptor(), -1);
  EXPECT_EQ(second.GetDescriptor(), -1);
}

struct FailingStep {
  const char* name;
  CallScript& function;
  int err;
  int number;  // of the call
  const char* place;
  const char* text;
};

// Up to here the objects are untouched.
const FailingStep kListenerSteps[] = {
    {"socket", system_calls::gSocket, EMFILE, 1, "CZuSocket::Bind(", "Couldn't create socket pair"},
    {"bind", system_calls::gBind, EADDRINUSE, 1, "CZuSocket::Bind(", "Couldn't create socket pair"},
    {"listen", system_calls::gListen, ENOBUFS, 1, "CZuSocket::Listen(",
     "Couldn't create socket pair"},
    {"getsockname", system_calls::gGetSockName, ENOBUFS, 1, "CZuSocket::GetLocalAddress(",
     "Couldn't create socket pair"},
};

// From here on they are closed.
const FailingStep kPairSteps[] = {
    {"socket of first", system_calls::gSocket, EMFILE, 2, "CZuSocket::Connect(",
     "Couldn't connect socket pair"},
    {"connect", system_calls::gConnect, ECONNREFUSED, 1, "CZuSocket::Connect(",
     "Couldn't connect socket pair"},
    {"getsockname of accept", system_calls::gGetSockName, ENOBUFS, 2, "CZuSocket::Accept(",
     "Couldn't accept socket pair"},
    {"accept", system_calls::gAccept, EMFILE, 1, "CZuSocket::Accept(",
     "Couldn't accept socket pair"},
};

void ExpectStepFailure(const FailingStep& step, const CZuError& error) {
  EXPECT_FAILS(error, ErrNoCode(step.err), step.text);
  const std::string text = error.AsString();
  const std::size_t inner = text.find(step.place);
  const std::size_t outer = text.find("CZuSocket::CreateSocketPair(");
  EXPECT_LT(inner, outer) << text;
  EXPECT_LT(outer, text.find(step.text)) << text;
  EXPECT_EQ(text.find("Couldn't"), text.rfind("Couldn't")) << text;
}

TEST_F(ZuSocketPair, UnknownLocalhostLeavesBothObjects) {
  first.AttachConnectedSocket(dup(STDERR_FILENO), Address("10.1.2.3", 4));
  second.AttachConnectedSocket(dup(STDERR_FILENO), Address("10.1.2.4", 5));
  const Replacement unknown(
      system_calls::gGetAddrInfo,
      [](const char*, const char*, const addrinfo*, addrinfo**) { return EAI_NONAME; });
  RecordHooks();
  const CZuError error = Make();
  EXPECT_FAILS(error, ErrNoCode(EAI_NONAME), "CZuIPAddr::GetByName(");
  EXPECT_FAILS(error, ErrNoCode(EAI_NONAME), "CZuSocket::CreateSocketPair(");
  EXPECT_EQ(error.AsString().find("Couldn't"), std::string::npos);
  EXPECT_TRUE(gListened.empty());
  EXPECT_TRUE(gClosed.empty());
  EXPECT_EQ(Text(first.GetAddress()), "10.1.2.3");
  EXPECT_EQ(Text(second.GetAddress()), "10.1.2.4");
}

TEST_F(ZuSocketPair, FailuresOfTheListenerLeaveBothObjects) {
  for (const FailingStep& step : kListenerSteps) {
    SCOPED_TRACE(step.name);
    OwnedSocket left;
    OwnedSocket right;
    left.AttachConnectedSocket(dup(STDERR_FILENO), Address("10.1.2.3", 4));
    right.AttachConnectedSocket(dup(STDERR_FILENO), Address("10.1.2.4", 5));
    const CZuSocket leftBefore = left;
    const CZuSocket rightBefore = right;
    const std::ptrdiff_t before = OpenDescriptors();
    RecordHooks();
    const Fault fault(step.function, step.err, step.number);
    ExpectStepFailure(step, CZuSocket::CreateSocketPair(&left, &right));
    EXPECT_TRUE(fault.HasHappened());
    EXPECT_TRUE(left == leftBefore && right == rightBefore);
    EXPECT_EQ(Text(left.GetAddress()), "10.1.2.3");
    EXPECT_EQ(Text(right.GetAddress()), "10.1.2.4");
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_LE(gClosed.size(), 1u) << "the listener alone";
  }
}

TEST_F(ZuSocketPair, LaterFailuresCloseAndEmptyBothObjects) {
  for (const FailingStep& step : kPairSteps) {
    SCOPED_TRACE(step.name);
    const std::ptrdiff_t before = OpenDescriptors();
    OwnedSocket left;
    OwnedSocket right;
    left = Address("10.1.2.3", 4);
    RecordHooks();
    const Fault fault(step.function, step.err, step.number);
    ExpectStepFailure(step, CZuSocket::CreateSocketPair(&left, &right));
    EXPECT_TRUE(fault.HasHappened());
    EXPECT_EQ(left.GetDescriptor(), -1);
    EXPECT_TRUE(left.GetAddress() == CZuIPAddr());
    EXPECT_EQ(right.GetDescriptor(), -1);
    EXPECT_TRUE(right.GetAddress() == CZuIPAddr());
    EXPECT_EQ(OpenDescriptors(), before);
    ASSERT_EQ(gListened.size(), 1u);
    ASSERT_FALSE(gClosed.empty());
    EXPECT_EQ(gClosed.front(), gListened.front());
  }
}

TEST_F(ZuSocketPair, FailedConnectLeavesTheSecondObject) {
  second.AttachConnectedSocket(dup(STDERR_FILENO), Address("10.1.2.4", 5));
  const int descriptor = second.GetDescriptor();
  const Fault fault(system_calls::gConnect, ECONNREFUSED);
  EXPECT_FAILS(Make(), ErrNoCode(ECONNREFUSED), "Couldn't connect socket pair");
  EXPECT_EQ(second.GetDescriptor(), descriptor);
  EXPECT_TRUE(IsOpen(descriptor));
}

TEST_F(ZuSocketPair, ConnectedFirstObjectFailsAndIsClosed) {
  ASSERT_OK(Make());
  const int descriptor = first.GetDescriptor();
  OwnedSocket other;
  RecordHooks();
  EXPECT_FAILS(CZuSocket::CreateSocketPair(&first, &other), ErrNoCode(EISCONN),
               "Couldn't connect socket pair");
  EXPECT_EQ(first.GetDescriptor(), -1);
  EXPECT_FALSE(IsOpen(descriptor));
  ASSERT_EQ(gClosed.size(), 2u);
  EXPECT_EQ(gClosed[0], gListened[0]);
  EXPECT_EQ(gClosed[1], descriptor);
}

TEST_F(ZuSocketPair, SecondObjectInUseFailsAndIsClosed) {
  second.AttachConnectedSocket(dup(STDERR_FILENO));
  const int descriptor = second.GetDescriptor();
  const CZuError error = Make();
  EXPECT_FAILS(error, Win32Code(774), "Output socket object is already a connected socket");
  EXPECT_FAILS(error, Win32Code(774), "Couldn't accept socket pair");
  EXPECT_EQ(first.GetDescriptor(), -1);
  EXPECT_EQ(second.GetDescriptor(), -1);
  EXPECT_FALSE(IsOpen(descriptor));
}

TEST_F(ZuSocketPair, OneObjectForBothFailsAndIsEmptied) {
  EXPECT_FAILS(CZuSocket::CreateSocketPair(&first, &first), Win32Code(774),
               "Couldn't accept socket pair");
  EXPECT_EQ(first.GetDescriptor(), -1);
}

TEST_F(ZuSocketPair, CloseOfOneEndIsAShutdownToTheOther) {
  ASSERT_OK(Make());
  ASSERT_OK(first.Send("ping", 4, 0, nullptr));
  first.Close();
  EXPECT_FAILS(second.RecvWithTimeout(buffer, 10, 5, &timedOut, 0, &count), Win32Code(774),
               "Socket shutdown detected");
  EXPECT_EQ(count, 4);
}

}  // namespace
