#include <net/if.h>

#include <cerrno>
#include <deque>
#include <string>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

#include "support/Heap.h"
#include "support/Sockets.h"
#include "support/SystemFunction.h"

namespace {

using GetAddrInfoType = int(const char*, const char*, const addrinfo*, addrinfo**);
using FreeAddrInfoType = void(addrinfo*);
using GetNameInfoType = int(const sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int);
using GetServByNameType = servent*(const char*, const char*);
using GetServByPortType = servent*(int, const char*);

SystemFunction<GetAddrInfoType> gGetAddrInfo{"getaddrinfo"};
SystemFunction<FreeAddrInfoType> gFreeAddrInfo{"freeaddrinfo"};
SystemFunction<GetNameInfoType> gGetNameInfo{"getnameinfo"};
SystemFunction<GetServByNameType> gGetServByName{"getservbyname"};
SystemFunction<GetServByPortType> gGetServByPort{"getservbyport"};

}  // namespace

extern "C" {
int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list) {
  return gGetAddrInfo(name, service, hints, list);
}
void freeaddrinfo(addrinfo* list) noexcept { gFreeAddrInfo(list); }
int getnameinfo(const sockaddr* address, socklen_t length, char* host, socklen_t hostSize,
                char* service, socklen_t serviceSize, int flags) {
  return gGetNameInfo(address, length, host, hostSize, service, serviceSize, flags);
}
servent* getservbyname(const char* name, const char* protocol) {
  return gGetServByName(name, protocol);
}
servent* getservbyport(int port, const char* protocol) { return gGetServByPort(port, protocol); }
}

namespace {

constexpr char kCollision[] = "127.0.53.53";
constexpr int kCollisionResult = -2;
constexpr int kNoUsableFamily = -6;

std::vector<unsigned char> BytesOf(const ZUNET_SockAddr& address) {
  std::vector<unsigned char> bytes(sizeof address);
  std::memcpy(bytes.data(), &address, sizeof address);
  return bytes;
}

ZUNET_SockAddr Untouched() {
  ZUNET_SockAddr address;
  std::memset(&address, 0xEE, sizeof address);
  return address;
}

// The functions look up their copy of the collision address with the first text that they read:
// the real resolver answers that, before any test.
const bool kCopyIsMade = [] {
  ZUNET_SockAddr any;
  return ZUNET_str2ip("127.0.0.1", &any) == 0;
}();

// Answers every lookup with a list, or a result, of the test's; notes what was asked, and counts
// how often the list was released.
class FakeResolver {
 public:
  void Add(const char* text) {
    const ZUNET_SockAddr address = SockAddr(text, 4711);  // ports in lists do not count
    Add(address, address.addr.f.family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
  }
  void AddOther() {
    ZUNET_SockAddr address{};
    address.addr.f.family = AF_UNIX;
    Add(address, sizeof address);
  }
  void Add(const ZUNET_SockAddr& address, socklen_t length) {
    m_addresses.push_back(address);
    addrinfo entry{};
    entry.ai_family = address.addr.f.family;
    entry.ai_addrlen = length;
    entry.ai_addr = SystemAddress(m_addresses.back());
    m_entries.push_back(entry);
    for (std::size_t i = 0; i + 1 < m_entries.size(); ++i) {
      m_entries[i].ai_next = &m_entries[i + 1];
    }
  }

  int result = 0;
  int lookups = 0;
  int releases = 0;
  std::string name;
  bool hadService = true;
  addrinfo hints{};

 private:
  addrinfo* List() { return m_entries.empty() ? nullptr : &m_entries.front(); }

  std::deque<ZUNET_SockAddr> m_addresses;
  std::deque<addrinfo> m_entries;
  const Replacement<GetAddrInfoType> m_get{
      gGetAddrInfo,
      [this](const char* asked, const char* service, const addrinfo* given, addrinfo** list) {
        ++lookups;
        name = asked;
        hadService = service != nullptr;
        hints = *given;
        if (result == 0) *list = List();
        return result;
      }};
  const Replacement<FreeAddrInfoType> m_free{gFreeAddrInfo, [this](addrinfo* list) {
                                               if (list == List() && list != nullptr) ++releases;
                                             }};
};

void Resolve(FakeResolver& resolver, const std::vector<const char*>& texts) {
  for (const char* text : texts) {
    if (std::string(text) == "other") {
      resolver.AddOther();
    } else {
      resolver.Add(text);
    }
  }
}

// ---- Text to address ----

TEST(StrToIp, ReadsNumericTextsOfEitherFamily) {
  const struct {
    const char* text;
    const char* expected;
  } cases[] = {{"10.1.2.3", "10.1.2.3"},
               {"0.0.0.0", "0.0.0.0"},
               {"255.255.255.255", "255.255.255.255"},
               {"127.0.53.52", "127.0.53.52"},
               {"127.0.53.54", "127.0.53.54"},
               {"127.1", "127.0.0.1"},
               {"::", "::"},
               {"::1", "::1"},
               {"2001:DB8:0:0::5", "2001:db8::5"},
               {"::ffff:127.0.53.53", "::ffff:127.0.53.53"}};
  for (const auto& c : cases) {
    ZUNET_SockAddr address = Untouched();
    EXPECT_EQ(ZUNET_str2ip(c.text, &address), 0) << c.text;
    EXPECT_EQ(Text(address), c.expected);
    EXPECT_EQ(ZUNET_getport(&address), 0) << c.text;
  }
}

TEST(StrToIp, ReadsTheScopeOfAnInterface) {
  ZUNET_SockAddr address = Untouched();
  EXPECT_EQ(ZUNET_str2ip("fe80::1%lo", &address), 0);
  EXPECT_EQ(address.addr.v6.sin6_scope_id, if_nametoindex("lo"));
  EXPECT_EQ(address.addr.v6.sin6_flowinfo, 0u);
}

TEST(StrToIp, RefusesWhatIsNotNumericAndWritesNothing) {
  for (const char* text : {"localhost", "no.such.name", "", "300.1.1.1", "1.2.3.4.5", "::g",
                           "1::2::3", "10.0.0.1:80", "[::1]", "10.0.0.1/8"}) {
    ZUNET_SockAddr address = Untouched();
    EXPECT_EQ(ZUNET_str2ip(text, &address), EAI_NONAME) << text;
    EXPECT_EQ(BytesOf(address), BytesOf(Untouched())) << text;
  }
}

TEST(StrToIp, WritesSixteenBytesForIPv4AndAllForIPv6) {
  ZUNET_SockAddr address = Untouched();
  ASSERT_EQ(ZUNET_str2ip("10.1.2.3", &address), 0);
  const std::vector<unsigned char> bytes = BytesOf(address);
  for (std::size_t i = 16; i < bytes.size(); ++i) EXPECT_EQ(bytes[i], 0xEE) << i;
  address = Untouched();
  ASSERT_EQ(ZUNET_str2ip("2001:db8::5", &address), 0);
  EXPECT_EQ(BytesOf(address), BytesOf(SockAddr("2001:db8::5")));
}

TEST(StrToIp, RefusesTheCollisionAddressInEverySpellingAndWritesIt) {
  for (const char* text : {kCollision, "127.13621", "0x7f.0.53.0x35", "2130720053"}) {
    ZUNET_SockAddr address = Untouched();
    EXPECT_EQ(ZUNET_str2ip(text, &address), kCollisionResult) << text;
    EXPECT_EQ(address.addr.f.family, AF_INET) << text;
    EXPECT_EQ(Text(address), kCollision) << text;
    EXPECT_EQ(ZUNET_getport(&address), 0) << text;
  }
  EXPECT_EQ(ZUNET_NAME_COLLISION, kCollisionResult);
}

TEST(StrToIp, AsksForNumericAddressesOfAnyFamily) {
  FakeResolver resolver;
  resolver.Add("10.1.2.3");
  ZUNET_SockAddr address;
  EXPECT_EQ(ZUNET_str2ip("a text", &address), 0);
  EXPECT_EQ(resolver.name, "a text");
  EXPECT_FALSE(resolver.hadService);
  EXPECT_EQ(resolver.hints.ai_flags, 4);
  EXPECT_EQ(resolver.hints.ai_family, 0);
  EXPECT_EQ(resolver.hints.ai_socktype, 1);
  EXPECT_EQ(resolver.hints.ai_protocol, 6);
  EXPECT_EQ(resolver.lookups, 1);
}

TEST(StrToIp, ResolversResultIsReturnedAsItIs) {
  for (const int result : {EAI_AGAIN, EAI_FAIL, EAI_MEMORY, EAI_NONAME, EAI_SYSTEM, 4, 12345}) {
    FakeResolver resolver;
    resolver.result = result;
    ZUNET_SockAddr address = SockAddr(kCollision);  // does not matter then
    EXPECT_EQ(ZUNET_str2ip("x", &address), result);
    EXPECT_EQ(BytesOf(address), BytesOf(SockAddr(kCollision))) << result;
    EXPECT_EQ(resolver.releases, 0) << result;
  }
}

TEST(StrToIp, TakesTheFirstUsableEntry) {
  const struct {
    std::vector<const char*> list;
    int result;
    const char* expected;
  } cases[] = {
      {{"10.1.2.3"}, 0, "10.1.2.3"},
      {{"10.1.2.3", "::1"}, 0, "10.1.2.3"},
      {{"::1", "10.1.2.3"}, 0, "::1"},
      {{"other", "other", "::1", "10.1.2.3"}, 0, "::1"},
      {{"other", "10.1.2.3", "other"}, 0, "10.1.2.3"},
      {{"10.1.2.3", kCollision}, 0, "10.1.2.3"},  // further ones are not looked at
      {{"::1", kCollision}, 0, "::1"},
      {{kCollision, "10.1.2.3"}, kCollisionResult, kCollision},
      {{"other", kCollision}, kCollisionResult, kCollision},
  };
  for (const auto& c : cases) {
    FakeResolver resolver;
    Resolve(resolver, c.list);
    ZUNET_SockAddr address = Untouched();
    EXPECT_EQ(ZUNET_str2ip("x", &address), c.result) << c.expected;
    EXPECT_EQ(Text(address), c.expected);
    EXPECT_EQ(ZUNET_getport(&address), 0) << c.expected;
    EXPECT_EQ(resolver.releases, 1) << c.expected;
  }
}

TEST(StrToIp, NoUsableEntryWritesNothing) {
  for (const auto& list :
       std::vector<std::vector<const char*>>{{}, {"other"}, {"other", "other"}}) {
    FakeResolver resolver;
    Resolve(resolver, list);
    ZUNET_SockAddr address = Untouched();
    EXPECT_EQ(ZUNET_str2ip("x", &address), kNoUsableFamily);
    EXPECT_EQ(BytesOf(address), BytesOf(Untouched()));
    EXPECT_EQ(resolver.releases, list.empty() ? 0 : 1);
  }
}

TEST(StrToIp, StaleCollisionAddressCountsWhenThereIsNoUsableEntry) {
  for (const auto& list : std::vector<std::vector<const char*>>{{}, {"other"}}) {
    FakeResolver resolver;
    Resolve(resolver, list);
    // Only the word behind the port is looked at, whatever the family says.
    for (const std::uint16_t family : std::initializer_list<std::uint16_t>{AF_INET, AF_INET6, 0}) {
      ZUNET_SockAddr address = SockAddr(kCollision, 4711);
      address.addr.f.family = family;
      const std::vector<unsigned char> before = BytesOf(address);
      EXPECT_EQ(ZUNET_str2ip("x", &address), kCollisionResult) << family;
      EXPECT_EQ(BytesOf(address), before) << family;
    }
  }
}

TEST(StrToIp, FlowLabelThatReadsAsTheCollisionAddressCounts) {
  ZUNET_SockAddr odd = SockAddr("2001:db8::5");
  odd.addr.v6.sin6_flowinfo = SockAddr(kCollision).addr.v4.sin_addr.s_addr;
  FakeResolver resolver;
  resolver.Add(odd, sizeof(sockaddr_in6));
  ZUNET_SockAddr address = Untouched();
  EXPECT_EQ(ZUNET_str2ip("x", &address), kCollisionResult);
  EXPECT_EQ(Text(address), "2001:db8::5");
}

// ---- Name to addresses ----

class NameToIp : public testing::Test {
 protected:
  ~NameToIp() override { ZUNET_freehostent(&host); }

  std::vector<std::string> Texts(int count) const {
    std::vector<std::string> texts;
    for (int i = 0; i < count; ++i) texts.push_back(Text(host.addr_list[i]));
    return texts;
  }

  // Addresses of a host that were never allocated.
  ZUNET_SockAddr stale{};
  ZUNET_HostEnt host{-7, nullptr};
};

TEST_F(NameToIp, ReadsNumericTextsAndNames) {
  const struct {
    const char* name;
    int family;
    const char* expected;
  } cases[] = {{"10.1.2.3", 0, "10.1.2.3"},
               {"10.1.2.3", AF_INET, "10.1.2.3"},
               {"::1", 0, "::1"},
               {"2001:db8::5", AF_INET6, "2001:db8::5"},
               {"localhost", AF_INET, "127.0.0.1"}};
  for (const auto& c : cases) {
    host = {-7, nullptr};
    ASSERT_EQ(ZUNET_name2ip(c.name, &host, c.family), 0) << c.name;
    ASSERT_GE(host.addr_count, 1) << c.name;
    EXPECT_EQ(Text(host.addr_list[0]), c.expected);
    EXPECT_EQ(ZUNET_getport(&host.addr_list[0]), 0);
    ZUNET_freehostent(&host);
  }
}

TEST_F(NameToIp, FreeingResetsTheRecord) {
  ASSERT_EQ(ZUNET_name2ip("10.1.2.3", &host, 0), 0);
  for (int round = 0; round < 2; ++round) {
    ZUNET_freehostent(&host);
    EXPECT_EQ(host.addr_count, 0);
    EXPECT_EQ(host.addr_list, nullptr);
    host.addr_count = 7;  // with no list there is nothing to release
  }
}

TEST_F(NameToIp, AsksForTheFamilyItIsGiven) {
  FakeResolver resolver;
  for (const int family : {0, AF_INET, AF_INET6, AF_UNIX}) {
    EXPECT_EQ(ZUNET_name2ip("a name", &host, family), 0);
    ZUNET_freehostent(&host);
    EXPECT_EQ(resolver.name, "a name");
    EXPECT_FALSE(resolver.hadService);
    EXPECT_EQ(resolver.hints.ai_flags, 2);
    EXPECT_EQ(resolver.hints.ai_family, family);
    EXPECT_EQ(resolver.hints.ai_socktype, 1);
    EXPECT_EQ(resolver.hints.ai_protocol, 6);
  }
}

TEST_F(NameToIp, PreferenceStandsInForNoFamilyOnly) {
  InOwnProcess([this] {
    ZUNET_SetFamilyPreference(AF_INET6);
    {
      FakeResolver resolver;
      for (const auto& [asked, expected] :
           {std::pair{0, AF_INET6}, std::pair{AF_INET, AF_INET}, std::pair{AF_INET6, AF_INET6}}) {
        EXPECT_EQ(ZUNET_name2ip("x", &host, asked), 0);
        ZUNET_freehostent(&host);
        EXPECT_EQ(resolver.hints.ai_family, expected) << asked;
      }
      resolver.Add("10.1.2.3");
      ZUNET_SockAddr address;
      EXPECT_EQ(ZUNET_str2ip("x", &address), 0);  // has no say in numeric texts
      EXPECT_EQ(resolver.hints.ai_family, 0);
    }
    EXPECT_NE(ZUNET_name2ip("10.1.2.3", &host, 0), 0);
    EXPECT_EQ(ZUNET_name2ip("::1", &host, 0), 0);
    ZUNET_freehostent(&host);
  });
}

TEST_F(NameToIp, ResolversResultIsReturnedAsItIs) {
  for (const int result : {EAI_AGAIN, EAI_FAIL, EAI_MEMORY, EAI_NONAME, EAI_SYSTEM, 4, 12345}) {
    FakeResolver resolver;
    resolver.result = result;
    host = {-7, &stale};
    EXPECT_EQ(ZUNET_name2ip("x", &host, 0), result);
    EXPECT_EQ(host.addr_count, -7) << result;
    EXPECT_EQ(host.addr_list, &stale) << result;
    EXPECT_EQ(resolver.releases, 0) << result;
  }
  host.addr_list = nullptr;
}

TEST_F(NameToIp, TakesAllUsableEntriesInOrder) {
  const std::vector<std::vector<const char*>> lists = {
      {"10.1.2.3"},
      {"::1"},
      {"10.1.2.3", "::1", "10.1.2.4", "2001:db8::5"},
      {"other", "::1", "other", "10.1.2.3", "other"},
      {"10.1.2.3", "10.1.2.3"},
      {"127.0.53.52", "::ffff:127.0.53.53"},
  };
  for (const auto& list : lists) {
    FakeResolver resolver;
    Resolve(resolver, list);
    std::vector<std::string> expected;
    for (const std::string text : list) {
      if (text != "other") expected.push_back(text);
    }
    host = {-7, nullptr};
    ASSERT_EQ(ZUNET_name2ip("x", &host, 0), 0) << list[0];
    ASSERT_EQ(host.addr_count, static_cast<int>(expected.size())) << list[0];
    EXPECT_EQ(Texts(host.addr_count), expected);
    for (std::size_t i = 0; i < expected.size(); ++i) {
      // With port 0, and nothing behind what the family fills.
      EXPECT_EQ(BytesOf(host.addr_list[i]), BytesOf(SockAddr(expected[i].c_str())));
    }
    EXPECT_EQ(resolver.releases, 1) << list[0];
    ZUNET_freehostent(&host);
  }
}

TEST_F(NameToIp, EmptyListIsNoFailure) {
  for (const auto& list :
       std::vector<std::vector<const char*>>{{}, {"other"}, {"other", "other"}}) {
    FakeResolver resolver;
    Resolve(resolver, list);
    host = {-7, nullptr};
    EXPECT_EQ(ZUNET_name2ip("x", &host, 0), 0);
    EXPECT_EQ(host.addr_count, 0);
    EXPECT_NE(host.addr_list, nullptr);
    EXPECT_EQ(resolver.releases, list.empty() ? 0 : 1);
    ZUNET_freehostent(&host);
  }
}

TEST_F(NameToIp, FailedAllocationKeepsTheResolversList) {
  for (const auto& list :
       std::vector<std::vector<const char*>>{{}, {"10.1.2.3"}, {"::1", "10.1.2.3"}, {"other"}}) {
    FakeResolver resolver;
    Resolve(resolver, list);
    const std::size_t failures = heap::Failures(heap::kCalloc);
    int result = -7;
    {
      const heap::Failing noMemory(heap::kCalloc);
      result = ZUNET_name2ip("x", &host, 0);
    }
    EXPECT_EQ(result, 12);
    EXPECT_EQ(heap::Failures(heap::kCalloc), failures + 1);
    EXPECT_EQ(resolver.releases, 0);
  }
}

TEST_F(NameToIp, CollisionAddressEndsEarlyAndKeepsWhatThereIs) {
  const struct {
    std::vector<const char*> list;
    std::vector<std::string> reached;
  } cases[] = {
      {{kCollision}, {kCollision}},
      {{kCollision, "10.1.2.3"}, {kCollision}},
      {{"10.1.2.3", kCollision}, {"10.1.2.3", kCollision}},
      {{"::1", "other", kCollision, "10.1.2.4"}, {"::1", kCollision}},
      {{"10.1.2.3", "10.1.2.4", kCollision}, {"10.1.2.3", "10.1.2.4", kCollision}},
  };
  for (const auto& c : cases) {
    FakeResolver resolver;
    Resolve(resolver, c.list);
    host = {-7, nullptr};
    EXPECT_EQ(ZUNET_name2ip("x", &host, 0), kCollisionResult) << c.list[0];
    EXPECT_EQ(host.addr_count, -7) << c.list[0];
    ASSERT_NE(host.addr_list, nullptr) << c.list[0];
    EXPECT_EQ(Texts(static_cast<int>(c.reached.size())), c.reached);
    EXPECT_EQ(resolver.releases, 0) << c.list[0];
    ZUNET_freehostent(&host);
    EXPECT_EQ(host.addr_list, nullptr);
  }
}

TEST_F(NameToIp, RefusesTheCollisionAddressOfTheRealResolver) {
#if defined(__SANITIZE_ADDRESS__)
  const __lsan::ScopedDisabler listIsKept;
#endif
  for (const int family : {0, AF_INET}) {
    EXPECT_EQ(ZUNET_name2ip(kCollision, &host, family), kCollisionResult);
    ASSERT_NE(host.addr_list, nullptr);
    EXPECT_EQ(Text(host.addr_list[0]), kCollision);
    ZUNET_freehostent(&host);
  }
}

TEST_F(NameToIp, FlowLabelsAreNotLookedAt) {
  ZUNET_SockAddr odd = SockAddr("2001:db8::5");
  odd.addr.v6.sin6_flowinfo = SockAddr(kCollision).addr.v4.sin_addr.s_addr;
  FakeResolver resolver;
  resolver.Add(odd, sizeof(sockaddr_in6));
  EXPECT_EQ(ZUNET_name2ip("x", &host, 0), 0);
  EXPECT_EQ(host.addr_count, 1);
}

// ---- Address to text and name ----

struct NameInfoCall {
  const void* address;
  socklen_t length;
  const void* text;
  socklen_t size;
  bool hasService;
  int flags;
};

class FakeNames {
 public:
  std::vector<int> results;  // of the calls in turn
  std::vector<NameInfoCall> calls;
  int err = 0;  // what errno becomes, when not 0

 private:
  const Replacement<GetNameInfoType> m_get{
      gGetNameInfo, [this](const sockaddr* address, socklen_t length, char* host, socklen_t size,
                           char* service, socklen_t serviceSize, int flags) {
        calls.push_back(
            {address, length, host, size, service != nullptr || serviceSize != 0, flags});
        if (err != 0) errno = err;
        const int result = results.at(calls.size() - 1);
        if (result == 0) std::snprintf(host, size, "found");
        return result;
      }};
};

TEST(IpToStr, WritesTheNumericTextWithoutThePort) {
  for (const char* text : {"10.1.2.3", "0.0.0.0", "127.0.53.53", "::", "::1", "2001:db8::5"}) {
    const ZUNET_SockAddr address = SockAddr(text, 4711);
    char buffer[64] = "x";
    EXPECT_EQ(ZUNET_ip2str(&address, buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, text);
  }
  ZUNET_SockAddr scoped = SockAddr("fe80::1");
  scoped.addr.v6.sin6_scope_id = if_nametoindex("lo");
  char buffer[64] = "x";
  EXPECT_EQ(ZUNET_ip2str(&scoped, buffer, sizeof buffer), 0);
  EXPECT_STREQ(buffer, "fe80::1%lo");
}

TEST(IpToStr, FailuresAreResolverCodesWithAnEmptyText) {
  const ZUNET_SockAddr address = SockAddr("10.1.2.3");
  for (const std::size_t size : {1u, 8u}) {
    char buffer[9] = "xxxxxxxx";
    EXPECT_EQ(ZUNET_ip2str(&address, buffer, size), EAI_OVERFLOW) << size;
    EXPECT_STREQ(buffer, "") << size;
  }
  char buffer[64] = "x";
  EXPECT_EQ(ZUNET_ip2str(&address, buffer, 9), 0);  // it just fits
  const ZUNET_SockAddr unknown{};
  EXPECT_EQ(ZUNET_ip2str(&unknown, buffer, sizeof buffer), EAI_FAMILY);
  EXPECT_STREQ(buffer, "");
}

TEST(IpToStr, ResultFourIsTriedOnceMoreWithTheLengthOfIPv4) {
  const struct {
    std::vector<int> results;
    int result;
  } cases[] = {
      {{0}, 0},    {{EAI_FAMILY}, EAI_FAMILY}, {{EAI_FAIL}, EAI_FAIL}, {{3}, 3}, {{4, 0}, 0},
      {{4, 4}, 4}, {{4, EAI_AGAIN}, EAI_AGAIN}};
  for (const char* text : {"10.1.2.3", "::1"}) {
    const ZUNET_SockAddr address = SockAddr(text);
    for (const auto& c : cases) {
      FakeNames names;
      names.results = c.results;
      char buffer[64] = "x";
      EXPECT_EQ(ZUNET_ip2str(&address, buffer, sizeof buffer), c.result) << text;
      EXPECT_STREQ(buffer, c.result == 0 ? "found" : "") << text;
      ASSERT_EQ(names.calls.size(), c.results.size()) << text;
      for (std::size_t i = 0; i < names.calls.size(); ++i) {
        const NameInfoCall& call = names.calls[i];
        EXPECT_EQ(call.address, &address);
        EXPECT_EQ(call.length, address.addr.f.family == AF_INET || i == 1 ? 16u : 28u);
        EXPECT_EQ(call.text, buffer);
        EXPECT_EQ(call.size, sizeof buffer);
        EXPECT_FALSE(call.hasService);
        EXPECT_EQ(call.flags, 1);
      }
    }
  }
}

TEST(IpToName, FindsTheNameOfLoopback) {
  const ZUNET_SockAddr address = SockAddr("127.0.0.1", 4711);
  char name[256] = "x";
  EXPECT_EQ(ZUNET_ip2name(&address, name, sizeof name), 0);
  EXPECT_STREQ(name, "localhost");
}

TEST(IpToName, AsksForANameAndNoService) {
  for (const Loopback& loopback : kLoopbacks) {
    const ZUNET_SockAddr address = SockAddr(loopback.text);
    FakeNames names;
    names.results = {0};
    names.err = EIO;  // says nothing where there is no failure
    char name[64] = "x";
    EXPECT_EQ(ZUNET_ip2name(&address, name, sizeof name), 0);
    EXPECT_STREQ(name, "found");
    ASSERT_EQ(names.calls.size(), 1u);
    EXPECT_EQ(names.calls[0].address, &address);
    EXPECT_EQ(names.calls[0].length, loopback.length);
    EXPECT_EQ(names.calls[0].size, sizeof name);
    EXPECT_FALSE(names.calls[0].hasService);
    EXPECT_EQ(names.calls[0].flags, 8);
  }
}

TEST(IpToName, FailureIsTheErrNoAndNeverReadsAsSuccess) {
  const struct {
    int result, err, expected;
  } cases[] = {
      {EAI_SYSTEM, EIO, EIO},  {EAI_NONAME, 0, ENOENT}, {EAI_AGAIN, ECONNREFUSED, ECONNREFUSED},
      {EAI_SYSTEM, 0, ENOENT}, {4, 0, ENOENT},          {EAI_OVERFLOW, 0, ENOENT}};
  const ZUNET_SockAddr address = SockAddr("10.1.2.3");
  for (const auto& c : cases) {
    FakeNames names;
    names.results = {c.result};
    names.err = c.err;
    char name[64] = "x";
    errno = EXDEV;  // of an earlier failure: not the reason of this one
    EXPECT_EQ(ZUNET_ip2name(&address, name, sizeof name), c.expected) << c.result;
    EXPECT_STREQ(name, "") << c.result;
    EXPECT_EQ(names.calls.size(), 1u) << c.result;
  }
}

// ---- Services ----

TEST(Services, AreFoundByNameAndByPort) {
  for (const char* protocol : {"tcp", static_cast<const char*>(nullptr)}) {
    servent* entry = nullptr;
    ASSERT_EQ(ZUNET_getservbyname("http", protocol, &entry), 0);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->s_port, htons(80));
    entry = nullptr;
    ASSERT_EQ(ZUNET_getservbyport(htons(80), protocol, &entry), 0);
    ASSERT_NE(entry, nullptr);
    EXPECT_STREQ(entry->s_name, "http");
  }
}

TEST(Services, UnknownOnesAreEnoentNeverSuccess) {
  servent stale{};
  servent* entry = &stale;
  errno = 0;
  EXPECT_EQ(ZUNET_getservbyname("no-such-service", "tcp", &entry), ENOENT);
  EXPECT_EQ(entry, nullptr);
  entry = &stale;
  errno = EXDEV;
  EXPECT_EQ(ZUNET_getservbyport(htons(4), "no-such-protocol", &entry), ENOENT);
  EXPECT_EQ(entry, nullptr);
}

TEST(Services, FailureWithAReasonIsItsErrNo) {
  const Replacement<GetServByNameType> byName(gGetServByName, [](auto...) {
    errno = EMFILE;
    return nullptr;
  });
  const Replacement<GetServByPortType> byPort(gGetServByPort, [](auto...) {
    errno = EIO;
    return nullptr;
  });
  servent stale{};
  servent* entry = &stale;
  EXPECT_EQ(ZUNET_getservbyname("http", "tcp", &entry), EMFILE);
  EXPECT_EQ(entry, nullptr);
  entry = &stale;
  EXPECT_EQ(ZUNET_getservbyport(1, "tcp", &entry), EIO);
  EXPECT_EQ(entry, nullptr);
}

TEST(Services, WhatIsFoundAndAskedIsHandedOn) {
  servent found{};
  const Replacement<GetServByNameType> byName(
      gGetServByName, [&](const char* name, const char* protocol) {
        EXPECT_STREQ(name, "n");
        EXPECT_STREQ(protocol, "p");
        errno = EIO;  // says nothing where there is no failure
        return &found;
      });
  const Replacement<GetServByPortType> byPort(gGetServByPort, [&](int port, const char* protocol) {
    EXPECT_EQ(port, 0x5000);
    EXPECT_STREQ(protocol, "p");
    errno = EIO;
    return &found;
  });
  servent* entry = nullptr;
  EXPECT_EQ(ZUNET_getservbyname("n", "p", &entry), 0);
  EXPECT_EQ(entry, &found);
  entry = nullptr;
  EXPECT_EQ(ZUNET_getservbyport(0x5000, "p", &entry), 0);
  EXPECT_EQ(entry, &found);
}

}  // namespace
