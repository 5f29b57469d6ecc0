#include "ZuUtils/TimeStamp.h"

#include <ctime>

namespace {

constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kNanosecondsPerTick = 100;
constexpr std::int64_t kUnixEpochTicks = 116'444'736'000'000'000;  // 1970-01-01 in ticks

}  // namespace

CTimeStamp CTimeStamp::Now() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return CTimeStamp(kUnixEpochTicks + now.tv_sec * kTicksPerSecond +
                    now.tv_nsec / kNanosecondsPerTick);
}
