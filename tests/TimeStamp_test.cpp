#include "ZuUtils/TimeStamp.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <ctime>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/SystemFunction.h"

namespace {

constexpr std::int64_t kEpoch = 116'444'736'000'000'000;  // 369 years of which 89 are leap years

SystemFunction<int(clockid_t, timespec*)> gClockGetTime{"clock_gettime"};

// What the wall clock is taken for that shows this time.
std::int64_t TicksAt(const timespec& time) {
  const Replacement fixed(gClockGetTime, [&time](clockid_t clock, timespec* out) {
    if (clock != CLOCK_REALTIME) return gClockGetTime.Real(clock, out);
    *out = time;
    return 0;
  });
  return CTimeStamp::Now().GetTicks();
}

std::int64_t TicksOfWallClock() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return kEpoch + now.tv_sec * 10'000'000LL + now.tv_nsec / 100;
}

}  // namespace

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
  return gClockGetTime(clock, time);
}

TEST(TimeStamp, EpochIsThatOfTheFirstOfJanuary1601) {
  EXPECT_EQ(kEpoch, ((1970 - 1601) * 365LL + 89) * 86400 * 10'000'000);
  const struct {
    timespec time;
    std::int64_t ticks;
  } rows[] = {
      {{0, 0}, kEpoch},
      {{0, 99}, kEpoch},
      {{0, 100}, kEpoch + 1},
      {{0, 999'999'999}, kEpoch + 9'999'999},
      {{1, 0}, kEpoch + 10'000'000},
      {{-1, 999'999'900}, kEpoch - 1},
      {{-11'644'473'600, 0}, 0},
      {{1'000'000'000, 123'456'789}, 126'444'736'001'234'567},
      {{2'147'483'648, 0}, 137'919'572'480'000'000},  // a 32-bit time has overflowed
      {{4'294'967'296, 0}, 159'394'408'960'000'000},
      {{253'402'300'799, 0}, 2'650'467'743'990'000'000},  // the end of the year 9999
  };
  for (const auto& row : rows) {
    EXPECT_EQ(TicksAt(row.time), row.ticks)
        << row.time.tv_sec << " s " << row.time.tv_nsec << " ns";
  }
}

TEST(TimeStamp, NowIsTheWallClock) {
  for (int i = 0; i < 100; ++i) {
    const std::int64_t before = TicksOfWallClock();
    const std::int64_t now = CTimeStamp::Now().GetTicks();
    const std::int64_t after = TicksOfWallClock();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
  }
}

TEST(TimeStamp, DefaultIsNoTime) {
  EXPECT_EQ(CTimeStamp().GetTicks(), 0);
  EXPECT_EQ(CTimeStamp(-5).GetTicks(), -5);
  static_assert(std::is_same_v<decltype(CTimeStamp().GetTicks()), std::int64_t>);
  static_assert(sizeof(CTimeStamp) == sizeof(std::int64_t));
}

TEST(TimeStamp, IsReadOnSeveralThreads) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 1000; ++i) EXPECT_GT(CTimeStamp::Now().GetTicks(), kEpoch);
    });
  }
  for (std::thread& thread : threads) thread.join();
}
