#include "zu/Deadline.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>

namespace zu {

Stop::~Stop() {
  if (m_descriptor >= 0) close(m_descriptor);
}

CZuError Stop::Open() {
  if (m_descriptor >= 0) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "The Stop is open already");
  }
  m_descriptor = eventfd(IsRequested() ? 1 : 0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (m_descriptor < 0) return FXErrorUtil::ErrorErrNo(ZU_HERE, errno, "No descriptor for a Stop");
  return {};
}

void Stop::Request() noexcept {
  static_assert(std::atomic<bool>::is_always_lock_free, "signal handlers take no locks");
  if (m_requested.exchange(true, std::memory_order_release) || m_descriptor < 0) return;
  const int err = errno;
  const std::uint64_t one = 1;
  (void)!write(m_descriptor, &one, sizeof one);  // the first write to an eventfd always fits
  errno = err;
}

Deadline Deadline::FromNow(std::chrono::duration<double> left) noexcept {
  constexpr double kNanoseconds = 1e9;
  constexpr double kExact = 9007199254740992.0;  // 2^53: from here on neighbours are 2 ns apart
  const Clock::time_point now = Clock::now();
  double nanoseconds = std::ceil(left.count() * kNanoseconds);
  if (!(nanoseconds > 0)) return now;  // what is no number has passed, too
  if (nanoseconds >= kExact) nanoseconds = std::nextafter(nanoseconds, HUGE_VAL);
  const auto most = static_cast<double>((Clock::time_point::max() - now).count());
  if (nanoseconds >= most) return Never();
  return now + Clock::duration(static_cast<Clock::rep>(nanoseconds));
}

Deadline Deadline::Until(const Stop& stop) const noexcept {
  Deadline both = *this;
  both.m_stop = &stop;
  return both;
}

Deadline::Clock::duration Deadline::Left() const noexcept {
  if (IsNever()) return Clock::duration::max();
  const Clock::time_point now = Clock::now();
  return m_when <= now ? Clock::duration::zero() : m_when - now;
}

bool Deadline::IsPassed() const noexcept {
  return !IsNever() && (IsNow() || m_when <= Clock::now());
}

int Deadline::PollTimeOut() const noexcept {
  if (IsNever()) return -1;
  constexpr std::chrono::milliseconds kMost{INT_MAX};
  const Clock::duration left = Left();
  if (left >= kMost) return INT_MAX;
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(left).count());
}

Deadline Earlier(Deadline a, Deadline b) noexcept {
  const Deadline when(std::min(a.GetTime(), b.GetTime()));
  const Stop* const stop = a.GetStop() != nullptr ? a.GetStop() : b.GetStop();
  return stop != nullptr ? when.Until(*stop) : when;
}

}  // namespace zu
