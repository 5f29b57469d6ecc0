#include "zu/Deadline.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <limits>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/Expect.h"
#include "support/Namespaces.h"

namespace {

using namespace std::chrono_literals;
using Clock = zu::Deadline::Clock;
using zu::Deadline;

TEST(ZuDeadline, IsSoLongFromNowAndNeverLess) {
  for (const Clock::duration left :
       {Clock::duration(1ns), Clock::duration(1us), Clock::duration(300ms), Clock::duration(5s),
        Clock::duration(1h)}) {
    const Clock::time_point before = Clock::now();
    const Deadline deadline = left;
    EXPECT_GE(deadline.GetTime() - before, left);
    EXPECT_LE(deadline.GetTime() - Clock::now(), left);
  }
}

TEST(ZuDeadline, RoundsAFractionOfANanosecondUp) {
  const Clock::time_point before = Clock::now();
  EXPECT_GT(Deadline(std::chrono::duration<double, std::nano>(0.25)).GetTime(), before);
}

TEST(ZuDeadline, IsForEverWhenTheClockCannotHoldIt) {
  EXPECT_TRUE(Deadline(std::chrono::hours::max()).IsNever());
  EXPECT_TRUE(Deadline(std::chrono::nanoseconds::max()).IsNever());
  EXPECT_TRUE(Deadline(std::chrono::duration<double>(HUGE_VAL)).IsNever());
  EXPECT_FALSE(Deadline(std::chrono::hours(24 * 365 * 100)).IsNever());
}

TEST(ZuDeadline, HasPassedWhenTheDurationIsNotPositive) {
  for (const double left : {0.0, -1.0, -1e300, std::numeric_limits<double>::quiet_NaN()}) {
    const Deadline deadline = std::chrono::duration<double>(left);
    EXPECT_TRUE(deadline.IsPassed()) << left;
    EXPECT_FALSE(deadline.IsNow()) << left;
    EXPECT_EQ(deadline.Left(), Clock::duration::zero()) << left;
  }
  EXPECT_TRUE(Deadline(std::chrono::hours::min()).IsPassed());
}

TEST(ZuDeadline, NeverAndNowAreAtTheEndsOfTime) {
  EXPECT_FALSE(Deadline::Never().IsPassed());
  EXPECT_EQ(Deadline::Never().Left(), Clock::duration::max());
  EXPECT_TRUE(Deadline::Now().IsPassed());
  EXPECT_EQ(Deadline::Now().Left(), Clock::duration::zero());
}

TEST(ZuDeadline, GivesPollMillisecondsRoundedUp) {
  EXPECT_EQ(Deadline::Never().PollTimeOut(), -1);
  EXPECT_EQ(Deadline::Now().PollTimeOut(), 0);
  EXPECT_EQ(Deadline(std::chrono::hours(1000000)).PollTimeOut(), INT_MAX);
  const Deadline deadline = 10s;
  const int milliseconds = deadline.PollTimeOut();
  EXPECT_GE(std::chrono::milliseconds(milliseconds) + 1ns, deadline.Left());
  // Less than a millisecond is one, or it has passed already: never 0 before that.
  for (int i = 0; i < 1000; ++i) {
    const Deadline close = Clock::now() + 100us;
    const int left = close.PollTimeOut();
    EXPECT_TRUE(left == 1 || close.IsPassed()) << left;
  }
}

TEST(ZuDeadline, EarlierIsTheOneThatPassesFirstWithTheStopOfEither) {
  const Clock::time_point now = Clock::now();
  const Deadline soon = now + 1s;
  const Deadline late = now + 2s;
  zu::Stop stop;
  EXPECT_EQ(zu::Earlier(soon, late).GetTime(), now + 1s);
  EXPECT_EQ(zu::Earlier(late, soon).GetTime(), now + 1s);
  EXPECT_EQ(zu::Earlier(Deadline::Never(), late).GetTime(), now + 2s);
  EXPECT_TRUE(zu::Earlier(Deadline::Now(), late).IsNow());
  EXPECT_EQ(zu::Earlier(soon, late).GetStop(), nullptr);
  EXPECT_EQ(zu::Earlier(soon.Until(stop), late).GetStop(), &stop);
  EXPECT_EQ(zu::Earlier(soon, late.Until(stop)).GetStop(), &stop);
}

bool IsReadable(int descriptor) {
  pollfd watched{descriptor, POLLIN, 0};
  return poll(&watched, 1, 0) == 1;
}

TEST(ZuStop, IsReadableOnceRequestedAndStaysSo) {
  zu::Stop stop;
  ASSERT_OK(stop.Open());
  EXPECT_FALSE(stop.IsRequested());
  EXPECT_FALSE(IsReadable(stop.GetDescriptor()));
  stop.Request();
  stop.Request();
  EXPECT_TRUE(stop.IsRequested());
  EXPECT_TRUE(IsReadable(stop.GetDescriptor()));
  EXPECT_TRUE(IsReadable(stop.GetDescriptor()));
}

TEST(ZuStop, RemembersARequestFromBeforeItWasOpened) {
  zu::Stop stop;
  stop.Request();
  ASSERT_OK(stop.Open());
  EXPECT_TRUE(stop.IsRequested());
  EXPECT_TRUE(IsReadable(stop.GetDescriptor()));
}

TEST(ZuStop, IsOpenedOnce) {
  zu::Stop stop;
  ASSERT_OK(stop.Open());
  const int descriptor = stop.GetDescriptor();
  EXPECT_FAILS(stop.Open(), Win32Code(774), "open already");
  EXPECT_EQ(stop.GetDescriptor(), descriptor);
}

TEST(ZuStop, ClosesItsDescriptorAndKeepsItFromOtherPrograms) {
  int descriptor = -1;
  {
    zu::Stop stop;
    ASSERT_OK(stop.Open());
    descriptor = stop.GetDescriptor();
    EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
  }
  EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST(ZuStop, SaysWhenThereIsNoDescriptorForIt) {
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  const rlimit none{0, old.rlim_max};
  zu::Stop stop;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const CZuError error = stop.Open();
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
  EXPECT_FAILS(error, ErrNoCode(EMFILE), "No descriptor for a Stop");
  EXPECT_OK(stop.Open());
}

zu::Stop gStop;  // constant-initialised: a handler may come before main
int gErrNoAfterRequest = -1;

TEST(ZuStop, IsRequestedByASignalHandlerThatKeepsErrno) {
  namespaces::RunInChild([] {  // a stop is opened once
    ASSERT_OK(gStop.Open());
    std::signal(SIGUSR1, [](int) {
      errno = ERANGE;
      gStop.Request();
      gErrNoAfterRequest = errno;
    });
    ASSERT_EQ(raise(SIGUSR1), 0);
    EXPECT_TRUE(gStop.IsRequested());
    EXPECT_TRUE(IsReadable(gStop.GetDescriptor()));
    EXPECT_EQ(gErrNoAfterRequest, ERANGE);
  });
}

TEST(ZuStop, IsRequestedByManyThreads) {
  zu::Stop stop;
  ASSERT_OK(stop.Open());
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back([&] { stop.Request(); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(IsReadable(stop.GetDescriptor()));
}

TEST(ZuStop, StaysWhereDeadlinesKnowIt) {
  EXPECT_FALSE(std::is_move_constructible_v<zu::Stop>);
  EXPECT_FALSE(std::is_copy_constructible_v<zu::Stop>);
}

TEST(ZuErrors, AreToldApartByTheirNumberAlone) {
  EXPECT_TRUE(zu::IsTimeOut(FXErrorUtil::ErrorErrNo(ZU_HERE, ETIMEDOUT)));
  EXPECT_TRUE(zu::IsStopped(FXErrorUtil::ErrorErrNo(ZU_HERE, ECANCELED)));
  EXPECT_FALSE(zu::IsTimeOut(FXErrorUtil::ErrorErrNo(ZU_HERE, ECANCELED)));
  EXPECT_FALSE(zu::IsStopped({}));
  EXPECT_FALSE(zu::IsTimeOut({}));
}

}  // namespace
