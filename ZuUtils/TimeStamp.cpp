#include "ZuUtils/TimeStamp.h"

#include <ctime>

namespace {

constexpr std::int64_t kNanosecondsPerTick = 100;

}  // namespace

CTimeStamp CTimeStamp::Now() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return CTimeStamp(kUnixEpochTicks + now.tv_sec * kTicksPerSecond +
                    now.tv_nsec / kNanosecondsPerTick);
}
