#include "ZuUtils/ZuSleep.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <ctime>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/SystemFunction.h"

namespace {

using Seconds = double;

Seconds SecondsOf(const timespec& time) {
  return static_cast<Seconds>(time.tv_sec) + static_cast<Seconds>(time.tv_nsec) / 1e9;
}

Seconds MonotonicTime() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return SecondsOf(now);
}

struct Told {
  int milliseconds;
  std::string file;
  int line;
  std::thread::id thread;
  Seconds time;
};

std::vector<Told> gTold;

void Record(const ZuSleepCallBackStruct& sleep) {
  gTold.push_back({sleep.nMilliseconds, sleep.pFile == nullptr ? "(null)" : sleep.pFile,
                   sleep.nLine, std::this_thread::get_id(), MonotonicTime()});
}

std::atomic<int> gCount{0};
void Count(const ZuSleepCallBackStruct&) { ++gCount; }
void CountToo(const ZuSleepCallBackStruct&) { ++gCount; }

class ZuSleep : public testing::Test {
 protected:
  void SetUp() override {
    gTold.clear();
    gCount = 0;
    ZuSetSleepCallBack(nullptr);
  }
  void TearDown() override { ZuSetSleepCallBack(nullptr); }
};

SystemFunction<int(clockid_t, int, const timespec*, timespec*)> gNanosleep{"clock_nanosleep"};

// Interrupts whatever the process does every few milliseconds.
class IntervalTimer {
 public:
  explicit IntervalTimer(int milliseconds) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};  // without SA_RESTART
    sigaction(SIGALRM, &action, &m_before);
    Set(milliseconds);
  }
  ~IntervalTimer() {
    Set(0);
    sigaction(SIGALRM, &m_before, nullptr);
  }

 private:
  static void Set(int milliseconds) {
    const itimerval interval = {{0, milliseconds * 1000}, {0, milliseconds * 1000}};
    setitimer(ITIMER_REAL, &interval, nullptr);
  }
  struct sigaction m_before = {};
};

}  // namespace

extern "C" int clock_nanosleep(clockid_t clock, int flags, const timespec* time, timespec* rest) {
  return gNanosleep(clock, flags, time, rest);
}

TEST_F(ZuSleep, TakesAtLeastTheTimeItIsGiven) {
  for (const int milliseconds : {1, 20, 150}) {
    const Seconds start = MonotonicTime();
    ZUSLEEP(milliseconds);
    const Seconds taken = MonotonicTime() - start;
    EXPECT_GE(taken, milliseconds / 1000.0);
    EXPECT_LT(taken, milliseconds / 1000.0 + 2) << milliseconds << " ms";
  }
}

TEST_F(ZuSleep, EveryTimeIsSleptToItsEnd) {
  for (const int milliseconds : {1, 999, 1000, 1001, 1999, 2000, 86'400'000, INT_MAX}) {
    timespec end = {};
    const Replacement none(
        gNanosleep, [&end](clockid_t clock, int flags, const timespec* time, timespec* /*rest*/) {
          end = *time;
          return clock == CLOCK_MONOTONIC && flags == TIMER_ABSTIME ? 0 : EINVAL;
        });
    const Seconds before = MonotonicTime();
    ZUSLEEP(milliseconds);
    const Seconds after = MonotonicTime();
    EXPECT_GE(SecondsOf(end) - before, milliseconds / 1000.0 - 1e-6) << milliseconds;
    EXPECT_LE(SecondsOf(end) - after, milliseconds / 1000.0 + 1e-6) << milliseconds;
    EXPECT_LT(end.tv_nsec, 1'000'000'000) << milliseconds;
  }
}

TEST_F(ZuSleep, ResumesAfterSignalsUntilTheTimeIsOver) {
  int interruptions = 0;
  const Replacement count(gNanosleep,
                          [&](clockid_t clock, int flags, const timespec* time, timespec* rest) {
                            const int result = gNanosleep.Real(clock, flags, time, rest);
                            if (result == EINTR) ++interruptions;
                            return result;
                          });
  const Seconds start = MonotonicTime();
  {
    const IntervalTimer timer(5);
    ZUSLEEP(200);
  }
  const Seconds taken = MonotonicTime() - start;
  EXPECT_GE(interruptions, 5);
  EXPECT_GE(taken, 0.2);
  EXPECT_LT(taken, 2.2);
}

TEST_F(ZuSleep, ReturnsAtOnceBelowOneMillisecond) {
  ZuSetSleepCallBack(Record);
  const Seconds start = MonotonicTime();
  const int times[] = {0, -1, -1000, INT_MIN};
  for (const int milliseconds : times) ZUSLEEP_InTeRnAl(milliseconds, "f", 1);
  EXPECT_LT(MonotonicTime() - start, 1);
  ASSERT_EQ(gTold.size(), 4u) << "the hook is told all the same";
  for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(gTold[i].milliseconds, times[i]);
}

TEST_F(ZuSleep, HookIsToldOfEverySleepBeforeItBegins) {
  EXPECT_EQ(ZuSetSleepCallBack(Record), nullptr);
  const Seconds start = MonotonicTime();
  const int line = __LINE__ + 1;
  ZUSLEEP(40 + 10);
  ZUSLEEP_InTeRnAl(1, "Other.cpp", 77);
  ZUSLEEP_InTeRnAl(1, nullptr, -1);
  ASSERT_EQ(gTold.size(), 3u);
  EXPECT_EQ(gTold[0].milliseconds, 50);
  EXPECT_EQ(gTold[0].file, __FILE__);
  EXPECT_EQ(gTold[0].line, line);
  EXPECT_EQ(gTold[0].thread, std::this_thread::get_id());
  EXPECT_LT(gTold[0].time - start, 0.05) << "told before the sleep";
  EXPECT_GE(gTold[1].time - gTold[0].time, 0.05);
  EXPECT_EQ(gTold[1].milliseconds, 1);
  EXPECT_EQ(gTold[1].file, "Other.cpp");
  EXPECT_EQ(gTold[1].line, 77);
  EXPECT_EQ(gTold[2].file, "(null)");
  EXPECT_EQ(gTold[2].line, -1);
}

TEST_F(ZuSleep, SleepsOfOtherThreadsAreToldOnThoseThreads) {
  ZuSetSleepCallBack(Record);
  std::thread::id other;
  std::thread thread([&other] {
    other = std::this_thread::get_id();
    ZUSLEEP(1);
  });
  thread.join();
  ASSERT_EQ(gTold.size(), 1u);
  EXPECT_EQ(gTold[0].thread, other);
}

TEST_F(ZuSleep, InstallingAHookReturnsTheOneBefore) {
  EXPECT_EQ(ZuSetSleepCallBack(Count), nullptr);
  EXPECT_EQ(ZuSetSleepCallBack(CountToo), &Count);
  EXPECT_EQ(ZuSetSleepCallBack(nullptr), &CountToo);
  EXPECT_EQ(ZuSetSleepCallBack(nullptr), nullptr);
  ZUSLEEP(1);
  EXPECT_EQ(gCount, 0) << "no hook is left";
}

TEST_F(ZuSleep, HookIsExchangedWhileOthersSleep) {
  ZuSetSleepCallBack(Count);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 20; ++i) ZUSLEEP(1);
    });
  }
  for (int i = 0; i < 500; ++i) ZuSetSleepCallBack(i % 2 == 0 ? CountToo : Count);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(gCount, 60);
}

TEST(ZuSleepCallBackStruct, IsARecordOfTimeFileAndLine) {
  static_assert(std::is_same_v<decltype(ZuSleepCallBackStruct::nMilliseconds), std::int32_t>);
  static_assert(std::is_same_v<decltype(ZuSleepCallBackStruct::nLine), std::int32_t>);
  static_assert(offsetof(ZuSleepCallBackStruct, nMilliseconds) == 0);
  static_assert(offsetof(ZuSleepCallBackStruct, pFile) == 8);
  static_assert(offsetof(ZuSleepCallBackStruct, nLine) == 16);
}
