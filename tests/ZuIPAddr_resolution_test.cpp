// Names, the local host, and what can be bound on this machine.

#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <thread>

#include "ZuNetwork/ZuIPAddr.h"
#include "support/Addresses.h"
#include "support/Expect.h"
#include "support/FakeResolver.h"
#include "support/Namespaces.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr auto kAny = CZuIPAddr::FAMILY_ANY;
constexpr auto kV4 = CZuIPAddr::FAMILY_IPV4;
constexpr auto kV6 = CZuIPAddr::FAMILY_IPV6;
constexpr auto kUnknown = static_cast<CZuIPAddr::IP_FAMILY>(7);

constexpr unsigned kCollision = 0xFFFFFFFE;
constexpr char kCollisionText[] = "DNS name collision occured";

// Faults of the system; 0 or empty: none.
SystemFunction<int(int, int, int)> gSocket{"socket"};
SystemFunction<int(int, const sockaddr*, socklen_t)> gBind{"bind"};
SystemFunction<int(char*, std::size_t)> gGetHostName{"gethostname"};
int gSocketErrNo = 0;  // for sockets of gSocketFamily
int gSocketFamily = AF_UNSPEC;
int gBindErrNo = 0;
int gHostNameErrNo = 0;

void FailSockets(int family, int err) {
  gSocketFamily = family;
  gSocketErrNo = err;
}

class Fixture : public testing::Test {
 protected:
  Fixture() : m_descriptors(CountDescriptors()) {}
  ~Fixture() override {
    gSocketErrNo = 0;
    gBindErrNo = 0;
    gHostNameErrNo = 0;
    EXPECT_EQ(CountDescriptors(), m_descriptors);
    EXPECT_EQ(resolver::gLists, 0);
  }

 private:
  static std::ptrdiff_t CountDescriptors() {
    const std::filesystem::directory_iterator first("/proc/self/fd");
    return std::distance(first, {});
  }

  std::ptrdiff_t m_descriptors;
};

using GetByName = Fixture;
using GetAllByName = Fixture;
using LocalHost = Fixture;
using GetHostName = Fixture;
using Bindable = Fixture;

CZuIPAddr Unusable() {
  CZuIPAddr address;
  address.SetAddressFamily(static_cast<CZuIPAddr::IP_FAMILY>(AF_UNIX));
  return address;
}

bool SameBytes(const CZuIPAddr& left, const CZuIPAddr& right) {
  return std::memcmp(&left.m_Addr, &right.m_Addr, sizeof left) == 0;
}

}  // namespace

extern "C" {

int socket(int family, int type, int protocol) noexcept {
  if (gSocketErrNo == 0 || family != gSocketFamily) return gSocket(family, type, protocol);
  errno = gSocketErrNo;
  return -1;
}

int bind(int descriptor, const sockaddr* address, socklen_t length) noexcept {
  if (gBindErrNo == 0) return gBind(descriptor, address, length);
  errno = gBindErrNo;
  return -1;
}

int gethostname(char* name, std::size_t size) noexcept {
  EXPECT_EQ(size, 1025u);
  EXPECT_EQ(name[0], '\0');
  if (gHostNameErrNo == 0) return gGetHostName(name, size);
  std::memcpy(name, "half", 5);
  errno = gHostNameErrNo;
  return -1;
}
}

namespace {

// ---- The first address ----

TEST_F(GetByName, ResolvesLocalhostToPortZero) {
  CZuIPAddr address = Address("192.0.2.1", 80);
  ASSERT_OK(CZuIPAddr::GetByName("localhost", address, kV4));
  EXPECT_TRUE(SameBytes(address, Address("127.0.0.1")));
}

TEST_F(GetByName, ResolvesNumericTextToItself) {
  for (const char* text : {"10.1.2.3", "2001:db8::5", "::1"}) {
    CZuIPAddr address = Address("192.0.2.1", 80);
    EXPECT_OK(CZuIPAddr::GetByName(text, address, kAny));
    EXPECT_TRUE(SameBytes(address, Address(text))) << text;
  }
}

TEST_F(GetByName, AsksForTheFamilyOfTheCallerAndTheCanonicalName) {
  for (const auto family : {kAny, kV4, kV6, kUnknown}) {
    CZuIPAddr address;
    const resolver::Answer answer(0, {Address("10.1.2.3")});
    EXPECT_OK(CZuIPAddr::GetByName("host.example", address, family));
    EXPECT_EQ(answer.Count(), 1);
    EXPECT_EQ(answer.Name(), "host.example");
    EXPECT_EQ(answer.Hints().ai_flags, AI_CANONNAME);
    EXPECT_EQ(answer.Hints().ai_family, family);
    EXPECT_EQ(answer.Hints().ai_socktype, SOCK_STREAM);
    EXPECT_EQ(answer.Hints().ai_protocol, IPPROTO_TCP);
  }
}

TEST_F(GetByName, TakesWhicheverFamilyTheResolverListsFirst) {
  const CZuIPAddr v4 = Address("10.1.2.3", 7);
  const CZuIPAddr v6 = Address("2001:db8::5", 7);
  for (const auto& [first, second] : {std::pair(v4, v6), std::pair(v6, v4)}) {
    CZuIPAddr address;
    const resolver::Answer answer(0, {first, second, Address("10.9.9.9")});
    EXPECT_OK(CZuIPAddr::GetByName("both", address, kAny));
    EXPECT_EQ(Text(address), Text(first));
    EXPECT_EQ(address.GetPortNumber(), 0);
  }
}

TEST_F(GetByName, TakesFlowAndScopeAsTheyCome) {
  CZuIPAddr source = Address("fe80::1", 7);
  source.m_Addr.addr.v6.sin6_scope_id = 3;
  CZuIPAddr address;
  const resolver::Answer answer(0, {source});
  ASSERT_OK(CZuIPAddr::GetByName("link", address, kAny));
  EXPECT_EQ(address.m_Addr.addr.v6.sin6_scope_id, 3u);
  EXPECT_EQ(address.GetPortNumber(), 0);
}

TEST_F(GetByName, LeavesTheTailBehindAV4Address) {
  CZuIPAddr address = Address("2001:db8:1111:2222:3333:4444:5555:6666");
  CZuIPAddr expected = address;
  expected = V4("10.1.2.3");
  const resolver::Answer answer(0, {Address("10.1.2.3")});
  ASSERT_OK(CZuIPAddr::GetByName("host", address, kAny));
  EXPECT_TRUE(SameBytes(address, expected));
}

TEST_F(GetByName, PassesOverFamiliesItDoesNotKnow) {
  CZuIPAddr address;
  const resolver::Answer answer(0, {Unusable(), Address("10.1.2.3")});
  EXPECT_OK(CZuIPAddr::GetByName("host", address, kAny));
  EXPECT_EQ(Text(address), "10.1.2.3");
}

TEST_F(GetByName, ChangesNothingWithoutAnAddressOfEitherFamily) {
  for (const std::vector<CZuIPAddr>& addresses :
       {std::vector<CZuIPAddr>{}, std::vector<CZuIPAddr>{Unusable(), Unusable()}}) {
    CZuIPAddr address = Address("192.0.2.1", 80);
    const resolver::Answer answer(0, addresses);
    EXPECT_OK(CZuIPAddr::GetByName("host", address, kAny));
    EXPECT_TRUE(SameBytes(address, Address("192.0.2.1", 80)));
  }
}

TEST_F(GetByName, RefusesTheCollisionAddressAndLeavesItInPlace) {
  {
    CZuIPAddr address = Address("192.0.2.1", 80);
    const CZuError error = CZuIPAddr::GetByName("127.0.53.53", address, kAny);
    EXPECT_FAILS(error, kCollision, kCollisionText);
    EXPECT_FAILS(error, kCollision, "CZuIPAddr::GetByName");
    EXPECT_TRUE(SameBytes(address, Address("127.0.53.53")));
  }
  CZuIPAddr address;
  const resolver::Answer answer(0, {Address("127.0.53.53", 7), Address("10.1.2.3")});
  EXPECT_FAILS(CZuIPAddr::GetByName("host", address, kV4), kCollision, kCollisionText);
  EXPECT_TRUE(SameBytes(address, Address("127.0.53.53")));
}

TEST_F(GetByName, DoesNotSeeACollisionBehindTheFirstAddress) {
  CZuIPAddr address;
  const resolver::Answer answer(0, {Address("10.1.2.3"), Address("127.0.53.53")});
  EXPECT_OK(CZuIPAddr::GetByName("host", address, kAny));
  EXPECT_EQ(Text(address), "10.1.2.3");
}

TEST_F(GetByName, RefusesACollisionThatWasThereBefore) {
  CZuIPAddr address = Address("127.0.53.53");
  const resolver::Answer answer(0);
  EXPECT_FAILS(CZuIPAddr::GetByName("host", address, kAny), kCollision, kCollisionText);
}

TEST_F(GetByName, AcceptsTheCollisionAddressMappedToV6) {
  CZuIPAddr address;
  EXPECT_OK(CZuIPAddr::GetByName("::ffff:127.0.53.53", address, kAny));
  EXPECT_EQ(Text(address), "::ffff:127.0.53.53");
}

TEST_F(GetByName, ReportsTheResolversCodeAndReleasesItsList) {
  for (const int code : {EAI_NONAME, EAI_AGAIN, EAI_FAIL, EAI_MEMORY, EAI_SYSTEM, 5}) {
    CZuIPAddr address = Address("192.0.2.1", 80);
    const resolver::Answer answer(code, {Address("10.1.2.3")});
    const CZuError error = CZuIPAddr::GetByName("host", address, kAny);
    EXPECT_FAILS(error, ErrNoCode(code), "CZuIPAddr::GetByName");
    EXPECT_FAILS(error, ErrNoCode(code), code < 0 ? gai_strerror(code) : std::strerror(code));
    EXPECT_TRUE(SameBytes(address, Address("192.0.2.1", 80)));
    EXPECT_EQ(resolver::gLists, 0);
  }
}

TEST_F(GetByName, RefusesAFamilyThatTheResolverDoesNotKnow) {
  CZuIPAddr address = Address("192.0.2.1");
  EXPECT_FAILS(CZuIPAddr::GetByName("10.1.2.3", address, kUnknown), ErrNoCode(EAI_FAMILY), "");
  EXPECT_FAILS(CZuIPAddr::GetByName("10.1.2.3", address, kV6), ErrNoCode(EAI_ADDRFAMILY), "");
  EXPECT_EQ(Text(address), "192.0.2.1");
}

TEST_F(GetByName, RefusesANullName) {
  CZuIPAddr address = Address("192.0.2.1", 80);
  EXPECT_FAILS(CZuIPAddr::GetByName(nullptr, address, kAny), Win32Code(87),
               "Null parameter passed");
  EXPECT_TRUE(SameBytes(address, Address("192.0.2.1", 80)));
}

TEST_F(GetByName, AsksForThePreferredFamilyWhereTheCallerHasNone) {
  namespaces::RunInChild([] {
    CZuIPAddr address;
    const resolver::Answer answer(0, {Address("::1")});
    EXPECT_OK(CZuIPAddr::GetByName("host", address, kAny));
    EXPECT_EQ(answer.Hints().ai_family, AF_UNSPEC);
    ZUNET_SetFamilyPreference(AF_INET6);  // read at every call
    EXPECT_OK(CZuIPAddr::GetByName("host", address, kAny));
    EXPECT_EQ(answer.Hints().ai_family, AF_INET6);
    EXPECT_OK(CZuIPAddr::GetByName("host", address, kV4));
    EXPECT_EQ(answer.Hints().ai_family, AF_INET);
    std::vector<CZuIPAddr> list;
    EXPECT_OK(CZuIPAddr::GetAllByName("host", list, kAny));
    EXPECT_EQ(answer.Hints().ai_family, AF_INET6);
    EXPECT_OK(CZuIPAddr::GetAllByName("host", list, kV4));
    EXPECT_EQ(answer.Hints().ai_family, AF_INET);
  });
}

TEST_F(GetByName, ReadsTheHostsOfTheMachine) {
  namespaces::RunIn(namespaces::kMounts, [] {
    namespaces::UseHosts(
        "10.1.2.3 both.example\n"
        "2001:db8::5 both.example\n"
        "127.0.53.53 private.example\n");
    CZuIPAddr address;
    EXPECT_OK(CZuIPAddr::GetByName("both.example", address, kV4));
    EXPECT_EQ(Text(address), "10.1.2.3");
    EXPECT_OK(CZuIPAddr::GetByName("both.example", address, kV6));
    EXPECT_EQ(Text(address), "2001:db8::5");
    EXPECT_FAILS(CZuIPAddr::GetByName("private.example", address, kAny), kCollision,
                 kCollisionText);
    EXPECT_EQ(Text(address), "127.0.53.53");
    EXPECT_FAILS(CZuIPAddr::GetByName("unknown.example", address, kAny), ErrNoCode(EAI_NONAME),
                 gai_strerror(EAI_NONAME));
  });
}

TEST_F(GetByName, MayRunOnSeveralThreads) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 50; ++round) {
        CZuIPAddr address;
        EXPECT_OK(CZuIPAddr::GetByName("10.1.2.3", address, kAny));
        EXPECT_EQ(Text(address), "10.1.2.3");
        EXPECT_FAILS(CZuIPAddr::GetByName("127.0.53.53", address, kAny), kCollision, "");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// ---- All addresses ----

TEST_F(GetAllByName, AppendsEveryAddressInOrderWithPortZero) {
  CZuIPAddr v6 = Address("fe80::1", 7);
  v6.m_Addr.addr.v6.sin6_scope_id = 3;
  std::vector<CZuIPAddr> list{Address("192.0.2.1", 80)};
  const resolver::Answer answer(0, {Address("10.1.2.3", 7), v6, Unusable(), Address("10.1.2.3")});
  EXPECT_OK(CZuIPAddr::GetAllByName("host.example", list, kAny));
  EXPECT_THAT(Texts(list), ElementsAre("192.0.2.1", "10.1.2.3", "fe80::1", "10.1.2.3"));
  EXPECT_TRUE(SameBytes(list[0], Address("192.0.2.1", 80)));
  EXPECT_TRUE(SameBytes(list[1], Address("10.1.2.3")));
  EXPECT_EQ(list[2].m_Addr.addr.v6.sin6_scope_id, 3u);
  EXPECT_EQ(list[2].GetPortNumber(), 0);
}

TEST_F(GetAllByName, AsksForTheFamilyOfTheCallerAndTheCanonicalName) {
  for (const auto family : {kAny, kV4, kV6, kUnknown}) {
    std::vector<CZuIPAddr> list;
    const resolver::Answer answer(0, {Address("10.1.2.3")});
    EXPECT_OK(CZuIPAddr::GetAllByName("host.example", list, family));
    EXPECT_EQ(answer.Name(), "host.example");
    EXPECT_EQ(answer.Hints().ai_flags, AI_CANONNAME);
    EXPECT_EQ(answer.Hints().ai_family, family);
    EXPECT_EQ(answer.Hints().ai_socktype, SOCK_STREAM);
    EXPECT_EQ(answer.Hints().ai_protocol, IPPROTO_TCP);
  }
}

TEST_F(GetAllByName, CalledTwiceListsEveryAddressTwice) {
  std::vector<CZuIPAddr> list;
  const resolver::Answer answer(0, {Address("10.1.2.3"), Address("::1")});
  EXPECT_OK(CZuIPAddr::GetAllByName("host", list, kAny));
  EXPECT_OK(CZuIPAddr::GetAllByName("host", list, kAny));
  EXPECT_THAT(Texts(list), ElementsAre("10.1.2.3", "::1", "10.1.2.3", "::1"));
}

TEST_F(GetAllByName, AppendsNothingWithoutAnAddressOfEitherFamily) {
  for (const std::vector<CZuIPAddr>& addresses :
       {std::vector<CZuIPAddr>{}, std::vector<CZuIPAddr>{Unusable()}}) {
    std::vector<CZuIPAddr> list{Address("192.0.2.1")};
    const resolver::Answer answer(0, addresses);
    EXPECT_OK(CZuIPAddr::GetAllByName("host", list, kAny));
    EXPECT_THAT(Texts(list), ElementsAre("192.0.2.1"));
  }
}

TEST_F(GetAllByName, KeepsTheAddressesBeforeACollision) {
  const CZuIPAddr collision = Address("127.0.53.53", 7);
  const struct {
    std::vector<CZuIPAddr> addresses;
    std::vector<std::string> kept;
  } kCases[] = {
      {{collision, Address("10.1.2.3")}, {"192.0.2.1"}},
      {{Address("10.1.2.3"), collision}, {"192.0.2.1", "10.1.2.3"}},
      {{Address("::1"), Address("10.1.2.3"), collision, Address("10.9.9.9")},
       {"192.0.2.1", "::1", "10.1.2.3"}},
  };
  for (const auto& test : kCases) {
    std::vector<CZuIPAddr> list{Address("192.0.2.1")};
    const resolver::Answer answer(0, test.addresses);
    const CZuError error = CZuIPAddr::GetAllByName("host", list, kAny);
    EXPECT_FAILS(error, kCollision, kCollisionText);
    EXPECT_FAILS(error, kCollision, "CZuIPAddr::GetAllByName");
    EXPECT_EQ(Texts(list), test.kept);
    EXPECT_EQ(resolver::gLists, 0);
  }
}

TEST_F(GetAllByName, RefusesTheCollisionAddressAsText) {
  std::vector<CZuIPAddr> list;
  EXPECT_FAILS(CZuIPAddr::GetAllByName("127.0.53.53", list, kAny), kCollision, kCollisionText);
  EXPECT_THAT(list, IsEmpty());
}

TEST_F(GetAllByName, ReportsTheResolversCodeAndReleasesItsList) {
  for (const int code : {EAI_NONAME, EAI_AGAIN, EAI_SYSTEM, 5}) {
    std::vector<CZuIPAddr> list{Address("192.0.2.1")};
    const resolver::Answer answer(code, {Address("10.1.2.3")});
    EXPECT_FAILS(CZuIPAddr::GetAllByName("host", list, kAny), ErrNoCode(code),
                 "CZuIPAddr::GetAllByName");
    EXPECT_THAT(Texts(list), ElementsAre("192.0.2.1"));
    EXPECT_EQ(resolver::gLists, 0);
  }
}

TEST_F(GetAllByName, RefusesANullName) {
  std::vector<CZuIPAddr> list{Address("192.0.2.1")};
  EXPECT_FAILS(CZuIPAddr::GetAllByName(nullptr, list, kAny), Win32Code(87),
               "Null parameter passed");
  EXPECT_THAT(Texts(list), ElementsAre("192.0.2.1"));
}

TEST_F(GetAllByName, ReadsTheHostsOfTheMachine) {
  namespaces::RunIn(namespaces::kMounts, [] {
    namespaces::UseHosts(
        "10.1.2.3 host.example\n"
        "10.1.2.4 host.example\n"
        "2001:db8::5 host.example\n"
        "127.0.53.53 private.example\n");
    std::vector<CZuIPAddr> list;
    EXPECT_OK(CZuIPAddr::GetAllByName("host.example", list, kV4));
    EXPECT_THAT(Texts(list), UnorderedElementsAre("10.1.2.3", "10.1.2.4"));
    list.clear();
    EXPECT_OK(CZuIPAddr::GetAllByName("host.example", list, kAny));
    EXPECT_THAT(Texts(list), UnorderedElementsAre("10.1.2.3", "10.1.2.4", "2001:db8::5"));
    list.clear();
    EXPECT_FAILS(CZuIPAddr::GetAllByName("private.example", list, kAny), kCollision,
                 kCollisionText);
    EXPECT_THAT(list, IsEmpty());
  });
}

// ---- The local host ----

TEST_F(LocalHost, IsCalledWhatTheMachineIsCalled) {
  namespaces::RunIn(namespaces::kHostName, [] {
    for (const std::string& name : {std::string("zu-host"), std::string(64, 'n')}) {
      ASSERT_EQ(sethostname(name.data(), name.size()), 0);
      CZuString text = "untouched";
      EXPECT_OK(CZuIPAddr::GetLocalHost(text));
      EXPECT_EQ(text.c_str(), name);
    }
    ASSERT_EQ(sethostname("", 0), 0);
    CZuString text = "untouched";
    EXPECT_OK(CZuIPAddr::GetLocalHost(text));
    EXPECT_STREQ(text.c_str(), "");
  });
}

TEST_F(LocalHost, HasTheAddressOfItsName) {
  namespaces::RunIn(namespaces::kHostName | namespaces::kMounts, [] {
    ASSERT_EQ(sethostname("zu-host", 7), 0);
    namespaces::UseHosts("10.1.2.3 zu-host\n2001:db8::5 zu-host\n127.0.53.53 private\n");
    CZuIPAddr address = Address("192.0.2.1", 80);
    EXPECT_OK(CZuIPAddr::GetLocalHost(address, kV4));
    EXPECT_TRUE(SameBytes(address, Address("10.1.2.3")));
    EXPECT_OK(CZuIPAddr::GetLocalHost(address, kV6));
    EXPECT_EQ(Text(address), "2001:db8::5");
    ASSERT_EQ(sethostname("private", 7), 0);
    const CZuError error = CZuIPAddr::GetLocalHost(address, kAny);
    EXPECT_FAILS(error, kCollision, kCollisionText);
    EXPECT_THAT(error.AsString(), HasSubstr("CZuIPAddr::GetLocalHost"));
    EXPECT_EQ(Text(address), "127.0.53.53");
  });
}

TEST_F(LocalHost, HasNoAddressWithoutOneOfItsName) {
  namespaces::RunIn(namespaces::kHostName | namespaces::kMounts, [] {
    ASSERT_EQ(sethostname("nameless", 8), 0);
    namespaces::UseHosts("127.0.0.1 localhost\n");
    CZuIPAddr address = Address("192.0.2.1");
    const CZuError error = CZuIPAddr::GetLocalHost(address, kAny);
    EXPECT_FAILS(error, ErrNoCode(EAI_NONAME), "CZuIPAddr::GetByName");
    EXPECT_THAT(error.AsString(), HasSubstr("CZuIPAddr::GetLocalHost"));
    EXPECT_EQ(Text(address), "192.0.2.1");
  });
}

TEST_F(LocalHost, IsReportedWhenItsNameCannotBeRead) {
  for (const int err : {ENAMETOOLONG, EFAULT}) {
    gHostNameErrNo = err;
    CZuString name = "untouched";
    EXPECT_FAILS(CZuIPAddr::GetLocalHost(name), ErrNoCode(err), "CZuIPAddr::GetLocalHost");
    EXPECT_STREQ(name.c_str(), "untouched");
    CZuIPAddr address = Address("192.0.2.1");
    const resolver::Answer answer(0, {Address("10.1.2.3")});
    EXPECT_FAILS(CZuIPAddr::GetLocalHost(address, kAny), ErrNoCode(err), std::strerror(err));
    EXPECT_EQ(answer.Count(), 0);
    EXPECT_EQ(Text(address), "192.0.2.1");
  }
}

// ---- Names of addresses ----

TEST_F(GetHostName, FindsTheNameOfTheAddress) {
  namespaces::RunIn(namespaces::kMounts, [] {
    namespaces::UseHosts("10.1.2.3 Alpha.Example alias\n2001:db8::5 six.example\n");
    CZuString name = "untouched";
    EXPECT_OK(Address("10.1.2.3", 80).GetHostName(name));
    EXPECT_STREQ(name.c_str(), "Alpha.Example");
    EXPECT_OK(Address("2001:db8::5").GetHostName(name));
    EXPECT_STREQ(name.c_str(), "six.example");
    EXPECT_LT(Address("10.1.2.4").GetHostName(name).m_hrErrorCode, 0);
    EXPECT_STREQ(name.c_str(), "");
  });
}

TEST_F(GetHostName, AsksForANameWithRoomForTheLongest) {
  const resolver::ReverseAnswer answer(
      [](const sockaddr* address, socklen_t length, char* host, socklen_t size, int flags) {
        EXPECT_EQ(address->sa_family, AF_INET);
        EXPECT_EQ(length, sizeof(sockaddr_in));
        EXPECT_EQ(size, 1025u);
        EXPECT_EQ(flags, NI_NAMEREQD);
        std::memset(host, 'n', 1024);
        host[1024] = '\0';
        return 0;
      });
  CZuString name;
  EXPECT_OK(Address("10.1.2.3").GetHostName(name));
  EXPECT_EQ(std::string(name.c_str()), std::string(1024, 'n'));
}

TEST_F(GetHostName, ReportsWhatTheSystemLeftInErrno) {
  const struct {
    int left;
    int reported;
  } kCases[] = {{ENOENT, ENOENT}, {ETIMEDOUT, ETIMEDOUT}, {0, ENOENT}};
  for (const auto& test : kCases) {
    errno = EPERM;
    const resolver::ReverseAnswer answer(
        [&test](const sockaddr*, socklen_t, char* host, socklen_t, int) {
          std::memcpy(host, "half", 5);
          if (test.left != 0) errno = test.left;
          return EAI_NONAME;
        });
    CZuString name = "untouched";
    EXPECT_FAILS(Address("10.1.2.3").GetHostName(name), ErrNoCode(test.reported),
                 "CZuIPAddr::GetHostName");
    EXPECT_STREQ(name.c_str(), "");
  }
}

TEST_F(GetHostName, FailsWithoutAFamily) {
  CZuString name = "untouched";
  EXPECT_LT(CZuIPAddr().GetHostName(name).m_hrErrorCode, 0);
  EXPECT_STREQ(name.c_str(), "");
}

// ---- What can be bound ----

TEST_F(Bindable, IsAnAddressOfTheMachine) {
  for (const char* text : {"127.0.0.1", "127.1.2.3", "0.0.0.0"}) {
    bool bindable = false;
    EXPECT_OK(CZuIPAddr::IsAddrBindable(Address(text), bindable)) << text;
    EXPECT_TRUE(bindable) << text;
  }
}

TEST_F(Bindable, IsAnAddressAgainAfterTheQuestion) {
  CZuIPAddr address = Address("127.0.0.1");
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  socklen_t length = sizeof address;
  auto* const raw = reinterpret_cast<sockaddr*>(&address.m_Addr);
  ASSERT_EQ(bind(listener, raw, sizeof(sockaddr_in)), 0);
  ASSERT_EQ(getsockname(listener, raw, &length), 0);
  bool bindable = true;
  const CZuError error = CZuIPAddr::IsAddrBindable(address, bindable);
  close(listener);
  EXPECT_FAILS(error, ErrNoCode(EADDRINUSE), "CZuSocket::Bind");
  EXPECT_THAT(error.AsString(), HasSubstr("CZuIPAddr::IsAddrBindable"));
  EXPECT_FALSE(bindable);
  for (int round = 0; round < 2; ++round) {
    EXPECT_OK(CZuIPAddr::IsAddrBindable(address, bindable));
    EXPECT_TRUE(bindable);
    bindable = false;
  }
}

TEST_F(Bindable, IsNotAnAddressOfAnotherMachine) {
  bool bindable = true;
  const CZuError error = CZuIPAddr::IsAddrBindable(Address("203.0.113.9"), bindable);
  EXPECT_FAILS(error, ErrNoCode(EADDRNOTAVAIL), "CZuSocket::Bind");
  EXPECT_THAT(error.AsString(), HasSubstr("CZuIPAddr::IsAddrBindable"));
  EXPECT_FALSE(bindable);
}

TEST_F(Bindable, IsNothingOfAFamilyThatTheSystemLacks) {
  const auto expectNo = [](const CZuIPAddr& address) {
    bool bindable = true;
    EXPECT_OK(CZuIPAddr::IsAddrBindable(address, bindable));
    EXPECT_FALSE(bindable);
  };
  expectNo(CZuIPAddr());
  FailSockets(AF_INET6, EAFNOSUPPORT);
  expectNo(Address("::1"));
  gSocketErrNo = 0;
  gBindErrNo = EAFNOSUPPORT;
  expectNo(Address("127.0.0.1"));
}

TEST_F(Bindable, ReportsEveryOtherReason) {
  const auto expectFailure = [](int err) {
    bool bindable = true;
    EXPECT_FAILS(CZuIPAddr::IsAddrBindable(Address("127.0.0.1"), bindable), ErrNoCode(err),
                 "CZuIPAddr::IsAddrBindable");
    EXPECT_FALSE(bindable);
  };
  FailSockets(AF_INET, EMFILE);
  expectFailure(EMFILE);
  gSocketErrNo = 0;
  gBindErrNo = EACCES;
  expectFailure(EACCES);
}

TEST_F(Bindable, SaysWhichStacksArePresent) {
  namespaces::RunIn(namespaces::kNetwork, [] {
    namespaces::Command("ip link set lo up");
    bool present = false;
    EXPECT_OK(CZuIPAddr::IsIPv4StackPresent(present));
    EXPECT_TRUE(present);
    present = false;
    EXPECT_OK(CZuIPAddr::IsIPv6StackPresent(present));
    EXPECT_TRUE(present);
  });
}

TEST_F(Bindable, SaysThatAStackIsMissing) {
  bool present = true;
  FailSockets(AF_INET6, EAFNOSUPPORT);
  EXPECT_OK(CZuIPAddr::IsIPv6StackPresent(present));
  EXPECT_FALSE(present);
  EXPECT_OK(CZuIPAddr::IsIPv4StackPresent(present));
  EXPECT_TRUE(present);
  FailSockets(AF_INET, EAFNOSUPPORT);
  EXPECT_OK(CZuIPAddr::IsIPv4StackPresent(present));
  EXPECT_FALSE(present);
}

TEST_F(Bindable, ReportsAStackWhoseLoopbackCannotBeBound) {
  const struct {
    CZuError (*ask)(bool&);
    const char* place;
  } kCases[] = {{CZuIPAddr::IsIPv4StackPresent, "CZuIPAddr::IsIPv4StackPresent"},
                {CZuIPAddr::IsIPv6StackPresent, "CZuIPAddr::IsIPv6StackPresent"}};
  gBindErrNo = EADDRNOTAVAIL;
  for (const auto& test : kCases) {
    bool present = true;
    const CZuError error = test.ask(present);
    EXPECT_FAILS(error, ErrNoCode(EADDRNOTAVAIL), "CZuIPAddr::IsAddrBindable");
    EXPECT_THAT(error.AsString(), HasSubstr(test.place));
    EXPECT_FALSE(present);
  }
}

TEST_F(Bindable, ReportsAV6StackWithoutAddresses) {
  namespaces::RunIn(namespaces::kNetwork, [] {
    bool present = true;
    EXPECT_FAILS(CZuIPAddr::IsIPv6StackPresent(present), ErrNoCode(EADDRNOTAVAIL),
                 "CZuIPAddr::IsAddrBindable");
    EXPECT_FALSE(present);
  });
}

TEST_F(Bindable, ReportsAStackWhoseLoopbackTextCannotBeRead) {
  const resolver::Answer answer(EAI_MEMORY);
  bool present = true;
  const CZuError v4 = CZuIPAddr::IsIPv4StackPresent(present);
  EXPECT_FAILS(v4, ErrNoCode(EAI_MEMORY), "CZuIPAddr::SetAddressString");
  EXPECT_THAT(v4.AsString(), HasSubstr("CZuIPAddr::IsIPv4StackPresent"));
  EXPECT_FALSE(present);
  present = true;
  const CZuError v6 = CZuIPAddr::IsIPv6StackPresent(present);
  EXPECT_FAILS(v6, ErrNoCode(EAI_MEMORY), "CZuIPAddr::SetAddressString");
  EXPECT_THAT(v6.AsString(), HasSubstr("CZuIPAddr::IsIPv6StackPresent"));
  EXPECT_FALSE(present);
}

}  // namespace
