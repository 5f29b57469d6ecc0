#include "zu/Resolve.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/Addresses.h"
#include "support/Expect.h"
#include "support/FakeResolver.h"
#include "support/Namespaces.h"

namespace {

using namespace std::chrono_literals;
using std::string_view_literals::operator""sv;
using zu::Deadline;
using Addresses = std::vector<CZuIPAddr>;

constexpr auto kAny = CZuIPAddr::FAMILY_ANY;
constexpr auto kV4 = CZuIPAddr::FAMILY_IPV4;
constexpr auto kV6 = CZuIPAddr::FAMILY_IPV6;

// A resolver that says nothing until it is let go. It lives until every lookup that was asked of it
// has returned, as abandoned ones do later than the test that asked.
class SilentResolver {
 public:
  SilentResolver()
      : m_forward([this](const char* name, const addrinfo&, addrinfo** list) {
          return Answer(name, list);
        }) {
    resolver::gForward = &m_forward;
  }
  ~SilentResolver() {
    Release();
    while (m_inside > 0) std::this_thread::sleep_for(1ms);
    resolver::gForward = nullptr;
    std::this_thread::sleep_for(50ms);  // until the last thread has returned from here
  }
  SilentResolver(const SilentResolver&) = delete;
  SilentResolver& operator=(const SilentResolver&) = delete;

  void Release() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isReleased = true;
    m_released.notify_all();
  }
  int Inside() const { return m_inside; }
  void WaitFor(int count) const {
    for (int i = 0; i < 10000 && m_inside < count; ++i) std::this_thread::sleep_for(1ms);
    ASSERT_EQ(m_inside, count);
  }

 private:
  int Answer(const std::string& name, addrinfo** list) {
    if (name != "good.example") {
      ++m_inside;
      std::unique_lock<std::mutex> lock(m_mutex);
      m_released.wait(lock, [this] { return m_isReleased; });
    }
    *list = resolver::MakeList({Address("192.0.2.1")});
    if (name != "good.example") --m_inside;
    return 0;
  }

  resolver::Forward m_forward;
  std::atomic<int> m_inside{0};
  std::mutex m_mutex;
  std::condition_variable m_released;
  bool m_isReleased = false;
};

bool IsReadable(int descriptor) {
  pollfd watched{descriptor, POLLIN, 0};
  return poll(&watched, 1, 0) == 1;
}

// Lookups that an earlier test abandoned may take their places a little longer.
CZuError StartOnceThereIsRoom(zu::Lookup& lookup) {
  CZuError error = lookup.Start("silent.example", kAny);
  for (int i = 0; i < 5000 && FXErrorUtil::IsErrNo(error, EAGAIN); ++i) {
    std::this_thread::sleep_for(1ms);
    error = lookup.Start("silent.example", kAny);
  }
  return error;
}

TEST(ZuResolve, ReadsNumericTextsWithoutTheResolver) {
  const resolver::Answer noone(EAI_FAIL);
  Addresses found;
  EXPECT_OK(zu::Resolve("192.0.2.7", kAny, Deadline::Now(), found));
  EXPECT_EQ(Texts(found), std::vector<std::string>{"192.0.2.7"});
  EXPECT_OK(zu::Resolve("2001:db8::1", kV6, Deadline::Now(), found));
  EXPECT_EQ(Texts(found), std::vector<std::string>{"2001:db8::1"});
  EXPECT_OK(zu::Resolve("fe80::1%lo", kAny, Deadline::Now(), found));
  EXPECT_EQ(zu::Format(found.at(0)), "fe80::1%lo");
  EXPECT_FAILS(zu::Resolve("192.0.2.7", kV6, 1s, found), ErrNoCode(EAI_ADDRFAMILY), "192.0.2.7");
  EXPECT_FAILS(zu::Resolve("::1", kV4, 1s, found), ErrNoCode(EAI_ADDRFAMILY), "[::1]");
  EXPECT_EQ(noone.Count(), 0);
}

TEST(ZuResolve, RefusesWhatCannotBeANameWithoutTheResolver) {
  const resolver::Answer noone(EAI_FAIL);
  for (const std::string_view name :
       {""sv, "a\0b"sv, "010.0.0.1"sv, "10.1"sv, "0x0a000001"sv, "167772161"sv}) {
    Addresses found{Address("9.9.9.9")};
    EXPECT_FAILS(zu::Resolve(name, kAny, 1s, found), ErrNoCode(EAI_NONAME), "Lookup of [") << name;
    EXPECT_EQ(Texts(found), std::vector<std::string>{"9.9.9.9"});
  }
  Addresses found;
  const std::string longName(1025, 'a');
  EXPECT_FAILS(zu::Resolve(longName, kAny, 1s, found), ErrNoCode(EAI_NONAME), "aaa...]");
  EXPECT_FAILS(zu::Resolve("a", static_cast<CZuIPAddr::IP_FAMILY>(7), 1s, found), Win32Code(87),
               "7");
  EXPECT_EQ(noone.Count(), 0);
}

TEST(ZuResolve, AsksForEachAddressOnceAndNotForThoseOfThisMachineAlone) {
  const resolver::Answer answer(0, {Address("192.0.2.1")});
  Addresses found;
  ASSERT_OK(zu::Resolve("name.example", kV6, 5s, found));
  EXPECT_EQ(answer.Name(), "name.example");
  EXPECT_EQ(answer.Hints().ai_family, AF_INET6);
  EXPECT_EQ(answer.Hints().ai_socktype, SOCK_STREAM);
  EXPECT_EQ(answer.Hints().ai_flags & AI_ADDRCONFIG, 0);
}

TEST(ZuResolve, GivesAllAddressesInTheResolversOrderAndEachOnce) {
  const resolver::Answer answer(0, {Address("2001:db8::1"), Address("192.0.2.1", 80),
                                    Address("192.0.2.1"), Address("2001:db8::1")});
  Addresses found{Address("9.9.9.9")};
  ASSERT_OK(zu::Resolve("name.example", kAny, 5s, found));
  EXPECT_EQ(Texts(found), (std::vector<std::string>{"2001:db8::1", "192.0.2.1"}));
  EXPECT_EQ(found[1].GetPortNumber(), 0);
}

TEST(ZuResolve, TellsTheResolversReasonWithTheHost) {
  for (const int code : {EAI_NONAME, EAI_AGAIN, EAI_FAIL, EAI_NODATA}) {
    const resolver::Answer answer(code);
    Addresses found{Address("9.9.9.9")};
    EXPECT_FAILS(zu::Resolve("name.example", kAny, 5s, found), ErrNoCode(code), "[name.example]");
    EXPECT_EQ(Texts(found), std::vector<std::string>{"9.9.9.9"});
  }
  const resolver::Answer empty(0);
  Addresses found;
  EXPECT_FAILS(zu::Resolve("name.example", kAny, 5s, found), ErrNoCode(EAI_NODATA), "name.example");
}

// Sets errno as the last thing in the thread, where it has to be looked at.
int gResolverErrNo = 0;

TEST(ZuResolve, TellsTheErrnoOfTheThreadWhereTheResolverPointsThere) {
  const resolver::Forward forward = [](const char*, const addrinfo&, addrinfo** list) {
    *list = nullptr;
    errno = gResolverErrNo;
    return EAI_SYSTEM;
  };
  resolver::gForward = &forward;
  Addresses found;
  errno = 0;
  gResolverErrNo = EMFILE;
  EXPECT_FAILS(zu::Resolve("name.example", kAny, 5s, found), ErrNoCode(EMFILE), "[name.example]");
  // The deadline's own numbers stay the deadline's.
  gResolverErrNo = ETIMEDOUT;
  EXPECT_FAILS(zu::Resolve("name.example", kAny, 5s, found), ErrNoCode(EAI_AGAIN), "name.example");
  resolver::gForward = nullptr;
}

TEST(ZuResolve, GivesNothingWhenOneAddressIsTheCollision) {
  const std::vector<Addresses> lists = {
      {Address("127.0.53.53")},
      {Address("192.0.2.1"), Address("127.0.53.53")},
      {Address("2001:db8::1"), Address("::ffff:127.0.53.53"), Address("192.0.2.1")},
  };
  for (const Addresses& list : lists) {
    const resolver::Answer answer(0, list);
    Addresses found{Address("9.9.9.9")};
    EXPECT_FAILS(zu::Resolve("printer.corp", kAny, 5s, found), Win32Code(4294967294),
                 "DNS name collision occured: [printer.corp]");
    EXPECT_EQ(Texts(found), std::vector<std::string>{"9.9.9.9"});
  }
  Addresses found;
  EXPECT_FAILS(zu::Resolve("127.0.53.53", kAny, 5s, found), Win32Code(4294967294), "");
  EXPECT_FAILS(zu::Resolve("::ffff:127.0.53.53", kAny, 5s, found), Win32Code(4294967294), "");
}

TEST(ZuResolve, EndsAtTheDeadlineAndNotBefore) {
  const SilentResolver silent;
  Addresses found;
  const auto begin = Deadline::Clock::now();
  EXPECT_FAILS(zu::Resolve("silent.example", kAny, 100ms, found), ErrNoCode(ETIMEDOUT),
               "[silent.example]");
  EXPECT_GE(Deadline::Clock::now() - begin, 100ms);
  std::string name;
  EXPECT_FAILS(zu::Resolve("silent.example", kAny, Deadline::Now(), found), ErrNoCode(ETIMEDOUT),
               "have to wait");
}

TEST(ZuResolve, EndsWhenItIsStopped) {
  const SilentResolver silent;
  zu::Stop stop;
  ASSERT_OK(stop.Open());
  Addresses found;
  std::thread other([&] {
    std::this_thread::sleep_for(20ms);
    stop.Request();
  });
  EXPECT_FAILS(zu::Resolve("silent.example", kAny, Deadline::Never().Until(stop), found),
               ErrNoCode(ECANCELED), "[silent.example]");
  other.join();
  EXPECT_FAILS(zu::Resolve("192.0.2.1", kAny, Deadline(5s).Until(stop), found),
               ErrNoCode(ECANCELED), "192.0.2.1");
}

TEST(ZuResolve, SaysThatAStopIsNotOpenInsteadOfWaitingForEver) {
  const SilentResolver silent;
  const zu::Stop closed;
  Addresses found;
  EXPECT_FAILS(zu::Resolve("silent.example", kAny, Deadline::Never().Until(closed), found),
               Win32Code(774), "Stop of the deadline is not open");
}

TEST(ZuResolve, IsNotHeldUpByLookupsThatAreSilent) {
  SilentResolver silent;
  std::vector<zu::Lookup> lookups(240);
  for (zu::Lookup& lookup : lookups) ASSERT_OK(StartOnceThereIsRoom(lookup));
  silent.WaitFor(240);
  Addresses found;
  EXPECT_OK(zu::Resolve("good.example", kAny, 5s, found));
  EXPECT_EQ(Texts(found), std::vector<std::string>{"192.0.2.1"});
  std::vector<zu::Lookup> more(16);
  for (zu::Lookup& lookup : more) ASSERT_OK(StartOnceThereIsRoom(lookup));
  silent.WaitFor(256);
  EXPECT_FAILS(zu::Resolve("good.example", kAny, 5s, found), ErrNoCode(EAGAIN),
               "256 are still unanswered");
  EXPECT_OK(zu::Resolve("127.0.0.1", kAny, 5s, found));  // no thread for what is no name
  silent.Release();
  for (zu::Lookup& lookup : lookups) EXPECT_OK(lookup.Finish(5s, found));
}

TEST(ZuLookup, IsFinishedOnceItsDescriptorIsReadable) {
  SilentResolver silent;
  zu::Lookup lookup;
  Addresses found;
  EXPECT_EQ(lookup.GetDescriptor(), -1);
  EXPECT_FAILS(lookup.Finish(1s, found), Win32Code(774), "No lookup is started");
  ASSERT_OK(lookup.Start("silent.example", kAny));
  EXPECT_NE(fcntl(lookup.GetDescriptor(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_FALSE(IsReadable(lookup.GetDescriptor()));
  EXPECT_TRUE(zu::IsTimeOut(lookup.Finish(Deadline::Now(), found)));
  EXPECT_TRUE(zu::IsTimeOut(lookup.Finish(1ms, found)));
  zu::Lookup moved = std::move(lookup);
  EXPECT_FAILS(lookup.Finish(1s, found), Win32Code(774), "");  // NOLINT(bugprone-use-after-move)
  silent.Release();
  pollfd watched{moved.GetDescriptor(), POLLIN, 0};
  ASSERT_EQ(poll(&watched, 1, 10000), 1);
  EXPECT_OK(moved.Finish(Deadline::Now(), found));
  EXPECT_EQ(Texts(found), std::vector<std::string>{"192.0.2.1"});
  EXPECT_FAILS(moved.Finish(1s, found), Win32Code(774), "No lookup is started");
}

TEST(ZuLookup, OfANumericTextIsReadableAtOnce) {
  zu::Lookup lookup;
  Addresses found;
  ASSERT_OK(lookup.Start("192.0.2.1", kAny));
  EXPECT_TRUE(IsReadable(lookup.GetDescriptor()));
  EXPECT_OK(lookup.Finish(Deadline::Now(), found));
  EXPECT_EQ(Texts(found), std::vector<std::string>{"192.0.2.1"});
}

// The thread writes to the descriptor after the caller has gone: it must not be another's by then.
TEST(ZuLookup, ThatIsAbandonedWritesNothingAfterwards) {
  SilentResolver silent;
  int number = -1;
  {
    zu::Lookup lookup;
    ASSERT_OK(lookup.Start("silent.example", kAny));
    number = lookup.GetDescriptor();
    silent.WaitFor(1);
  }
  EXPECT_NE(fcntl(number, F_GETFD), -1);  // it stays the thread's
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_NE(ends[0], number);
  EXPECT_NE(ends[1], number);
  silent.Release();
  for (int i = 0; i < 5000 && fcntl(number, F_GETFD) != -1; ++i) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(fcntl(number, F_GETFD), -1);
  close(ends[0]);
  close(ends[1]);
}

TEST(ZuLookup, RunsOnAThreadThatTakesNoSignalOfTheProgram) {
  sigset_t masked;
  sigemptyset(&masked);
  const resolver::Forward forward = [&](const char*, const addrinfo&, addrinfo** list) {
    *list = nullptr;
    pthread_sigmask(SIG_SETMASK, nullptr, &masked);
    return EAI_NONAME;
  };
  resolver::gForward = &forward;
  Addresses found;
  EXPECT_FAILS(zu::Resolve("name.example", kAny, 5s, found), ErrNoCode(EAI_NONAME), "");
  resolver::gForward = nullptr;
  for (const int signal : {SIGTERM, SIGINT, SIGCHLD, SIGUSR1, SIGALRM}) {
    EXPECT_EQ(sigismember(&masked, signal), 1) << signal;
  }
  sigset_t own;
  pthread_sigmask(SIG_SETMASK, nullptr, &own);
  EXPECT_EQ(sigismember(&own, SIGTERM), 0);
}

TEST(ZuLookup, InAChildAfterForkIsGoneAndANewOneWorks) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "The thread sanitizer starts no threads after a fork.";
#endif
  namespaces::RunInChild([] {
    SilentResolver silent;
    std::vector<zu::Lookup> lookups(256);
    for (zu::Lookup& lookup : lookups) ASSERT_OK(StartOnceThereIsRoom(lookup));
    silent.WaitFor(256);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      Addresses found;
      const bool gone = FXErrorUtil::IsWin32(lookups[0].Finish(10s, found), 774);
      const bool works = !Failed(zu::Resolve("good.example", kAny, 10s, found));
      _exit(gone && works && found.size() == 1 ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    // The parent's own are as they were.
    Addresses found;
    EXPECT_FAILS(zu::Resolve("good.example", kAny, 5s, found), ErrNoCode(EAGAIN), "");
    silent.Release();
    EXPECT_OK(lookups[0].Finish(10s, found));
  });
}

TEST(ZuLookup, DoesNotHoldUpTheEndOfTheProgram) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    static const resolver::Forward forward = [](const char*, const addrinfo&, addrinfo** list) {
      *list = nullptr;
      std::this_thread::sleep_for(200ms);  // on until the middle of the exit
      return EAI_NONAME;
    };
    resolver::gForward = &forward;
    static std::vector<zu::Lookup> lookups(20);
    for (zu::Lookup& lookup : lookups) {
      if (Failed(lookup.Start("silent.example", kAny))) _exit(2);
    }
    std::atexit([] { std::this_thread::sleep_for(300ms); });
    std::exit(7);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
}

TEST(ZuResolveName, GivesTheNameOfAnAddress) {
  const resolver::ReverseAnswer answer([](const sockaddr* address, socklen_t length, char* host,
                                          socklen_t size, int flags) {
    EXPECT_EQ(flags, NI_NAMEREQD);
    EXPECT_EQ(length, address->sa_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
    std::snprintf(host, size, address->sa_family == AF_INET ? "four.example" : "six.example");
    return 0;
  });
  std::string name;
  EXPECT_OK(zu::ResolveName(Address("192.0.2.1"), 5s, name));
  EXPECT_EQ(name, "four.example");
  EXPECT_OK(zu::ResolveName(Address("2001:db8::1"), 5s, name));
  EXPECT_EQ(name, "six.example");
  EXPECT_OK(zu::ResolveName(Address("::ffff:192.0.2.1"), 5s, name));
  EXPECT_EQ(name, "four.example");
}

TEST(ZuResolveName, SaysWhyThereIsNone) {
  const resolver::ReverseAnswer answer(
      [](const sockaddr*, socklen_t, char*, socklen_t, int) { return EAI_NONAME; });
  std::string name = "untouched";
  EXPECT_FAILS(zu::ResolveName(Address("192.0.2.1"), 5s, name), ErrNoCode(EAI_NONAME),
               "[192.0.2.1]");
  EXPECT_FAILS(zu::ResolveName(ZUNET_SockAddr{}, 5s, name), Win32Code(87), "without a family");
  EXPECT_EQ(name, "untouched");
}

TEST(ZuResolve, FindsNamesOfTheHostsFile) {
  namespaces::RunIn(namespaces::kMounts, [] {
    namespaces::UseHosts(
        "192.0.2.1 both.example\n2001:db8::1 both.example\n"
        "127.0.53.53 printer.corp\n");
    Addresses found;
    EXPECT_OK(zu::Resolve("both.example", kAny, 10s, found));
    EXPECT_EQ(found.size(), 2u);
    EXPECT_OK(zu::Resolve("both.example", kV4, 10s, found));
    EXPECT_EQ(Texts(found), std::vector<std::string>{"192.0.2.1"});
    EXPECT_FAILS(zu::Resolve("printer.corp", kAny, 10s, found), Win32Code(4294967294), "");
    EXPECT_FAILS(zu::Resolve("none.example", kAny, 10s, found), ErrNoCode(EAI_NONAME), "none");
    std::string name;
    EXPECT_OK(zu::ResolveName(Address("2001:db8::1"), 10s, name));
    EXPECT_EQ(name, "both.example");
  });
}

// A name server that never answers: the resolver itself would try for ten seconds.
TEST(ZuResolve, EndsAtTheDeadlineWhereTheNameServerIsSilent) {
  namespaces::RunIn(namespaces::kMounts | namespaces::kNetwork, [] {
    namespaces::Command("ip link set lo up");
    const int server = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = V4("127.0.0.1", 53);
    ASSERT_EQ(bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    namespaces::ReplaceFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    namespaces::ReplaceFile("/etc/nsswitch.conf", "hosts: dns\n");
    const auto begin = Deadline::Clock::now();
    Addresses found;
    EXPECT_FAILS(zu::Resolve("silent.example", kAny, 300ms, found), ErrNoCode(ETIMEDOUT),
                 "[silent.example]");
    const auto spent = Deadline::Clock::now() - begin;
    EXPECT_GE(spent, 300ms);
    EXPECT_LT(spent, 5s);  // a watchdog
    close(server);
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  });
}

}  // namespace
