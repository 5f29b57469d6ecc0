#include "ZuNetwork/ZuSocketSelector.h"

#include <netinet/in.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <initializer_list>
#include <thread>
#include <type_traits>

#include "support/Heap.h"
#include "support/SocketObjects.h"
#include "support/SystemCalls.h"

namespace {

constexpr timeval kNow{0, 0};
constexpr timeval kLong{30, 0};
constexpr int kMaximum = 20000;

static_assert(!std::is_copy_constructible_v<CZuSocketSelector>);

std::vector<int> DescriptorsOf(const ZuSocketSet& sockets) {
  std::vector<int> descriptors;
  for (const CZuSocket& socket : sockets) descriptors.push_back(socket.GetDescriptor());
  return descriptors;
}

using Descriptors = std::vector<int>;

CZuSocket SocketOf(int descriptor) {
  CZuSocket socket;
  socket.AttachConnectedSocket(descriptor);
  return socket;
}

// Shows what the system is asked for, and uses every bit of the three sets that it may use.
class WatchedSelect : public Replacement<int(int, fd_set*, fd_set*, fd_set*, timeval*)> {
 public:
  WatchedSelect()
      : Replacement(system_calls::gSelect,
                    [this](int nfds, fd_set* in, fd_set* out, fd_set* except, timeval* timeout) {
                      count = nfds;
                      for (fd_set* set : {in, out, except}) Touch(set, nfds);
                      hasTimeout = timeout != nullptr;
                      if (hasTimeout) asked = *timeout;
                      return system_calls::gSelect.Real(nfds, in, out, except, timeout);
                    }) {}

  int count = -1;
  bool hasTimeout = false;
  timeval asked{};

 private:
  static void Touch(fd_set* set, int nfds) {
    auto* const bytes = reinterpret_cast<volatile unsigned char*>(set);
    for (int i = 0; i < (nfds + 63) / 64 * 8; ++i) bytes[i] = bytes[i];
  }
};

class ZuSocketSelector : public SocketTest {
 protected:
  ZuSocketSelector() {
    int pair[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    first.AttachConnectedSocket(pair[0]);
    second.AttachConnectedSocket(pair[1]);
  }

  void MakeReadable(CZuSocket& socket) {
    ASSERT_TRUE(socket == first || socket == second);
    ASSERT_OK((socket == first ? second : first).Send("x", 1, 0, nullptr));
  }

  OwnedSocket first;
  OwnedSocket second;
  bool timedOut = false;
};

class ZuSocketSelectorHigh : public ZuSocketSelector {
 protected:
  void SetUp() override {
    if (!RaiseDescriptorLimit(kMaximum - 1)) {
      GTEST_SKIP() << "the system's limit is below " << kMaximum << " descriptors";
    }
    ZuFdset::maxsock_set(kMaximum);
  }
  ~ZuSocketSelectorHigh() override { ZuFdset::maxsock_set(KDFDSET_INTERNAL_SOCKETS); }
};

// Gives `socket` another descriptor, this one.
void Duplicate(const CZuSocket& socket, int descriptor, OwnedSocket& copy) {
  ASSERT_EQ(dup2(socket.GetDescriptor(), descriptor), descriptor);
  copy.AttachConnectedSocket(descriptor);
}

// ---- Registering and waiting ----

TEST_F(ZuSocketSelector, WithoutSocketsItAsksForOneDescriptorAndTimesOut) {
  const WatchedSelect watched;
  CZuSocketSelector selector;
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_TRUE(timedOut);
  EXPECT_EQ(watched.count, 1);
}

TEST_F(ZuSocketSelector, NothingIsSelectedBeforeTheFirstWait) {
  CZuSocketSelector selector;
  ASSERT_NO_FATAL_FAILURE(MakeReadable(first));
  EXPECT_TRUE(selector.GetReadSelected().empty());
  selector.SetReadSocket(first);
  selector.SetWriteSocket(first);
  selector.SetExceptionSocket(first);
  EXPECT_TRUE(selector.GetReadSelected().empty());
  EXPECT_TRUE(selector.GetWriteSelected().empty());
  EXPECT_TRUE(selector.GetExceptionSelected().empty());
}

TEST_F(ZuSocketSelector, FindsWhatIsReadable) {
  CZuSocketSelector selector;
  selector.SetReadSocket(first);
  selector.SetReadSocket(second);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_TRUE(timedOut);
  EXPECT_TRUE(selector.GetReadSelected().empty());
  ASSERT_NO_FATAL_FAILURE(MakeReadable(second));
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  EXPECT_FALSE(timedOut);
  EXPECT_EQ(DescriptorsOf(selector.GetReadSelected()), Descriptors{second.GetDescriptor()});
  EXPECT_TRUE(selector.GetWriteSelected().empty());
  EXPECT_TRUE(selector.GetExceptionSelected().empty());
}

TEST_F(ZuSocketSelector, FindsWhatIsWritable) {
  ASSERT_OK(first.SetToNonBlocking());
  const std::vector<char> bytes(1 << 20);
  while (!Failed(first.Send(bytes.data(), 1 << 20, 0, nullptr))) {
  }
  CZuSocketSelector selector;
  selector.SetWriteSocket(first);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_TRUE(timedOut);
  selector.SetWriteSocket(second);
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  EXPECT_FALSE(timedOut);
  EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), Descriptors{second.GetDescriptor()});
  EXPECT_TRUE(selector.GetReadSelected().empty());
}

TEST_F(ZuSocketSelector, FindsOutOfBandData) {
  OwnedSocket client;
  OwnedSocket server;
  ASSERT_NO_FATAL_FAILURE(ConnectOver("127.0.0.1", client, server));
  CZuSocketSelector selector;
  selector.SetExceptionSocket(client);
  selector.SetExceptionSocket(server);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_TRUE(timedOut);
  ASSERT_OK(client.Send("!", 1, MSG_OOB, nullptr));
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  EXPECT_FALSE(timedOut);
  EXPECT_EQ(DescriptorsOf(selector.GetExceptionSelected()), Descriptors{server.GetDescriptor()});
  EXPECT_TRUE(selector.GetReadSelected().empty());
  char byte = 0;
  ASSERT_OK(server.Recv(&byte, 1, MSG_OOB, nullptr));
  EXPECT_EQ(byte, '!');
}

TEST_F(ZuSocketSelector, KindsAreTold) {
  CZuSocketSelector selector;
  selector.SetReadSocket(first);
  selector.SetWriteSocket(first);
  selector.SetExceptionSocket(first);
  selector.SetReadSocket(second);
  ASSERT_NO_FATAL_FAILURE(MakeReadable(second));
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  EXPECT_EQ(DescriptorsOf(selector.GetReadSelected()), Descriptors{second.GetDescriptor()});
  EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), Descriptors{first.GetDescriptor()});
  EXPECT_TRUE(selector.GetExceptionSelected().empty());
}

TEST_F(ZuSocketSelector, RegistrationsOutliveAnyNumberOfWaits) {
  CZuSocketSelector selector;
  selector.SetReadSocket(first);
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    ASSERT_OK(selector.Select(&kNow, &timedOut));
    EXPECT_TRUE(timedOut);
    EXPECT_TRUE(selector.GetReadSelected().empty());
    ASSERT_NO_FATAL_FAILURE(MakeReadable(first));
    ASSERT_OK(selector.Select(&kLong, &timedOut));
    EXPECT_FALSE(timedOut);
    EXPECT_EQ(DescriptorsOf(selector.GetReadSelected()), Descriptors{first.GetDescriptor()});
    char byte = 0;
    ASSERT_OK(first.Recv(&byte, 1, 0, nullptr));
  }
}

TEST_F(ZuSocketSelector, RepeatedQueriesGiveTheSameUntilTheNextWait) {
  CZuSocketSelector selector;
  selector.SetReadSocket(first);
  selector.SetWriteSocket(second);
  ASSERT_NO_FATAL_FAILURE(MakeReadable(first));
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  char byte = 0;
  ASSERT_OK(first.Recv(&byte, 1, 0, nullptr));
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(DescriptorsOf(selector.GetReadSelected()), Descriptors{first.GetDescriptor()});
    EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), Descriptors{second.GetDescriptor()});
  }
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  EXPECT_TRUE(selector.GetReadSelected().empty());
}

TEST_F(ZuSocketSelector, ResultsAreOfRegisteredSocketsOnly) {
  CZuSocketSelector selector;
  selector.SetWriteSocket(first);
  selector.SetWriteSocket(second);
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  selector.ClearWriteSocket(first);
  selector.SetReadSocket(first);
  EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), Descriptors{second.GetDescriptor()});
  EXPECT_TRUE(selector.GetReadSelected().empty()) << "it was not waited for yet";
}

TEST_F(ZuSocketSelector, ResultsAscendByDescriptor) {
  CZuSocketSelector selector;
  OwnedSocket copies[10];
  Descriptors expected;
  for (OwnedSocket& copy : copies) {
    copy.AttachConnectedSocket(dup(first.GetDescriptor()));
    expected.push_back(copy.GetDescriptor());
  }
  std::for_each(std::rbegin(copies), std::rend(copies),
                [&](const CZuSocket& socket) { selector.SetWriteSocket(socket); });
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), expected);
}

TEST_F(ZuSocketSelector, SecondRegistrationKeepsTheFirstObject) {
  CZuSocketSelector selector;
  CZuSocket early;
  CZuSocket late;
  early.AttachConnectedSocket(first.GetDescriptor(), Address("10.0.0.1"));
  late.AttachConnectedSocket(first.GetDescriptor(), Address("10.0.0.2"));
  selector.SetWriteSocket(early);
  selector.SetWriteSocket(late);
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  const ZuSocketSet selected = selector.GetWriteSelected();
  ASSERT_EQ(selected.size(), 1u);
  EXPECT_EQ(Text(selected.begin()->GetAddress()), "10.0.0.1");
  selector.ClearWriteSocket(late);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_TRUE(timedOut) << "removed at once";
  EXPECT_TRUE(selector.GetWriteSelected().empty());
}

TEST_F(ZuSocketSelector, OwnsNoSocket) {
  {
    CZuSocketSelector selector;
    selector.SetReadSocket(first);
    selector.ClearAll();
    selector.SetReadSocket(first);
  }
  EXPECT_TRUE(IsOpen(first.GetDescriptor()));
}

// ---- Removing ----

TEST_F(ZuSocketSelector, KindsAreClearedEachForItself) {
  struct Kind {
    void (CZuSocketSelector::*set)(const CZuSocket&);
    void (CZuSocketSelector::*clear)(const CZuSocket&);
    void (CZuSocketSelector::*clearAll)();
    ZuSocketSet (CZuSocketSelector::*selected)();
  };
  const Kind kinds[] = {
      {&CZuSocketSelector::SetReadSocket, &CZuSocketSelector::ClearReadSocket,
       &CZuSocketSelector::ClearAllReadSockets, &CZuSocketSelector::GetReadSelected},
      {&CZuSocketSelector::SetWriteSocket, &CZuSocketSelector::ClearWriteSocket,
       &CZuSocketSelector::ClearAllWriteSockets, &CZuSocketSelector::GetWriteSelected},
      {&CZuSocketSelector::SetExceptionSocket, &CZuSocketSelector::ClearExceptionSocket,
       &CZuSocketSelector::ClearAllExceptionSockets, &CZuSocketSelector::GetExceptionSelected},
  };
  // Everything asked for is ready, so that the results are the registrations.
  const Replacement ready(system_calls::gSelect,
                          [](int, fd_set*, fd_set*, fd_set*, timeval*) { return 1; });
  for (const Kind& cleared : kinds) {
    for (const bool all : {false, true}) {
      CZuSocketSelector selector;
      for (const Kind& kind : kinds) (selector.*kind.set)(first);
      if (all) {
        (selector.*cleared.clearAll)();
      } else {
        (selector.*cleared.clear)(first);
      }
      ASSERT_OK(selector.Select(&kNow, &timedOut));
      for (const Kind& kind : kinds) {
        const Descriptors expected =
            &kind == &cleared ? Descriptors{} : Descriptors{first.GetDescriptor()};
        EXPECT_EQ(DescriptorsOf((selector.*kind.selected)()), expected)
            << &cleared - kinds << " cleared, " << &kind - kinds << " asked, all " << all;
      }
    }
  }
}

TEST_F(ZuSocketSelector, ClearingAKindDropsItsResults) {
  CZuSocketSelector selector;
  selector.SetWriteSocket(first);
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  ASSERT_EQ(selector.GetWriteSelected().size(), 1u);
  selector.ClearAllWriteSockets();
  EXPECT_TRUE(selector.GetWriteSelected().empty());
  selector.SetWriteSocket(first);
  EXPECT_TRUE(selector.GetWriteSelected().empty()) << "the old result is gone too";
}

TEST_F(ZuSocketSelector, ClearAllStartsAfresh) {
  const WatchedSelect watched;
  CZuSocketSelector selector;
  selector.SetReadSocket(first);
  selector.SetWriteSocket(second);
  selector.SetExceptionSocket(first);
  selector.ClearAll();
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_TRUE(timedOut);
  EXPECT_EQ(watched.count, 1);
}

TEST_F(ZuSocketSelector, RemovalOfTheHighestAsksForTheNextHighest) {
  const WatchedSelect watched;
  OwnedSocket low(dup(first.GetDescriptor()));
  OwnedSocket middle(dup(first.GetDescriptor()));
  OwnedSocket high(dup(first.GetDescriptor()));
  CZuSocketSelector selector;
  selector.SetReadSocket(low);
  selector.SetWriteSocket(middle);
  selector.SetExceptionSocket(high);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_EQ(watched.count, high.GetDescriptor() + 1);
  selector.ClearExceptionSocket(high);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_EQ(watched.count, middle.GetDescriptor() + 1);
  selector.ClearAllWriteSockets();
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_EQ(watched.count, low.GetDescriptor() + 1);
  selector.SetReadSocket(high);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_EQ(watched.count, high.GetDescriptor() + 1);
  selector.ClearReadSocket(high);
  selector.SetReadSocket(middle);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_EQ(watched.count, middle.GetDescriptor() + 1) << "found anew although one was added";
  selector.ClearReadSocket(middle);
  selector.ClearReadSocket(low);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_EQ(watched.count, 1);
}

TEST_F(ZuSocketSelector, RemovalOfWhatIsNotThereChangesNothing) {
  CZuSocketSelector selector;
  selector.SetWriteSocket(first);
  selector.ClearWriteSocket(second);
  selector.ClearWriteSocket(CZuSocket());
  selector.ClearWriteSocket(SocketOf(1'000'000));
  selector.ClearReadSocket(first);
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), Descriptors{first.GetDescriptor()});
}

// ---- What cannot be registered ----

// Shows the result of registering.
class OpenSelector : public CZuSocketSelector {
 public:
  CZuError Register(const CZuSocket& socket) { return SetSocket(&m_Read, &m_SavedReadSet, socket); }
};

TEST_F(ZuSocketSelector, EmptySocketIsRefused) {
  OpenSelector selector;
  const CZuError error = selector.Register(CZuSocket());
  EXPECT_FAILS(error, Win32Code(10038), "Invalid socket");
  EXPECT_FAILS(error, Win32Code(10038), "CZuSocketSelector::SetSocket(");
}

TEST_F(ZuSocketSelector, EmptySocketIsNotWaitedOn) {
  const WatchedSelect watched;
  CZuSocketSelector selector;
  selector.SetReadSocket(CZuSocket());
  selector.SetWriteSocket(CZuSocket());
  selector.SetExceptionSocket(CZuSocket());
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_TRUE(timedOut);
  EXPECT_EQ(watched.count, 1);
  EXPECT_TRUE(selector.GetReadSelected().empty());
}

TEST_F(ZuSocketSelector, DescriptorBeyondTheMaximumIsRefused) {
  for (const int descriptor : {8192, 100'000, 2147483647, -2, -2147483647 - 1}) {
    SCOPED_TRACE(descriptor);
    const WatchedSelect watched;
    OpenSelector selector;
    const CZuError error = selector.Register(SocketOf(descriptor));
    EXPECT_FAILS(error, Win32Code(774), "Specified fd set is already full; Set size of 8192");
    const std::string text = error.AsString();
    EXPECT_LT(text.find("ZuFdset::set("), text.find("CZuSocketSelector::SetSocket(")) << text;
    selector.SetWriteSocket(first);
    selector.SetWriteSocket(SocketOf(descriptor));
    ASSERT_OK(selector.Select(&kLong, &timedOut));
    EXPECT_EQ(watched.count, first.GetDescriptor() + 1);
    EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), Descriptors{first.GetDescriptor()});
    EXPECT_TRUE(selector.GetReadSelected().empty());
  }
}

TEST_F(ZuSocketSelector, HighestDescriptorBelowTheMaximumIsAccepted) {
  if (!RaiseDescriptorLimit(8191)) GTEST_SKIP() << "the system's limit is below 8,192 descriptors";
  OwnedSocket high;
  ASSERT_NO_FATAL_FAILURE(Duplicate(first, 8191, high));
  const std::size_t callocs = heap::Calls(heap::kCalloc);
  const WatchedSelect watched;
  OpenSelector selector;
  EXPECT_OK(selector.Register(high));
  EXPECT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_EQ(watched.count, 8192);
  EXPECT_EQ(heap::Calls(heap::kCalloc), callocs) << "no set had to grow";
}

TEST_F(ZuSocketSelectorHigh, RegistrationWithoutMemoryIsNotWaitedOn) {
  OpenSelector selector;
  selector.SetWriteSocket(first);
  {
    const heap::Failing none(heap::kCalloc);
    EXPECT_FAILS(selector.Register(SocketOf(9000)), Win32Code(774), "Specified fd set is already");
  }
  EXPECT_FAILS(selector.Register(first), Win32Code(774),
               "Bad fdset pointer passed to 'set' routine");
  const WatchedSelect watched;
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  EXPECT_EQ(watched.count, first.GetDescriptor() + 1);
  EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), Descriptors{first.GetDescriptor()});
  EXPECT_TRUE(selector.GetReadSelected().empty());
}

TEST_F(ZuSocketSelectorHigh, WaitWithoutMemoryIsReported) {
  OwnedSocket high;
  ASSERT_NO_FATAL_FAILURE(Duplicate(first, 9000, high));
  CZuSocketSelector selector;
  selector.SetWriteSocket(high);
  system_calls::gSelect.ResetCalls();
  {
    const heap::Failing none(heap::kCalloc);
    EXPECT_FAILS(selector.Select(&kNow, &timedOut), ErrNoCode(ENOMEM), "Select");
  }
  EXPECT_EQ(system_calls::gSelect.Calls(), 0);
  ASSERT_OK(selector.Select(&kLong, &timedOut)) << "it goes on once there is memory";
  EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), Descriptors{9000});
}

// ---- High descriptors ----

// The bits of the wait before are not left behind where fewer are needed.
TEST_F(ZuSocketSelector, ResultOfASocketEndsWithItsRegistration) {
  OwnedSocket high;
  ASSERT_NO_FATAL_FAILURE(Duplicate(first, 700, high));
  ASSERT_NO_FATAL_FAILURE(MakeReadable(first));
  CZuSocketSelector selector;
  selector.SetReadSocket(high);
  selector.SetReadSocket(second);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_EQ(DescriptorsOf(selector.GetReadSelected()), Descriptors{700});
  selector.ClearReadSocket(high);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_TRUE(timedOut);
  selector.SetReadSocket(high);
  EXPECT_TRUE(selector.GetReadSelected().empty()) << "it was not waited for";
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_EQ(DescriptorsOf(selector.GetReadSelected()), Descriptors{700});
}

TEST_F(ZuSocketSelector, FindsWhatIsReadyAmongManyInAnyPattern) {
  constexpr std::size_t kCount = 300;
  for (const std::size_t step : {1U, 2U, 3U, 63U, 64U, 65U, 299U}) {
    SCOPED_TRACE(step);
    std::vector<OwnedSocket> ends(2 * kCount);
    CZuSocketSelector selector;
    Descriptors expected;
    for (std::size_t i = 0; i < kCount; ++i) {
      int pair[2];
      ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
      ends[2 * i].AttachConnectedSocket(pair[0]);
      ends[2 * i + 1].AttachConnectedSocket(pair[1]);
      selector.SetReadSocket(ends[2 * i]);
      selector.SetWriteSocket(ends[2 * i]);
      if (i % step != 0) continue;
      ASSERT_OK(ends[2 * i + 1].Send("x", 1, 0, nullptr));
      expected.push_back(pair[0]);
    }
    ASSERT_OK(selector.Select(&kNow, &timedOut));
    EXPECT_EQ(DescriptorsOf(selector.GetReadSelected()), expected);
    EXPECT_EQ(selector.GetWriteSelected().size(), std::size_t{kCount});
  }
}

// Its answer to every question is neither yes nor no.
TEST_F(ZuSocketSelectorHigh, EverySocketOfASetWithoutStorageCountsAsReady) {
  OwnedSocket high;
  ASSERT_NO_FATAL_FAILURE(Duplicate(first, 9000, high));
  CZuSocketSelector selector;
  selector.SetWriteSocket(high);
  selector.SetReadSocket(first);
  selector.SetReadSocket(second);
  {
    const heap::Failing none(heap::kCalloc);
    EXPECT_FAILS(selector.Select(&kNow, &timedOut), ErrNoCode(ENOMEM), "Select");
  }
  EXPECT_EQ(selector.GetReadSelected().size(), 2u);
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_TRUE(selector.GetReadSelected().empty());
}

TEST_F(ZuSocketSelectorHigh, WaitsOnAnyDescriptorBelowTheMaximum) {
  for (const int descriptor : {1023, 1024, 5000, 8191, 8192, 9000, kMaximum - 1}) {
    SCOPED_TRACE(descriptor);
    const WatchedSelect watched;
    OwnedSocket high;
    ASSERT_NO_FATAL_FAILURE(Duplicate(first, descriptor, high));
    CZuSocketSelector selector;
    selector.SetReadSocket(high);
    selector.SetWriteSocket(high);
    selector.SetExceptionSocket(high);
    ASSERT_OK(selector.Select(&kNow, &timedOut));
    EXPECT_TRUE(selector.GetReadSelected().empty());
    ASSERT_NO_FATAL_FAILURE(MakeReadable(first));
    ASSERT_OK(selector.Select(&kLong, &timedOut));
    EXPECT_FALSE(timedOut);
    EXPECT_EQ(watched.count, descriptor + 1);
    EXPECT_EQ(DescriptorsOf(selector.GetReadSelected()), Descriptors{descriptor});
    EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), Descriptors{descriptor});
    EXPECT_TRUE(selector.GetExceptionSelected().empty());
    char byte = 0;
    ASSERT_OK(high.Recv(&byte, 1, 0, nullptr));
  }
}

TEST_F(ZuSocketSelectorHigh, EveryKindHasRoomForTheHighestOfAnother) {
  OwnedSocket high;
  ASSERT_NO_FATAL_FAILURE(Duplicate(second, 19000, high));
  using Register = void (CZuSocketSelector::*)(const CZuSocket&);
  const Register kinds[] = {&CZuSocketSelector::SetReadSocket, &CZuSocketSelector::SetWriteSocket,
                            &CZuSocketSelector::SetExceptionSocket};
  for (const Register highKind : kinds) {
    const WatchedSelect watched;
    CZuSocketSelector selector;
    for (const Register kind : kinds) (selector.*kind)(kind == highKind ? high : first);
    for (int round = 0; round < 3; ++round) {
      SCOPED_TRACE(round);
      ASSERT_OK(selector.Select(&kNow, &timedOut));
      EXPECT_EQ(watched.count, 19001);
      EXPECT_TRUE(selector.GetReadSelected().empty());
      const int writable =
          highKind == &CZuSocketSelector::SetWriteSocket ? 19000 : first.GetDescriptor();
      EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), Descriptors{writable});
    }
  }
}

TEST_F(ZuSocketSelectorHigh, RoomComesAndGoesWithTheHighestDescriptor) {
  OwnedSocket high;
  ASSERT_NO_FATAL_FAILURE(Duplicate(second, 19000, high));
  const WatchedSelect watched;
  CZuSocketSelector selector;
  selector.SetReadSocket(first);
  for (int round = 0; round < 4; ++round) {
    SCOPED_TRACE(round);
    selector.SetWriteSocket(high);
    ASSERT_OK(selector.Select(&kNow, &timedOut));
    EXPECT_EQ(watched.count, 19001);
    EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), Descriptors{19000});
    if (round % 2 == 0) {
      selector.ClearWriteSocket(high);
    } else {
      selector.ClearAllWriteSockets();
    }
    ASSERT_OK(selector.Select(&kNow, &timedOut));
    EXPECT_TRUE(timedOut);
    EXPECT_EQ(watched.count, first.GetDescriptor() + 1);
    EXPECT_TRUE(selector.GetReadSelected().empty());
  }
}

TEST_F(ZuSocketSelectorHigh, OneOfThousandsIsFound) {
  constexpr int kSockets = 4000;
  std::vector<OwnedSocket> sockets(kSockets);
  CZuSocketSelector selector;
  for (OwnedSocket& socket : sockets) {
    socket.AttachConnectedSocket(::socket(AF_UNIX, SOCK_DGRAM, 0));
    ASSERT_NE(socket.GetDescriptor(), -1);
    selector.SetReadSocket(socket);
  }
  ASSERT_OK(selector.Select(&kNow, &timedOut));
  EXPECT_TRUE(timedOut);
  ASSERT_NO_FATAL_FAILURE(MakeReadable(first));
  const int chosen = sockets[2345].GetDescriptor();
  ASSERT_EQ(dup2(first.GetDescriptor(), chosen), chosen);
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  EXPECT_FALSE(timedOut);
  EXPECT_EQ(DescriptorsOf(selector.GetReadSelected()), Descriptors{chosen});
}

// ---- Time-outs and failures ----

TEST_F(ZuSocketSelector, TimeOutIsHandedOnAndNotChanged) {
  const WatchedSelect watched;
  CZuSocketSelector selector;
  selector.SetReadSocket(first);
  timeval timeout{0, 20'000};
  ASSERT_OK(selector.Select(&timeout, &timedOut));
  EXPECT_TRUE(timedOut);
  EXPECT_EQ(watched.asked.tv_sec, 0);
  EXPECT_EQ(watched.asked.tv_usec, 20'000);
  EXPECT_EQ(timeout.tv_sec, 0);
  EXPECT_EQ(timeout.tv_usec, 20'000) << "a second wait with it takes as long";
}

TEST_F(ZuSocketSelector, NullTimeOutWaitsForAsLongAsItTakes) {
  const WatchedSelect watched;
  CZuSocketSelector selector;
  selector.SetReadSocket(first);
  std::thread late([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_OK(second.Send("x", 1, 0, nullptr));
  });
  timedOut = true;
  EXPECT_OK(selector.Select(nullptr, &timedOut));
  late.join();
  EXPECT_FALSE(watched.hasTimeout);
  EXPECT_FALSE(timedOut);
  EXPECT_EQ(selector.GetReadSelected().size(), 1u);
}

TEST_F(ZuSocketSelector, FlagMayBeNull) {
  CZuSocketSelector selector;
  EXPECT_OK(selector.Select(&kNow, nullptr));
  selector.SetWriteSocket(first);
  EXPECT_OK(selector.Select(&kNow, nullptr));
  EXPECT_EQ(selector.GetWriteSelected().size(), 1u);
}

TEST_F(ZuSocketSelector, InterruptedWaitIsReportedAndNotRepeated) {
  CZuSocketSelector selector;
  selector.SetReadSocket(first);
  for (const bool before : {false, true}) {
    const Fault fault(system_calls::gSelect, EINTR);
    timedOut = before;
    const CZuError error = selector.Select(&kLong, &timedOut);
    EXPECT_FAILS(error, ErrNoCode(EINTR), "CZuSocketSelector::Select(");
    EXPECT_EQ(system_calls::gSelect.Calls(), 1);
    EXPECT_EQ(timedOut, before) << "untouched";
  }
}

TEST_F(ZuSocketSelector, SignalInterruptsTheWait) {
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
  CZuSocketSelector selector;
  selector.SetReadSocket(first);
  const CZuError error = selector.Select(&kLong, &timedOut);
  done = true;
  interrupter.join();
  EXPECT_FAILS(error, ErrNoCode(EINTR), "CZuSocketSelector::Select(");
}

TEST_F(ZuSocketSelector, ClosedDescriptorIsTheSystemsError) {
  CZuSocketSelector selector;
  selector.SetReadSocket(SocketOf(ClosedDescriptor()));
  EXPECT_FAILS(selector.Select(&kNow, &timedOut), ErrNoCode(EBADF), "CZuSocketSelector::Select(");
}

TEST_F(ZuSocketSelector, BadTimeOutIsTheSystemsError) {
  CZuSocketSelector selector;
  const timeval timeout{-1, 0};
  EXPECT_FAILS(selector.Select(&timeout, &timedOut), ErrNoCode(EINVAL),
               "CZuSocketSelector::Select(");
}

TEST_F(ZuSocketSelector, FailureWithoutAReasonIsASuccessThatTellsNothing) {
  CZuSocketSelector selector;
  selector.SetReadSocket(first);
  const Replacement odd(system_calls::gSelect, [](int, fd_set*, fd_set*, fd_set*, timeval*) {
    errno = 0;
    return -1;
  });
  for (const bool before : {false, true}) {
    timedOut = before;
    EXPECT_OK(selector.Select(&kNow, &timedOut));
    EXPECT_EQ(timedOut, before);
  }
}

TEST_F(ZuSocketSelector, WaitAfterAFailureIsAsGoodAsAny) {
  CZuSocketSelector selector;
  selector.SetWriteSocket(first);
  {
    const Fault fault(system_calls::gSelect, EINTR);
    EXPECT_FAILS(selector.Select(&kLong, &timedOut), ErrNoCode(EINTR), "Select");
  }
  ASSERT_OK(selector.Select(&kLong, &timedOut));
  EXPECT_EQ(DescriptorsOf(selector.GetWriteSelected()), Descriptors{first.GetDescriptor()});
}

}  // namespace
