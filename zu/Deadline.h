#pragma once

#include <atomic>
#include <cerrno>
#include <chrono>

#include "ZuUtils/ZuError.h"
#include "zu/ZuExport.h"

// When waiting ends: by the clock, and by somebody who says so.
//
// Every call of this library that can wait takes a Deadline and keeps to these rules:
//
// - It tries first, also when the deadline has passed already. ETIMEDOUT (IsTimeOut) therefore says
//   that it would have had to wait, and it says nothing else: where the kernel gives up on a peer
//   by its own timers, the call fails with ECONNABORTED.
// - It never ends early, and only by scheduling late. Signals do not shorten or lengthen a wait.
// - A Stop that was requested ends it with ECANCELED (IsStopped), before it tries as well, so that
//   a busy program ends too.
//
// The clock is the system's steady clock, which stands still while the machine sleeps.
namespace zu {

// Ends waits from elsewhere. It outlives every Deadline that names it, and stays requested.
class ZU_API Stop {
 public:
  Stop() noexcept = default;
  ~Stop();
  Stop(const Stop&) = delete;
  Stop& operator=(const Stop&) = delete;

  // Takes one descriptor, before others know of the object: a wait whose Stop is not open fails
  // with ErrorWin32 774. EMFILE, ENFILE, ENOMEM; 774 when it is open.
  CZuError Open();

  // May be called by any thread, any number of times, and by a signal handler: errno is kept.
  void Request() noexcept;
  bool IsRequested() const noexcept { return m_requested.load(std::memory_order_acquire); }

  int GetDescriptor() const noexcept { return m_descriptor; }  // readable once requested

 private:
  std::atomic<bool> m_requested{false};
  int m_descriptor = -1;
};

// A point in time. It is made where the wait begins: `stream.Receive(p, n, 5s)` may take 5 s from
// that call on, while a Deadline that is kept in a variable bounds all calls that get it together.
// So never keep one as a constant.
class ZU_API Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  // From now on. Any duration converts; it is rounded up to nanoseconds, and one that the clock
  // cannot hold is for ever.
  template <class Rep, class Period>
  Deadline(std::chrono::duration<Rep, Period> left)  // NOLINT(google-explicit-constructor)
      : Deadline(FromNow(std::chrono::duration<double>(left))) {}
  Deadline(Clock::time_point when) noexcept  // NOLINT(google-explicit-constructor)
      : m_when(when) {}

  static Deadline Never() noexcept { return Clock::time_point::max(); }

  // Try, never wait. Nor is memory allocated to say "not yet": each thread has one such error.
  static Deadline Now() noexcept { return Clock::time_point::min(); }

  // The same time, and ended by this Stop as well. A Stop named before is forgotten.
  Deadline Until(const Stop& stop) const noexcept;

  Clock::duration Left() const noexcept;  // 0 once it has passed, max() for Never()
  bool IsPassed() const noexcept;
  bool IsNever() const noexcept { return m_when == Clock::time_point::max(); }
  bool IsNow() const noexcept { return m_when == Clock::time_point::min(); }
  Clock::time_point GetTime() const noexcept { return m_when; }

  // What poll(2) takes: what is left in milliseconds, rounded up so that it does not return early;
  // -1 for Never(). A Stop has to be watched beside it.
  int PollTimeOut() const noexcept;
  const Stop* GetStop() const noexcept { return m_stop; }  // null: none

 private:
  static Deadline FromNow(std::chrono::duration<double> left) noexcept;

  Clock::time_point m_when;
  const Stop* m_stop = nullptr;
};

// The one that passes first, for a limit on each step within a limit on all. At most one of them
// names a Stop, which the result names too.
ZU_API Deadline Earlier(Deadline a, Deadline b) noexcept;

inline bool IsTimeOut(const CZuError& error) { return FXErrorUtil::IsErrNo(error, ETIMEDOUT); }
inline bool IsStopped(const CZuError& error) { return FXErrorUtil::IsErrNo(error, ECANCELED); }

}  // namespace zu
