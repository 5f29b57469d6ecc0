#pragma once

#include <cstdint>

#include "ZuUtils/ZuUtilsExport.h"

// A point in time: 100-nanosecond ticks since 1601-01-01 00:00 UTC. The default is 0, no time.
class ZUUTILS_API CTimeStamp {
 public:
  CTimeStamp() = default;
  explicit CTimeStamp(std::int64_t ticks) : m_ticks(ticks) {}

  // The wall clock (CLOCK_REALTIME), which an administrator may set back.
  static CTimeStamp Now();

  static constexpr std::int64_t kTicksPerSecond = 10'000'000;
  static constexpr std::int64_t kUnixEpochTicks = 116'444'736'000'000'000;  // of 1970-01-01

  std::int64_t GetTicks() const { return m_ticks; }

 private:
  std::int64_t m_ticks = 0;
};
