#include <cerrno>
#include <numeric>
#include <string>
#include <vector>

#include "support/Heap.h"
#include "support/Sockets.h"
#include "support/SystemFunction.h"

namespace {

using RecvType = ssize_t(int, void*, std::size_t, int);
using SendType = ssize_t(int, const void*, std::size_t, int);

using SelectType = int(int, fd_set*, fd_set*, fd_set*, timeval*);

SystemFunction<RecvType> gRecv{"recv"};
SystemFunction<SendType> gSend{"send"};
SystemFunction<SelectType> gSelect{"select"};

}  // namespace

extern "C" {
ssize_t recv(int s, void* buffer, std::size_t size, int flags) {
  return gRecv(s, buffer, size, flags);
}
ssize_t send(int s, const void* buffer, std::size_t size, int flags) {
  return gSend(s, buffer, size, flags);
}
int select(int count, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* timeout) {
  return gSelect(count, reads, writes, excepts, timeout);
}
}

namespace {

constexpr int kNoDescriptor = 123456;
constexpr int kClosed = -100;  // in a script: the call returns 0

// What the plain function and the timed one have in common is tried on both.
struct Transfer {
  const char* name;
  int (*receive)(KDSOCKET, void*, int, int*, int);
  int (*send)(KDSOCKET, const void*, int, int*, int);
};

int ReceiveTimed(KDSOCKET s, void* buffer, int len, int* count, int flags) {
  int timedOut = -7;
  const int result = ZUNET_recvwithtimeout(s, buffer, len, count, 20, &timedOut, flags);
  EXPECT_EQ(timedOut, 0);
  return result;
}

int SendTimed(KDSOCKET s, const void* buffer, int len, int* count, int flags) {
  int timedOut = -7;
  const int result = ZUNET_sendwithtimeout(s, buffer, len, count, 20, &timedOut, flags);
  EXPECT_EQ(timedOut, 0);
  return result;
}

int ReceiveUnlimited(KDSOCKET s, void* buffer, int len, int* count, int flags) {
  int timedOut = -7;
  const int result = ZUNET_recvwithtimeout(s, buffer, len, count, 0, &timedOut, flags);
  EXPECT_EQ(timedOut, 0);
  return result;
}

int SendUnlimited(KDSOCKET s, const void* buffer, int len, int* count, int flags) {
  int timedOut = -7;
  const int result = ZUNET_sendwithtimeout(s, buffer, len, count, -1, &timedOut, flags);
  EXPECT_EQ(timedOut, 0);
  return result;
}

constexpr Transfer kTransfers[] = {{"Plain", ZUNET_recv, ZUNET_send},
                                   {"Timed", ReceiveTimed, SendTimed},
                                   {"Unlimited", ReceiveUnlimited, SendUnlimited}};

void PrintTo(const Transfer& transfer, std::ostream* stream) { *stream << transfer.name; }

std::string NameOf(const testing::TestParamInfo<Transfer>& tested) { return tested.param.name; }

class Transfers : public testing::TestWithParam<Transfer> {
 protected:
  Transfers() {
    std::iota(large.begin(), large.end(), 0);
    alarm(60);
  }
  ~Transfers() override { alarm(0); }

  int Receive(int len, int flags = 0) {
    return GetParam().receive(pair.near.Get(), buffer, len, &count, flags);
  }
  int Send(const void* data, int len, int flags = 0) {
    return GetParam().send(pair.near.Get(), data, len, &count, flags);
  }
  void PeerSends(const char* text) const {
    const auto length = static_cast<ssize_t>(std::strlen(text));
    EXPECT_EQ(::send(pair.far.Get(), text, std::strlen(text), 0), length);
  }
  std::string Received() const { return std::string(buffer, static_cast<std::size_t>(count)); }

  StreamPair pair{kLoopbacks[0]};
  std::vector<unsigned char> large = std::vector<unsigned char>(3 << 20);
  char buffer[64]{};
  int count = -7;
};

INSTANTIATE_TEST_SUITE_P(, Transfers, testing::ValuesIn(kTransfers), NameOf);

class UntimedTransfers : public Transfers {};

INSTANTIATE_TEST_SUITE_P(, UntimedTransfers, testing::Values(kTransfers[0], kTransfers[2]), NameOf);

// ---- Whole buffers ----

TEST_P(Transfers, MoveWholeBuffersOverEitherFamily) {
  for (const Loopback& loopback : kLoopbacks) {
    pair = StreamPair(loopback);
    std::vector<unsigned char> arrived(large.size());
    const int size = static_cast<int>(large.size());
    int arrivedCount = -7;
    {
      const QuietThread receiver([&] {
        EXPECT_EQ(GetParam().receive(pair.far.Get(), arrived.data(), size, &arrivedCount, 0), 0);
      });
      EXPECT_EQ(Send(large.data(), size), 0);
    }
    EXPECT_EQ(count, size) << loopback.text;
    EXPECT_EQ(arrivedCount, size) << loopback.text;
    EXPECT_TRUE(arrived == large) << loopback.text;
  }
}

TEST_P(Transfers, TakeNoMoreThanAsked) {
  PeerSends("hello");
  EXPECT_EQ(Receive(2), 0);
  EXPECT_EQ(Received(), "he");
  EXPECT_EQ(Receive(3), 0);
  EXPECT_EQ(Received(), "llo");
}

TEST_P(Transfers, OfNothingDoNotCallTheSystem) {
  int calls = 0;
  const Replacement<RecvType> onRecv(gRecv, [&](auto...) { return ++calls; });
  const Replacement<SendType> onSend(gSend, [&](auto...) { return ++calls; });
  for (const int len : {0, -1, -2147483647 - 1}) {
    count = -7;
    EXPECT_EQ(Receive(len), 0) << len;
    EXPECT_EQ(count, 0) << len;
    count = -7;
    EXPECT_EQ(Send("x", len), 0) << len;
    EXPECT_EQ(count, 0) << len;
    EXPECT_EQ(GetParam().receive(kNoDescriptor, buffer, len, &count, MSG_PEEK), 0) << len;
  }
  EXPECT_EQ(calls, 0);
}

// ---- Short counts, interrupts, failures ----

struct Script {
  const char* name;
  std::vector<int> results;  // above 0: so many bytes; kClosed: 0; else the errno, negated
  int result, count;
};

const Script kScripts[] = {
    {"at once", {10}, 0, 10},
    {"byte by byte", {1, 1, 1, 1, 1, 1, 1, 1, 1, 1}, 0, 10},
    {"short counts", {3, 4, 3}, 0, 10},
    {"interrupted twice", {-EINTR, -EINTR, 10}, 0, 10},
    {"interrupted in between", {3, -EINTR, 4, -EINTR, 3}, 0, 10},
    {"closed at once", {kClosed}, 0, 0},
    {"closed in between", {3, 2, kClosed}, 0, 5},
    {"closed after an interrupt", {3, -EINTR, kClosed}, 0, 3},
    {"failed at once", {-ECONNRESET}, ECONNRESET, 0},
    {"failed in between", {7, -ECONNRESET}, ECONNRESET, 7},
    {"failed after an interrupt", {1, -EINTR, -EIO}, EIO, 1},
    {"would block", {4, -EAGAIN}, EAGAIN, 4},
};

TEST_P(Transfers, ReceivingGoesOnUntilAllIsThere) {
  PeerSends("-");  // so that the timed function finds the socket ready
  for (const Script& script : kScripts) {
    std::size_t call = 0;
    int done = 0;
    const Replacement<RecvType> onRecv(gRecv, [&](int s, void* into, std::size_t size, int flags) {
      EXPECT_EQ(s, pair.near.Get()) << script.name;
      EXPECT_EQ(into, buffer + done) << script.name;
      EXPECT_EQ(size, 10u - static_cast<unsigned>(done)) << script.name;
      EXPECT_EQ(flags, MSG_DONTROUTE) << script.name;
      const int result = script.results.at(call++);
      if (result == kClosed) return ssize_t{0};
      if (result < 0) {
        errno = -result;
        return ssize_t{-1};
      }
      done += result;
      return ssize_t{result};
    });
    count = -7;
    errno = 0;
    EXPECT_EQ(Receive(10, MSG_DONTROUTE), script.result) << script.name;
    EXPECT_EQ(count, script.count) << script.name;
    EXPECT_EQ(call, script.results.size()) << script.name;
  }
}

TEST_P(Transfers, SendingGoesOnUntilAllIsGone) {
  for (const Script& script : kScripts) {
    std::size_t call = 0;
    int done = 0;
    const Replacement<SendType> onSend(
        gSend, [&](int s, const void* from, std::size_t size, int flags) {
          EXPECT_EQ(s, pair.near.Get()) << script.name;
          EXPECT_EQ(from, buffer + done) << script.name;
          EXPECT_EQ(size, 10u - static_cast<unsigned>(done)) << script.name;
          EXPECT_EQ(flags, MSG_DONTROUTE | MSG_NOSIGNAL) << script.name;
          const int result = script.results.at(call++);
          if (result == kClosed) return ssize_t{0};
          if (result < 0) {
            errno = -result;
            return ssize_t{-1};
          }
          done += result;
          return ssize_t{result};
        });
    count = -7;
    errno = 0;
    EXPECT_EQ(Send(buffer, 10, MSG_DONTROUTE), script.result) << script.name;
    EXPECT_EQ(count, script.count) << script.name;
    EXPECT_EQ(call, script.results.size()) << script.name;
  }
}

// Counts the interrupts that the system reports to the calls that wait.
struct InterruptCounter {
  std::atomic<int> seen{0};

  template <typename Result>
  Result Count(Result result) {
    if (result < 0 && errno == EINTR) ++seen;
    return result;
  }
  const Replacement<SelectType> onSelect{
      gSelect, [this](int n, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* wait) {
        return Count(gSelect.Real(n, reads, writes, excepts, wait));
      }};
  const Replacement<RecvType> onRecv{gRecv, [this](int s, void* into, std::size_t size, int flags) {
                                       return Count(gRecv.Real(s, into, size, flags));
                                     }};
  const Replacement<SendType> onSend{gSend,
                                     [this](int s, const void* from, std::size_t size, int flags) {
                                       return Count(gSend.Real(s, from, size, flags));
                                     }};
};

TEST_P(Transfers, ReceivingOutlastsSignals) {
  InterruptCounter interrupted;
  {
    const QuietThread release([&] {
      EXPECT_TRUE(WaitFor(interrupted.seen, 3));
      EXPECT_EQ(write(pair.far.Get(), "he", 2), 2);
      EXPECT_TRUE(WaitFor(interrupted.seen, interrupted.seen + 3));
      EXPECT_EQ(write(pair.far.Get(), "llo", 3), 3);
    });
    const Interrupts interrupts;
    EXPECT_EQ(Receive(5), 0);
  }
  EXPECT_EQ(Received(), "hello");
}

TEST_P(Transfers, SendingOutlastsSignals) {
  FillUp(pair.near.Get());
  InterruptCounter interrupted;
  {
    const QuietThread release([&] {
      EXPECT_TRUE(WaitFor(interrupted.seen, 3));
      static char block[65536];
      while (read(pair.far.Get(), block, sizeof block) > 0) continue;
    });
    const Interrupts interrupts;
    EXPECT_EQ(Send(large.data(), static_cast<int>(large.size())), 0);
    pair.near.Reset();
  }
  EXPECT_EQ(count, static_cast<int>(large.size()));
}

// ---- Peers that close ----

TEST_P(Transfers, PeerThatClosesEarlyIsAShortCountToAReceiver) {
  for (const Loopback& loopback : kLoopbacks) {
    pair = StreamPair(loopback);
    PeerSends("hel");
    pair.far.Reset();
    EXPECT_EQ(Receive(5), 0);
    EXPECT_EQ(Received(), "hel");
    EXPECT_EQ(Receive(5), 0);
    EXPECT_EQ(count, 0);
  }
}

TEST_P(Transfers, PeerThatResetsIsAFailureToAReceiver) {
  const linger hard{1, 0};
  setsockopt(pair.far.Get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  pair.far.Reset();
  EXPECT_EQ(Receive(5), ECONNRESET);
  EXPECT_EQ(count, 0);
}

TEST_P(Transfers, ClosedPeerIsEpipeToASenderNotASignal) {
  struct sigaction action {};
  sigaction(SIGPIPE, nullptr, &action);
  ASSERT_EQ(action.sa_handler, SIG_DFL);  // which would end this program
  for (const Loopback& loopback : kLoopbacks) {
    pair = StreamPair(loopback);
    shutdown(pair.near.Get(), SHUT_WR);
    count = -7;
    EXPECT_EQ(Send("hello", 5), EPIPE);
    EXPECT_EQ(count, 0);

    pair = StreamPair(loopback);
    pair.far.Reset();
    int result = 0;
    for (int i = 0; i < 1000 && result == 0; ++i) {
      result = Send("x", 1);  // the first ones make the peer answer with a reset
      usleep(1000);
    }
    EXPECT_TRUE(result == EPIPE || result == ECONNRESET) << result;
  }
}

TEST_P(Transfers, MissingDescriptorIsEbadf) {
  // What no set holds is another matter to the timed functions.
  const int closed = dup(pair.near.Get());
  close(closed);
  EXPECT_EQ(GetParam().receive(closed, buffer, 5, &count, 0), EBADF);
  EXPECT_EQ(count, 0);
  count = -7;
  EXPECT_EQ(GetParam().send(closed, buffer, 5, &count, 0), EBADF);
  EXPECT_EQ(count, 0);
}

// ---- Peeking ----

TEST_P(Transfers, PeekingStartsOverUntilAllIsThere) {
  PeerSends("hel");
  std::atomic<int> peeks{0};
  std::atomic<int> shortest{99};
  const Replacement<RecvType> onRecv(gRecv, [&](int s, void* into, std::size_t size, int flags) {
    EXPECT_EQ(into, buffer);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(flags, MSG_PEEK);
    EXPECT_EQ(count, 0);
    const ssize_t result = gRecv.Real(s, into, size, flags);
    if (result < shortest) shortest = static_cast<int>(result);
    ++peeks;
    return result;
  });
  {
    const QuietThread release([&] {
      EXPECT_TRUE(WaitFor(peeks, 3));
      PeerSends("lo");
    });
    EXPECT_EQ(Receive(5, MSG_PEEK), 0);
  }
  EXPECT_EQ(Received(), "hello");
  EXPECT_EQ(shortest, 3);
  EXPECT_GE(peeks, 4);
}

TEST_P(Transfers, PeekingTakesNothingOut) {
  PeerSends("hello");
  EXPECT_EQ(Receive(5, MSG_PEEK), 0);
  std::memset(buffer, 0, sizeof buffer);
  EXPECT_EQ(Receive(5), 0);
  EXPECT_EQ(Received(), "hello");
}

TEST_P(Transfers, PeekingFromAClosedPeerWithoutDataEnds) {
  pair.far.Reset();
  EXPECT_EQ(Receive(5, MSG_PEEK), 0);
  EXPECT_EQ(count, 0);
}

TEST_P(Transfers, PeekThatFailsOrEndsCountsNothing) {
  PeerSends("-");
  for (const int last : {0, ECONNRESET}) {
    int calls = 0;
    const Replacement<RecvType> onRecv(gRecv, [&](auto...) {
      ++calls;
      if (calls == 1) return ssize_t{3};
      errno = calls == 2 ? EINTR : last;
      return calls == 3 && last == 0 ? ssize_t{0} : ssize_t{-1};
    });
    EXPECT_EQ(Receive(5, MSG_PEEK), last);
    EXPECT_EQ(count, 0) << last;
    EXPECT_EQ(calls, 3) << last;
  }
}

TEST_P(UntimedTransfers, ThatMustNotBlockFailWithTheCountReached) {
  EXPECT_EQ(Receive(5, MSG_DONTWAIT), EAGAIN);
  EXPECT_EQ(count, 0);
  PeerSends("hel");
  EXPECT_EQ(Receive(5, MSG_DONTWAIT), EAGAIN);
  EXPECT_EQ(Received(), "hel");
  FillUp(pair.near.Get());
  EXPECT_EQ(Send("x", 1, MSG_DONTWAIT), EAGAIN);
  EXPECT_EQ(count, 0);
}

// ---- Memory ----

TEST_P(Transfers, AllocateNothingBelow8192) {
  const int low = 8191;
  if (!MayHaveDescriptor(low)) GTEST_SKIP() << "no descriptor " << low << " on this system";
  ASSERT_EQ(dup2(pair.near.Get(), low), low);
  const Descriptor closer(low);
  kdfdset_maxsock_set(20000);
  int sent = -7;
  PeerSends("hello");
  const std::size_t before = heap::Calls(heap::kMalloc | heap::kCalloc);
  const int sending = GetParam().send(low, "hello", 5, &sent, 0);
  const int receiving = GetParam().receive(low, buffer, 5, &count, 0);
  const std::size_t calls = heap::Calls(heap::kMalloc | heap::kCalloc) - before;
  kdfdset_maxsock_set(8192);
  EXPECT_EQ(sending, 0);
  EXPECT_EQ(receiving, 0);
  EXPECT_EQ(sent + count, 10);
  EXPECT_EQ(calls, 0u);
}

TEST_P(Transfers, WorkOnDescriptorsThatNeedAGrownSet) {
  for (const int high : {1023, 1024, 8191, 8192, 9000, 19999}) {
    if (!MayHaveDescriptor(high)) GTEST_SKIP() << "no descriptor " << high << " on this system";
    ASSERT_EQ(dup2(pair.near.Get(), high), high);
    const Descriptor closer(high);
    kdfdset_maxsock_set(20000);
    PeerSends("hello");
    EXPECT_EQ(GetParam().receive(high, buffer, 5, &count, 0), 0) << high;
    EXPECT_EQ(Received(), "hello") << high;
    EXPECT_EQ(GetParam().send(high, "world", 5, &count, 0), 0) << high;
    EXPECT_EQ(count, 5) << high;
    EXPECT_EQ(::recv(pair.far.Get(), buffer, 5, MSG_WAITALL), 5) << high;
    kdfdset_maxsock_set(8192);
  }
}

}  // namespace
