#include <cerrno>
#include <climits>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "support/Heap.h"
#include "support/Sockets.h"
#include "support/SystemFunction.h"

namespace {

using TimeType = time_t(time_t*);
using SelectType = int(int, fd_set*, fd_set*, fd_set*, timeval*);
using RecvType = ssize_t(int, void*, std::size_t, int);
using SendType = ssize_t(int, const void*, std::size_t, int);
using RecvFromType = ssize_t(int, void*, std::size_t, int, sockaddr*, socklen_t*);
using SendToType = ssize_t(int, const void*, std::size_t, int, const sockaddr*, socklen_t);

SystemFunction<TimeType> gTime{"time"};
SystemFunction<SelectType> gSelect{"select"};
SystemFunction<RecvType> gRecv{"recv"};
SystemFunction<SendType> gSend{"send"};
SystemFunction<RecvFromType> gRecvFrom{"recvfrom"};
SystemFunction<SendToType> gSendTo{"sendto"};

}  // namespace

extern "C" {
time_t time(time_t* out) noexcept { return gTime(out); }
int select(int count, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* timeout) {
  return gSelect(count, reads, writes, excepts, timeout);
}
ssize_t recv(int s, void* buffer, std::size_t size, int flags) {
  return gRecv(s, buffer, size, flags);
}
ssize_t send(int s, const void* buffer, std::size_t size, int flags) {
  return gSend(s, buffer, size, flags);
}
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

constexpr int kSocket = 42;
constexpr time_t kStart = 1'000'000;

// The four functions with a time-out, called alike.
struct Timed {
  const char* name;
  bool sends;
  bool isDatagram;
  int (*call)(KDSOCKET s, char* buffer, int len, int* count, int seconds, int* timedOut, int flags);
};

constexpr Timed kTimed[] = {
    {"Receive", false, false,
     [](KDSOCKET s, char* buffer, int len, int* count, int seconds, int* timedOut, int flags) {
       return ZUNET_recvwithtimeout(s, buffer, len, count, seconds, timedOut, flags);
     }},
    {"Send", true, false,
     [](KDSOCKET s, char* buffer, int len, int* count, int seconds, int* timedOut, int flags) {
       return ZUNET_sendwithtimeout(s, buffer, len, count, seconds, timedOut, flags);
     }},
    {"ReceiveDatagram", false, true,
     [](KDSOCKET s, char* buffer, int len, int* count, int seconds, int* timedOut, int flags) {
       ZUNET_SockAddr from = SockAddr("127.0.0.1");
       return ZUNET_recvfromicmpsocket(s, &from, buffer, len, count, flags, seconds, timedOut);
     }},
    {"SendDatagram", true, true,
     [](KDSOCKET s, char* buffer, int len, int* count, int seconds, int* timedOut, int flags) {
       ZUNET_SockAddr to = SockAddr("127.0.0.1", 9);
       return ZUNET_sendtoicmpsocket(s, &to, buffer, len, count, flags, seconds, timedOut);
     }},
};

void PrintTo(const Timed& timed, std::ostream* stream) { *stream << timed.name; }

std::string NameOf(const testing::TestParamInfo<Timed>& tested) { return tested.param.name; }

// A system without a network: a clock that the test turns, waits and transfers that it decides.
class Timeouts : public testing::TestWithParam<Timed> {
 protected:
  struct Wait {
    long microseconds;  // that were asked for
    time_t at;
  };

  int Run(int len, int seconds, int flags = 0) {
    count = -7;
    timedOut = -7;
    return GetParam().call(kSocket, buffer, len, &count, seconds, &timedOut, flags);
  }

  // Returns what a transfer of `size` bytes does: the next of `transfers`.
  ssize_t Move(std::size_t size) {
    ++transferCalls;
    if (transfers.empty()) return static_cast<ssize_t>(size);
    const int result = transfers.front();
    transfers.erase(transfers.begin());
    if (result >= 0) return result;
    errno = -result;
    return -1;
  }

  // Returns the number of ready descriptors, or the negated errno.
  int WaitFor(timeval* wait) {
    waits.push_back({wait->tv_sec * 1000000 + wait->tv_usec, now});
    if (onWait) {
      const int result = onWait(wait);
      if (result >= 0) return result;
      errno = -result;
      return -1;
    }
    // Nothing becomes ready. A wait of nothing takes a quarter of a second here, to get on.
    now = static_cast<time_t>(kStart + (quarters += wait->tv_sec > 0 ? 4 : 1) / 4);
    *wait = {0, 0};
    return 0;
  }

  time_t now = kStart;
  std::optional<time_t> secondLook;
  long quarters = 0;
  std::vector<Wait> waits;
  std::function<int(timeval*)> onWait;
  std::vector<int> transfers;
  int transferCalls = 0;
  char buffer[16]{};
  int count = -7;
  int timedOut = -7;

 private:
  const Replacement<TimeType> m_time{
      gTime, [this](time_t*) { return std::exchange(now, secondLook.value_or(now)); }};
  const Replacement<SelectType> m_select{
      gSelect, [this](int n, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* wait) {
        EXPECT_EQ(n, kSocket + 1);
        fd_set* const used = GetParam().sends ? writes : reads;
        EXPECT_EQ(GetParam().sends ? reads : writes, nullptr);
        EXPECT_EQ(excepts, nullptr);
        for (int fd = 0; fd <= kSocket; ++fd) {
          EXPECT_EQ(FD_ISSET(fd, used) != 0, fd == kSocket) << fd;
        }
        return WaitFor(wait);
      }};
  const Replacement<RecvType> m_recv{gRecv,
                                     [this](auto, auto, auto size, auto) { return Move(size); }};
  const Replacement<SendType> m_send{gSend,
                                     [this](auto, auto, auto size, auto) { return Move(size); }};
  const Replacement<RecvFromType> m_recvFrom{
      gRecvFrom, [this](auto, auto, auto size, auto, auto, auto) { return Move(size); }};
  const Replacement<SendToType> m_sendTo{
      gSendTo, [this](auto, auto, auto size, auto, auto, auto) { return Move(size); }};
};

INSTANTIATE_TEST_SUITE_P(, Timeouts, testing::ValuesIn(kTimed), NameOf);

// ---- The limit ----

TEST_P(Timeouts, ArePassedWhenTheClockShowsMoreThanTheLimit) {
  for (const int seconds : {1, 2, 5, 60}) {
    now = kStart;
    quarters = 0;
    waits.clear();
    EXPECT_EQ(Run(5, seconds), 0) << seconds;
    EXPECT_EQ(timedOut, 1) << seconds;
    EXPECT_EQ(count, 0) << seconds;
    EXPECT_EQ(now, kStart + seconds + 1) << seconds;
    EXPECT_EQ(waits.back().at, kStart + seconds) << seconds;  // the limit itself is not passed
  }
  EXPECT_EQ(transferCalls, 0);
}

TEST_P(Timeouts, WaitASecondAtATimeOnReceivingAndOneForAllOnSending) {
  EXPECT_EQ(Run(5, 3), 0);
  EXPECT_EQ(timedOut, 1);
  // A second each, up to the fourth; or one second, then four polls a second on this clock.
  ASSERT_EQ(waits.size(), GetParam().sends ? 1u + 3 * 4 : 4u);
  for (std::size_t i = 0; i < waits.size(); ++i) {
    EXPECT_EQ(waits[i].microseconds, GetParam().sends && i > 0 ? 0 : 1000000) << i;
  }
}

TEST_P(Timeouts, AreTestedBeforeEveryWait) {
  secondLook = kStart + 2;  // the clock jumps behind the start
  onWait = [](timeval*) { return 1; };
  EXPECT_EQ(Run(5, 1), 0);
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 0);
  EXPECT_TRUE(waits.empty());
  EXPECT_EQ(transferCalls, 0);
}

TEST_P(Timeouts, CountElapsedSecondsInThirtyTwoBitsWithSign) {
  constexpr time_t kTwoTo31 = time_t{1} << 31;
  constexpr time_t kTwoTo32 = time_t{1} << 32;
  const struct {
    time_t elapsed;
    int limit, timedOut;
  } cases[] = {{-5, 1, 0},
               {-kTwoTo31, 1, 0},
               {kTwoTo31 - 1, INT_MAX, 0},
               {kTwoTo31, 1, 0},
               {kTwoTo31 - 1, 1, 1},
               {kTwoTo32, 1, 0},
               {kTwoTo32 + 1, 1, 0},
               {kTwoTo32 + 2, 1, 1},
               {-kTwoTo32 + 2, 1, 1},
               {1, 1, 0},
               {2, 1, 1},
               {100, INT_MAX, 0}};
  for (const auto& c : cases) {
    now = kStart;
    // The first wait ends without anything, after the time; the second one finds it ready.
    int round = 0;
    onWait = [&](timeval*) {
      now = kStart + c.elapsed;
      return round++;
    };
    EXPECT_EQ(Run(5, c.limit), 0) << c.elapsed;
    EXPECT_EQ(timedOut, c.timedOut) << c.elapsed;
    EXPECT_EQ(count, c.timedOut == 1 ? 0 : 5) << c.elapsed;
  }
}

TEST_P(Timeouts, BelowOneMeanNone) {
  for (const int seconds : {0, -1, INT_MIN}) {
    transferCalls = 0;
    EXPECT_EQ(Run(5, seconds), 0) << seconds;
    EXPECT_EQ(timedOut, 0) << seconds;
    EXPECT_EQ(count, 5) << seconds;
    EXPECT_EQ(transferCalls, 1) << seconds;
    EXPECT_TRUE(waits.empty()) << seconds;
  }
}

TEST_P(Timeouts, AreNotReportedByATransferThatEndsInTime) {
  int round = 0;
  onWait = [&](timeval*) {
    ++now;
    return round++ < 2 ? 0 : 1;
  };
  EXPECT_EQ(Run(5, 2), 0);  // the last wait began at the limit
  EXPECT_EQ(timedOut, 0);
  EXPECT_EQ(count, 5);
  EXPECT_EQ(now, kStart + 3);
}

// ---- Failures ----

TEST_P(Timeouts, FailedWaitIsItsErrNo) {
  for (const int err : {ENOMEM, EBADF}) {
    onWait = [err](timeval*) { return -err; };
    EXPECT_EQ(Run(5, 3), err);
    EXPECT_EQ(timedOut, 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(transferCalls, 0);
  }
}

TEST_P(Timeouts, InterruptedWaitGoesOnWithWhatIsLeft) {
  int round = 0;
  onWait = [&](timeval* wait) {
    if (++round > 2) return 1;
    wait->tv_sec = 0;
    wait->tv_usec = 900000 / round;
    return -EINTR;
  };
  EXPECT_EQ(Run(5, 3), 0);
  EXPECT_EQ(count, 5);
  ASSERT_EQ(waits.size(), 3u);
  EXPECT_EQ(waits[0].microseconds, 1000000);
  EXPECT_EQ(waits[1].microseconds, 900000);
  EXPECT_EQ(waits[2].microseconds, 450000);
}

TEST_P(Timeouts, FailedTransferIsItsErrNo) {
  onWait = [](timeval*) { return 1; };
  for (const int err : {ECONNRESET, EAGAIN, EIO}) {
    transfers = {-err};
    EXPECT_EQ(Run(5, 3), err);
    EXPECT_EQ(timedOut, 0);
    EXPECT_EQ(count, 0);
  }
}

TEST_P(Timeouts, DescriptorThatNoSetHoldsEndsQuietly) {
  kdfdset_maxsock_set(8192);
  for (const int fd : {8192, 9000, 20000, -1, INT_MAX}) {
    for (const int seconds : {1, 3}) {
      count = -7;
      timedOut = -7;
      EXPECT_EQ(GetParam().call(fd, buffer, 5, &count, seconds, &timedOut, 0), 0) << fd;
      EXPECT_EQ(count, 0) << fd;
      EXPECT_EQ(timedOut, 0) << fd;
    }
  }
  EXPECT_TRUE(waits.empty());
  EXPECT_EQ(transferCalls, 0);
}

TEST_P(Timeouts, DescriptorThatFindsNoMemoryEndsQuietly) {
  kdfdset_maxsock_set(20000);
  const std::size_t failures = heap::Failures(heap::kCalloc);
  int result = -7;
  {
    const heap::Failing noMemory(heap::kCalloc);
    result = GetParam().call(9000, buffer, 5, &count, 3, &timedOut, 0);
  }
  kdfdset_maxsock_set(8192);
  EXPECT_EQ(heap::Failures(heap::kCalloc), failures + 1);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(timedOut, 0);
  EXPECT_TRUE(waits.empty());
  EXPECT_EQ(transferCalls, 0);
}

// ---- Streams ----

class StreamTimeouts : public Timeouts {};

INSTANTIATE_TEST_SUITE_P(, StreamTimeouts, testing::Values(kTimed[0], kTimed[1]), NameOf);

TEST_P(StreamTimeouts, KeepTheCountThatWasReached) {
  int round = 0;
  onWait = [&](timeval*) {
    if (++round <= 2) return 1;
    ++now;
    return 0;
  };
  transfers = {3, 1};
  EXPECT_EQ(Run(10, 2), 0);
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(now, kStart + 3);
}

TEST_P(StreamTimeouts, BoundTheWholeTransferNotItsPieces) {
  onWait = [&](timeval*) {
    ++now;
    return 1;
  };
  transfers = {1, 1, 1, 1, 1, 1, 1};
  EXPECT_EQ(Run(10, 4), 0);
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 5);
  EXPECT_EQ(now, kStart + 5);
}

TEST_P(StreamTimeouts, AreNotReportedOnceAllHasMoved) {
  onWait = [&](timeval*) {
    now += 100;
    return 1;
  };
  EXPECT_EQ(Run(5, 1), 0);
  EXPECT_EQ(timedOut, 0);
  EXPECT_EQ(count, 5);
}

TEST_P(StreamTimeouts, WhatIsLeftOfAWaitIsTheSendersNextOne) {
  onWait = [&](timeval* wait) {
    *wait = {0, wait->tv_sec > 0 ? 400000 : wait->tv_usec / 2};
    return 1;
  };
  transfers = {1, 1, 8};
  EXPECT_EQ(Run(10, 3), 0);
  EXPECT_EQ(count, 10);
  ASSERT_EQ(waits.size(), 3u);
  EXPECT_EQ(waits[0].microseconds, 1000000);
  EXPECT_EQ(waits[1].microseconds, GetParam().sends ? 400000 : 1000000);
  EXPECT_EQ(waits[2].microseconds, GetParam().sends ? 200000 : 1000000);
}

TEST_P(StreamTimeouts, InterruptedTransferLooksAtTheClockAgain) {
  onWait = [&](timeval*) {
    ++now;
    return 1;
  };
  transfers = {-EINTR, -EINTR, -EINTR, -EINTR, -EINTR};
  EXPECT_EQ(Run(5, 2), 0);
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(transferCalls, 3);
}

TEST_P(StreamTimeouts, FailuresAndClosedPeersKeepTheCountThatWasReached) {
  onWait = [](timeval*) { return 1; };
  transfers = {3, -ECONNRESET};
  EXPECT_EQ(Run(5, 3), ECONNRESET);
  EXPECT_EQ(count, 3);
  EXPECT_EQ(timedOut, 0);
  transfers = {2, 0};
  EXPECT_EQ(Run(5, 3), 0);
  EXPECT_EQ(count, 2);
  EXPECT_EQ(timedOut, 0);
  int round = 0;
  onWait = [&](timeval*) { return ++round < 2 ? 1 : -ENOMEM; };
  transfers = {4};
  EXPECT_EQ(Run(5, 3), ENOMEM);
  EXPECT_EQ(count, 4);
  EXPECT_EQ(timedOut, 0);
}

TEST_P(StreamTimeouts, OfNothingEndAtOnce) {
  for (const int len : {0, -1}) {
    EXPECT_EQ(Run(len, 3), 0);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(timedOut, 0);
  }
  EXPECT_TRUE(waits.empty());
}

TEST_P(StreamTimeouts, PeekForMoreThanComesKeepsTheLastPeekAndMeansNothingToASender) {
  onWait = [&](timeval*) {
    ++now;
    return 1;
  };
  transfers = {3, 3, 4};
  EXPECT_EQ(Run(15, 2, MSG_PEEK), 0);
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, GetParam().sends ? 3 + 3 + 4 : 4);
  EXPECT_EQ(transferCalls, 3);
}

// ---- Datagrams ----

class DatagramTimeouts : public Timeouts {};

INSTANTIATE_TEST_SUITE_P(, DatagramTimeouts, testing::Values(kTimed[2], kTimed[3]), NameOf);

TEST_P(DatagramTimeouts, OneCallIsMadeWhateverItMoves) {
  onWait = [](timeval*) { return 1; };
  for (const int moved : {0, 3, 5}) {
    for (const int seconds : {0, 3}) {
      transferCalls = 0;
      transfers = {moved};
      EXPECT_EQ(Run(5, seconds), 0);
      EXPECT_EQ(count, moved);
      EXPECT_EQ(timedOut, 0);
      EXPECT_EQ(transferCalls, 1);
    }
  }
}

TEST_P(DatagramTimeouts, InterruptedCallIsReported) {
  onWait = [](timeval*) { return 1; };
  for (const int seconds : {0, 3}) {
    transferCalls = 0;
    transfers = {-EINTR, 5};
    EXPECT_EQ(Run(5, seconds), EINTR);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(timedOut, 0);
    EXPECT_EQ(transferCalls, 1);
  }
}

// ---- The real clock ----

class SilentPeer : public testing::TestWithParam<int> {
 protected:
  StreamPair pair{kLoopbacks[0]};
  char buffer[8]{};
  int count = -7;
  int timedOut = -7;
};

INSTANTIATE_TEST_SUITE_P(, SilentPeer, testing::Values(1, 2), testing::PrintToStringParamName());

TEST_P(SilentPeer, EndsAReceiverOnceTheClockShowsMore) {
  ASSERT_EQ(send(pair.far.Get(), "hel", 3, 0), 3);
  const time_t start = time(nullptr);
  EXPECT_EQ(ZUNET_recvwithtimeout(pair.near.Get(), buffer, 5, &count, GetParam(), &timedOut, 0), 0);
  const time_t elapsed = time(nullptr) - start;
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 3);
  EXPECT_GT(elapsed, GetParam());
  EXPECT_LE(elapsed, GetParam() + 5);
}

TEST(RealTimeouts, FullPeerEndsASender) {
  const StreamPair pair(kLoopbacks[1]);
  FillUp(pair.near.Get());
  int count = -7;
  int timedOut = -7;
  std::vector<long> waits;
  const Replacement<SelectType> record(
      gSelect, [&](int n, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* wait) {
        waits.push_back(wait->tv_sec * 1000000 + wait->tv_usec);
        return gSelect.Real(n, reads, writes, excepts, wait);
      });
  const time_t start = time(nullptr);
  EXPECT_EQ(ZUNET_sendwithtimeout(pair.near.Get(), "hello", 5, &count, 1, &timedOut, 0), 0);
  const time_t elapsed = time(nullptr) - start;
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 0);
  EXPECT_GT(elapsed, 1);
  EXPECT_LE(elapsed, 6);
  // After the second is used up the loop polls until the limit.
  ASSERT_GT(waits.size(), 3u);
  EXPECT_EQ(waits[0], 1000000);
  EXPECT_EQ(waits[1], 0);
  EXPECT_EQ(waits.back(), 0);
}

TEST(RealTimeouts, SilentPeerEndsAReceiverOfDatagrams) {
  ZUNET_SockAddr address;
  const Descriptor s = Bound(kLoopbacks[0], SOCK_DGRAM, address);
  char byte = 0;
  int count = -7;
  int timedOut = -7;
  const time_t start = time(nullptr);
  EXPECT_EQ(ZUNET_recvfromicmpsocket(s.Get(), &address, &byte, 1, &count, 0, 1, &timedOut), 0);
  EXPECT_GT(time(nullptr) - start, 1);
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(count, 0);
}

TEST(RealTimeouts, EveryWaitOnAHighDescriptorAllocatesItsSetOnce) {
  if (!MayHaveDescriptor(9000)) GTEST_SKIP() << "no descriptor 9000 on this system";
  const StreamPair pair(kLoopbacks[0]);
  ASSERT_EQ(dup2(pair.near.Get(), 9000), 9000);
  const Descriptor high(9000);
  kdfdset_maxsock_set(20000);
  time_t now = kStart;
  const Replacement<TimeType> clock(gTime, [&](time_t*) { return now; });
  const Replacement<SelectType> expire(gSelect, [&](auto, auto, auto, auto, auto) {
    ++now;
    return 0;
  });
  char byte = 0;
  int count = -7;
  int timedOut = -7;
  const std::size_t before = heap::Calls(heap::kMalloc | heap::kCalloc);
  const int result = ZUNET_recvwithtimeout(9000, &byte, 1, &count, 5, &timedOut, 0);
  const std::size_t calls = heap::Calls(heap::kMalloc | heap::kCalloc) - before;
  kdfdset_maxsock_set(8192);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(timedOut, 1);
  EXPECT_EQ(calls, 6u);
}

}  // namespace
