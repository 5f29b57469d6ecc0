#include "zu/internal/Wait.h"

#include <ctime>

namespace zu::internal {

namespace {

timespec ToTimeSpec(Deadline::Clock::duration left) noexcept {
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  timespec time{};
  time.tv_sec = seconds.count();
  time.tv_nsec = std::chrono::nanoseconds(left - seconds).count();
  return time;
}

}  // namespace

int CheckTime(const Deadline& deadline) noexcept {
  if (IsStopRequested(deadline)) return ECANCELED;
  return deadline.IsPassed() ? ETIMEDOUT : 0;
}

int WaitFor(int descriptor, short events, const Deadline& deadline) noexcept {
  const Stop* const stop = deadline.GetStop();
  if (stop != nullptr && stop->GetDescriptor() < 0) return kStopIsNotOpen;
  pollfd watched[] = {{descriptor, events, 0},
                      {stop != nullptr ? stop->GetDescriptor() : -1, POLLIN, 0}};
  for (;;) {
    const int late = CheckTime(deadline);
    if (late != 0) return late;
    const timespec left = ToTimeSpec(deadline.Left());
    const nfds_t count = stop != nullptr ? 2 : 1;
    const int ready = ppoll(watched, count, deadline.IsNever() ? nullptr : &left, nullptr);
    if (ready < 0 && errno != EINTR) return errno;
    if (ready <= 0) continue;
    if ((watched[0].revents & POLLNVAL) != 0) return EBADF;
    if (watched[0].revents != 0) return 0;
  }
}

const CZuError& NotAtOnce() {
  thread_local const CZuError error =
      FXErrorUtil::ErrorErrNo(ZU_HERE, ETIMEDOUT, "It would have to wait");
  return error;
}

CZuError MakeError(const FXCodeLocation& where, int err, const std::string& what) {
  if (err == kStopIsNotOpen) {
    return FXErrorUtil::ErrorWin32(where, kErrorInvalidState,
                                   "%s: the Stop of the deadline is not open", what.c_str());
  }
  if (err == kPeerIsSilent) {
    return FXErrorUtil::ErrorErrNo(
        where, ECONNABORTED, "%s: the peer does not answer any more (ETIMEDOUT)", what.c_str());
  }
  return FXErrorUtil::ErrorErrNo(where, err, "%s", what.c_str());
}

}  // namespace zu::internal
