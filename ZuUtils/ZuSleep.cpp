#include "ZuUtils/ZuSleep.h"

#include <atomic>
#include <cerrno>
#include <ctime>

namespace {

std::atomic<ZuSleepCallBack> gCallBack{nullptr};

timespec MonotonicTimeIn(int milliseconds) {
  constexpr long kNanosecondsPerSecond = 1'000'000'000;
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  time.tv_sec += milliseconds / 1000;
  time.tv_nsec += milliseconds % 1000 * 1'000'000L;
  if (time.tv_nsec >= kNanosecondsPerSecond) {
    time.tv_nsec -= kNanosecondsPerSecond;
    ++time.tv_sec;
  }
  return time;
}

}  // namespace

void ZUSLEEP_InTeRnAl(int milliseconds, const char* file, int line) {
  if (const ZuSleepCallBack callBack = gCallBack) callBack({milliseconds, file, line});
  if (milliseconds < 1) return;
  const timespec end = MonotonicTimeIn(milliseconds);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &end, nullptr) == EINTR) {
  }
}

ZuSleepCallBack ZuSetSleepCallBack(ZuSleepCallBack callBack) {
  return gCallBack.exchange(callBack);
}
