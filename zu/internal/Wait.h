#pragma once

#include <poll.h>

#include <cerrno>
#include <string>

#include "zu/Deadline.h"

// How every call of the library waits. The results are errno values, of which these are told apart:
// ETIMEDOUT and ECANCELED by the deadline, and two of our own.
namespace zu::internal {

constexpr int kStopIsNotOpen = -1;
constexpr int kPeerIsSilent =
    -2;  // the kernel's own ETIMEDOUT, of a connection or an attempt at one

inline bool IsStopRequested(const Deadline& deadline) noexcept {
  return deadline.GetStop() != nullptr && deadline.GetStop()->IsRequested();
}

// 0 when there is time for another turn.
int CheckTime(const Deadline& deadline) noexcept;

// 0 once the descriptor has one of the events, failed or was hung up.
int WaitFor(int descriptor, short events, const Deadline& deadline) noexcept;

// Calls `attempt` until that is done, and waits where it says so. Its results: 0 done, EAGAIN wait
// for the events, EINTR another turn if there is time, everything else failed.
template <class Attempt>
int Repeat(int descriptor, short events, const Deadline& deadline, Attempt attempt) {
  if (IsStopRequested(deadline)) return ECANCELED;
  for (;;) {
    int err = attempt();
    if (err == EAGAIN) {
      err = WaitFor(descriptor, events, deadline);
    } else if (err == EINTR) {
      err = CheckTime(deadline);
    } else {
      return err;
    }
    if (err != 0) return err;
  }
}

// What a call with Deadline::Now() fails with where it would wait. Made once for each thread.
const CZuError& NotAtOnce();

// The error of a call that was to do `what`, such as "Receive from 10.1.1.1:7".
CZuError MakeError(const FXCodeLocation& where, int err, const std::string& what);

}  // namespace zu::internal
