#include "ZuNetwork/ZuIPAddr.h"

#include <net/if.h>

#include <array>
#include <cctype>
#include <climits>
#include <cstddef>
#include <cstring>
#include <new>
#include <thread>
#include <type_traits>

#include "support/Addresses.h"
#include "support/Expect.h"
#include "support/FakeResolver.h"
#include "support/Heap.h"
#include "support/Namespaces.h"

namespace {

using Bytes = std::array<unsigned char, sizeof(CZuIPAddr)>;

constexpr auto kAny = CZuIPAddr::FAMILY_ANY;
constexpr auto kV4 = CZuIPAddr::FAMILY_IPV4;
constexpr auto kV6 = CZuIPAddr::FAMILY_IPV6;
constexpr auto kUnknown = static_cast<CZuIPAddr::IP_FAMILY>(7);

Bytes BytesOf(const CZuIPAddr& address) {
  Bytes bytes;
  std::memcpy(bytes.data(), &address.m_Addr, bytes.size());
  return bytes;
}

// Every byte is another one than zero and than its neighbours.
ZUNET_SockAddr Pattern(int family) {
  Bytes bytes;
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i + 1);
  ZUNET_SockAddr address;
  std::memcpy(&address, bytes.data(), bytes.size());
  address.addr.f.family = static_cast<std::uint16_t>(family);
  return address;
}

// Constructs in memory that is full of ones.
template <class... Arguments>
Bytes BytesOfNew(const Arguments&... arguments) {
  alignas(CZuIPAddr) unsigned char memory[sizeof(CZuIPAddr)];
  std::memset(memory, 0xFF, sizeof memory);
  auto* const address = new (memory) CZuIPAddr(arguments...);
  const Bytes bytes = BytesOf(*address);
  address->~CZuIPAddr();
  return bytes;
}

std::string Converted(const CZuIPAddr& address) {
  CZuString text = "untouched";
  EXPECT_OK(address.GetAddressString(text));
  return text.c_str();
}

// ---- The record ----

static_assert(sizeof(CZuIPAddr) == 28 && sizeof(CZuIPAddr) == sizeof(sockaddr_in6));
static_assert(alignof(CZuIPAddr) == alignof(ZUNET_SockAddr));
static_assert(std::is_standard_layout_v<CZuIPAddr> && !std::is_polymorphic_v<CZuIPAddr>);
static_assert(std::is_same_v<decltype(CZuIPAddr::m_Addr), ZUNET_SockAddr>);
static_assert(offsetof(CZuIPAddr, m_Addr) == 0);
static_assert(kAny == 0 && kV4 == 2 && kV6 == 10);
static_assert(std::is_trivially_copyable_v<ZUNET_SockAddr>);

TEST(ZuIPAddr, IsLaidOutAsTheSocketCallsTakeIt) {
  const CZuIPAddr v4 = Address("10.1.2.3", 0x1234);
  const auto* const raw = reinterpret_cast<const unsigned char*>(&v4);
  EXPECT_EQ(raw[0], 2);
  EXPECT_EQ(raw[1], 0);
  EXPECT_THAT(std::vector<int>(raw + 2, raw + 8), testing::ElementsAre(0x12, 0x34, 10, 1, 2, 3));
  const CZuIPAddr v6 = Address("2001:db8::1", 0x1234);
  EXPECT_EQ(v6.m_Addr.addr.f.family, 10);
  EXPECT_EQ(v6.m_Addr.addr.v6.sin6_port, htons(0x1234));
}

TEST(ZuIPAddr, IsClearedByDefault) {
  EXPECT_EQ(BytesOfNew(), Bytes{});
  const CZuIPAddr address;
  EXPECT_EQ(address.m_Addr.addr.f.family, kAny);
  EXPECT_EQ(address.GetPortNumber(), 0);
}

TEST(ZuIPAddr, CopiesEveryByteOfAnotherValue) {
  for (const int family : {0, 2, 10, 7}) {
    const CZuIPAddr source = Pattern(family);
    EXPECT_EQ(BytesOfNew(source), BytesOf(source)) << family;
    CZuIPAddr target = Pattern(2);
    target.m_Addr.addr.v4.sin_port = 0;
    EXPECT_EQ(&(target = source), &target);
    EXPECT_EQ(BytesOf(target), BytesOf(source)) << family;
  }
}

TEST(ZuIPAddr, AssignedToItselfStaysAsItIs) {
  CZuIPAddr address = Pattern(10);
  const Bytes before = BytesOf(address);
  const CZuIPAddr& same = address;
  address = same;
  EXPECT_EQ(BytesOf(address), before);
}

TEST(ZuIPAddr, TakesTheWholeUnionWhateverItsFamily) {
  for (const int family : {0, 2, 10, 7}) {
    const ZUNET_SockAddr source = Pattern(family);
    Bytes expected;
    std::memcpy(expected.data(), &source, sizeof source);
    EXPECT_EQ(BytesOfNew(source), expected) << family;
    CZuIPAddr target;
    EXPECT_EQ(&(target = source), &target);
    EXPECT_EQ(BytesOf(target), expected) << family;
  }
}

TEST(ZuIPAddr, ConstructedFromV4HasAZeroRest) {
  const sockaddr_in source = Pattern(2).addr.v4;
  Bytes expected{};
  std::memcpy(expected.data(), &source, sizeof source);
  EXPECT_EQ(BytesOfNew(source), expected);
}

TEST(ZuIPAddr, AssigningV4LeavesTheTail) {
  const sockaddr_in source = V4("10.1.2.3", 80);
  CZuIPAddr target = Pattern(10);
  Bytes expected = BytesOf(target);
  std::memcpy(expected.data(), &source, sizeof source);
  EXPECT_EQ(&(target = source), &target);
  EXPECT_EQ(BytesOf(target), expected);
  EXPECT_TRUE(target == Address("10.1.2.3"));
  EXPECT_EQ(Converted(target), "10.1.2.3");
}

TEST(ZuIPAddr, TakesFlowAndScopeOfV6) {
  sockaddr_in6 source = V6("fe80::1", 443);
  source.sin6_flowinfo = 0x01020304;
  source.sin6_scope_id = 5;
  Bytes expected;
  std::memcpy(expected.data(), &source, sizeof source);
  EXPECT_EQ(BytesOfNew(source), expected);
  CZuIPAddr target = Pattern(2);
  EXPECT_EQ(&(target = source), &target);
  EXPECT_EQ(BytesOf(target), expected);
}

TEST(ZuIPAddr, ClearForgetsEverything) {
  for (const int family : {0, 2, 10, 7}) {
    CZuIPAddr address = Pattern(family);
    address.Clear();
    EXPECT_EQ(BytesOf(address), Bytes{}) << family;
  }
}

TEST(ZuIPAddr, SettingTheFamilyIsAReset) {
  for (const auto family : {kAny, kV4, kV6, kUnknown}) {
    CZuIPAddr address = Address("10.1.2.3", 80);
    address.SetAddressFamily(family);
    Bytes expected{};
    expected[0] = static_cast<unsigned char>(family);
    EXPECT_EQ(BytesOf(address), expected) << family;
  }
}

TEST(ZuIPAddr, NamesFamilies) {
  EXPECT_STREQ(CZuIPAddr::ConvertAddressFamilyToString(kV4), "IPv4");
  EXPECT_STREQ(CZuIPAddr::ConvertAddressFamilyToString(kV6), "IPv6");
  EXPECT_STREQ(CZuIPAddr::ConvertAddressFamilyToString(kAny), "ANY");
  EXPECT_STREQ(CZuIPAddr::ConvertAddressFamilyToString(kUnknown), "ANY");
}

// ---- Comparison ----

TEST(ZuIPAddr, ComparesFamilyAndAddress) {
  const struct {
    const char* left;
    const char* right;
    bool equal;
  } kCases[] = {
      {"10.1.2.3", "10.1.2.3", true},        {"10.1.2.3", "10.1.2.4", false},
      {"10.1.2.3", "11.1.2.3", false},       {"10.1.2.3", "::ffff:10.1.2.3", false},
      {"2001:db8::1", "2001:db8::1", true},  {"2001:db8::1", "2001:db8::2", false},
      {"2001:db8::1", "3001:db8::1", false}, {"0.0.0.0", "::", false},
      {"2001:db8:1::", "2001:db8::", false},
  };
  for (const auto& test : kCases) {
    EXPECT_EQ(Address(test.left) == Address(test.right), test.equal)
        << test.left << " and " << test.right;
    EXPECT_EQ(Address(test.right) == Address(test.left), test.equal)
        << test.right << " and " << test.left;
  }
}

TEST(ZuIPAddr, ComparesNeitherPortNorFlowNorScope) {
  EXPECT_TRUE(Address("10.1.2.3", 80) == Address("10.1.2.3", 443));
  CZuIPAddr v6 = Address("fe80::1", 80);
  v6.m_Addr.addr.v6.sin6_flowinfo = 7;
  v6.m_Addr.addr.v6.sin6_scope_id = 3;
  EXPECT_TRUE(v6 == Address("fe80::1"));
}

TEST(ZuIPAddr, ComparesOnlyTheFourBytesOfV4) {
  CZuIPAddr address = Pattern(10);
  address = V4("10.1.2.3");
  EXPECT_TRUE(address == Address("10.1.2.3"));
}

TEST(ZuIPAddr, ComparesTheV6BytesOfEveryOtherFamily) {
  for (const int family : {0, 7}) {
    CZuIPAddr left = Pattern(family);
    CZuIPAddr right = Pattern(family);
    right.m_Addr.addr.v6.sin6_flowinfo ^= 1;  // where an IPv4 address would stand
    EXPECT_TRUE(left == right) << family;
    right.m_Addr.addr.v6.sin6_addr.s6_addr[15] ^= 1;
    EXPECT_FALSE(left == right) << family;
  }
  EXPECT_TRUE(CZuIPAddr() == CZuIPAddr());
  EXPECT_FALSE(CZuIPAddr(Pattern(0)) == CZuIPAddr(Pattern(7)));
}

// ---- Port ----

TEST(ZuIPAddr, TakesTheLow16BitsOfAPort) {
  const struct {
    int port;
    int stored;
  } kCases[] = {{0, 0},      {80, 80},    {65535, 65535}, {65536, 0},
                {65617, 81}, {-1, 65535}, {INT_MIN, 0},   {INT_MAX, 65535}};
  for (const char* text : {"10.1.2.3", "2001:db8::1"}) {
    CZuIPAddr address = Address(text);
    for (const auto& test : kCases) {
      ASSERT_OK(address.SetPortNumber(test.port));
      EXPECT_EQ(address.GetPortNumber(), test.stored) << test.port;
      EXPECT_EQ(ntohs(address.m_Addr.addr.v4.sin_port), test.stored) << test.port;
      EXPECT_EQ(Text(address), text);
    }
  }
}

TEST(ZuIPAddr, HasNoPortWithoutAFamily) {
  for (const int family : {0, 7}) {
    CZuIPAddr address = Pattern(family);
    const Bytes before = BytesOf(address);
    const CZuError error = address.SetPortNumber(80);
    EXPECT_FAILS(error, Win32Code(774), "Address family not set");
    EXPECT_FAILS(error, Win32Code(774), "CZuIPAddr::SetPortNumber");
    EXPECT_FAILS(error, Win32Code(774), "ZuIPAddr.cpp:");
    EXPECT_EQ(BytesOf(address), before) << family;
    EXPECT_EQ(address.GetPortNumber(), 0) << family;
  }
}

// ---- Text ----

TEST(ZuIPAddr, ConvertsToTextWithoutThePort) {
  for (const char* text :
       {"0.0.0.0", "10.1.2.3", "255.255.255.255", "127.0.53.53", "::", "::1", "2001:db8:0:12::5",
        "::ffff:10.1.2.3", "2001:db8:1111:2222:3333:4444:5555:6666"}) {
    EXPECT_EQ(Converted(Address(text, 80)), text);
  }
}

TEST(ZuIPAddr, ReadsTextWithPortZero) {
  const struct {
    const char* text;
    const char* address;
  } kCases[] = {
      {"10.1.2.3", "10.1.2.3"},
      {"0.0.0.0", "0.0.0.0"},
      {"::1", "::1"},
      {"2001:DB8:0:0012::0005", "2001:db8:0:12::5"},
      {"127.1", "127.0.0.1"},
      {"0x7f.1", "127.0.0.1"},
      {"::ffff:10.1.2.3", "::ffff:10.1.2.3"},
  };
  for (const auto& test : kCases) {
    CZuIPAddr address = Address("192.0.2.1", 80);
    EXPECT_OK(address.SetAddressString(test.text)) << test.text;
    EXPECT_EQ(Text(address), test.address);
    EXPECT_EQ(address.GetPortNumber(), 0) << test.text;
  }
}

TEST(ZuIPAddr, ReadingV4TextLeavesTheTail) {
  CZuIPAddr address = Pattern(10);
  Bytes expected = BytesOf(address);
  const sockaddr_in v4 = V4("10.1.2.3");
  std::memcpy(expected.data(), &v4, sizeof v4);
  ASSERT_OK(address.SetAddressString("10.1.2.3"));
  EXPECT_EQ(BytesOf(address), expected);
}

TEST(ZuIPAddr, ReadingV6TextReplacesEveryByte) {
  CZuIPAddr address = Pattern(10);
  ASSERT_OK(address.SetAddressString("2001:db8::5"));
  EXPECT_EQ(BytesOf(address), BytesOf(Address("2001:db8::5")));
}

TEST(ZuIPAddr, KeepsTheScopeOfText) {
  CZuIPAddr address;
  ASSERT_OK(address.SetAddressString("fe80::1%lo"));
  EXPECT_EQ(address.m_Addr.addr.v6.sin6_scope_id, if_nametoindex("lo"));
  EXPECT_EQ(Converted(address), "fe80::1%lo");
}

TEST(ZuIPAddr, IsUnchangedByTextThatCannotBeRead) {
  for (const char* text : {"", "localhost", "10.1.2.3.4", "10.1.2.256", "10.1.2.3/24",
                           "::1::", "10.1.2.3:80", "[::1]", "2001:db8", "10.1.2.3 x"}) {
    CZuIPAddr address = Pattern(10);
    const Bytes before = BytesOf(address);
    EXPECT_FAILS(address.SetAddressString(text), ErrNoCode(EAI_NONAME), "SetAddressString") << text;
    EXPECT_EQ(BytesOf(address), before) << text;
  }
}

TEST(ZuIPAddr, RefusesANullText) {
  CZuIPAddr address = Address("10.1.2.3");
  EXPECT_FAILS(address.SetAddressString(nullptr), ErrNoCode(EAI_NONAME), "SetAddressString");
  EXPECT_EQ(Text(address), "10.1.2.3");
}

TEST(ZuIPAddr, RefusesTheCollisionAddressButKeepsIt) {
  for (const char* text : {"127.0.53.53", "127.0.13621", "0x7f003535"}) {
    CZuIPAddr address = Address("10.1.2.3", 80);
    EXPECT_FAILS(address.SetAddressString(text), ErrNoCode(-2), "SetAddressString") << text;
    EXPECT_EQ(Text(address), "127.0.53.53") << text;
    EXPECT_EQ(address.GetPortNumber(), 0);
  }
}

TEST(ZuIPAddr, ReportsTheResolversCodeForText) {
  for (const int code : {EAI_AGAIN, EAI_MEMORY, EAI_SYSTEM, EAI_FAIL}) {
    CZuIPAddr address = Address("10.1.2.3", 80);
    const Bytes before = BytesOf(address);
    const resolver::Answer answer(code);
    EXPECT_FAILS(address.SetAddressString("10.9.9.9"), ErrNoCode(code), gai_strerror(code));
    EXPECT_EQ(BytesOf(address), before) << code;
  }
}

TEST(ZuIPAddr, AsksForNumericTextOfEitherFamily) {
  CZuIPAddr address;
  const resolver::Answer answer(0, {Address("10.9.9.9")});
  EXPECT_OK(address.SetAddressString("some text"));
  EXPECT_EQ(answer.Name(), "some text");
  EXPECT_EQ(answer.Hints().ai_flags, AI_NUMERICHOST);
  EXPECT_EQ(answer.Hints().ai_family, AF_UNSPEC);
  EXPECT_EQ(answer.Hints().ai_socktype, SOCK_STREAM);
  EXPECT_EQ(answer.Hints().ai_protocol, IPPROTO_TCP);
}

TEST(ZuIPAddr, TakesTheFirstUsableEntryForText) {
  const CZuIPAddr local = Pattern(AF_UNIX);
  {
    CZuIPAddr address;
    const resolver::Answer answer(0, {local, Address("2001:db8::9", 7), Address("10.9.9.9", 7)});
    EXPECT_OK(address.SetAddressString("x"));
    EXPECT_EQ(BytesOf(address), BytesOf(Address("2001:db8::9")));
  }
  CZuIPAddr address = Address("10.1.2.3", 80);
  const Bytes before = BytesOf(address);
  const resolver::Answer answer(0, {local});
  EXPECT_FAILS(address.SetAddressString("x"), ErrNoCode(EAI_FAMILY), "SetAddressString");
  EXPECT_EQ(BytesOf(address), before);
  EXPECT_EQ(resolver::gLists, 0);
}

TEST(ZuIPAddr, HasNoTextWithoutAFamily) {
  for (const int family : {0, 7}) {
    CZuString text = "untouched";
    EXPECT_FAILS(CZuIPAddr(Pattern(family)).GetAddressString(text), ErrNoCode(EAI_FAMILY),
                 "GetAddressString");
    EXPECT_STREQ(text.c_str(), "") << family;
  }
}

TEST(ZuIPAddr, HasAnEmptyTextAfterAFailure) {
  for (const int code : {EAI_AGAIN, EAI_MEMORY, EAI_OVERFLOW, EAI_FAIL}) {
    const resolver::ReverseAnswer answer(
        [code](const sockaddr*, socklen_t, char* host, socklen_t size, int) {
          std::memcpy(host, "half", size < 5 ? size : 5);
          return code;
        });
    CZuString text = "untouched";
    EXPECT_FAILS(Address("10.1.2.3").GetAddressString(text), ErrNoCode(code), gai_strerror(code));
    EXPECT_STREQ(text.c_str(), "") << code;
    EXPECT_EQ(text.Length(), 0u);
  }
}

TEST(ZuIPAddr, OffersTheLongestAddressTextRoom) {
  int calls = 0;
  const resolver::ReverseAnswer answer(
      [&calls](const sockaddr*, socklen_t length, char* host, socklen_t size, int flags) {
        ++calls;
        EXPECT_EQ(size, 46u);
        EXPECT_EQ(flags, NI_NUMERICHOST);
        EXPECT_EQ(length, calls == 1 ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
        std::memset(host, 'x', 45);
        host[45] = '\0';
        return 0;
      });
  for (const char* address : {"10.1.2.3", "::1"}) {
    CZuString text;
    EXPECT_OK(Address(address).GetAddressString(text));
    EXPECT_EQ(text.Length(), 45u);
  }
  EXPECT_EQ(calls, 2);
}

TEST(ZuIPAddr, NeedsNoHeapButForReadingText) {
  const CZuIPAddr source = Address("2001:db8:1111:2222:3333:4444:5555:6666", 80);
  CZuString text;
  ASSERT_OK(source.GetAddressString(text));  // what the system sets up once is there now
  const std::size_t before = heap::Calls(heap::kMalloc);
  CZuIPAddr address;
  address = source;
  CZuIPAddr copy(address);
  copy = V4("10.1.2.3");
  const bool equal = copy == address;
  const CZuError portError = copy.SetPortNumber(443);
  const CZuError maskError = copy.SetSubnetMaskFromCIDRPrefix(24);
  const CZuError textError = address.GetAddressString(text);
  copy.SetAddressFamily(kV6);
  copy.Clear();
  EXPECT_EQ(heap::Calls(heap::kMalloc), before);
  EXPECT_FALSE(equal || Failed(portError) || Failed(maskError) || Failed(textError));
  EXPECT_STREQ(text.c_str(), "2001:db8:1111:2222:3333:4444:5555:6666");
}

TEST(ZuIPAddr, CountsAllocations) {
  const std::size_t before = heap::Calls(heap::kMalloc);
  std::free(std::malloc(100));
  EXPECT_EQ(heap::Calls(heap::kMalloc), before + 1);
}

// ---- The family that the process prefers ----

TEST(ZuIPAddrPreference, GivesClearedValuesTheirFamily) {
  namespaces::RunInChild([] {
    ZUNET_SetFamilyPreference(AF_INET6);
    CZuIPAddr address;
    EXPECT_EQ(Text(address), "::");
    EXPECT_OK(address.SetPortNumber(80));
    EXPECT_EQ(address.GetPortNumber(), 80);
    address = V4("10.1.2.3", 80);
    address.Clear();
    EXPECT_EQ(BytesOf(address), BytesOf(Address("::")));
    address.SetAddressFamily(kAny);
    EXPECT_EQ(address.m_Addr.addr.f.family, 0);
    EXPECT_EQ(BytesOf(CZuIPAddr(V4("10.1.2.3"))), BytesOf(Address("10.1.2.3")));
  });
}

TEST(ZuIPAddrPreference, CountsTheFirstTimeAlsoWithNone) {
  namespaces::RunInChild([] {
    ZUNET_SetFamilyPreference(0);
    ZUNET_SetFamilyPreference(AF_INET6);
    EXPECT_EQ(CZuIPAddr().m_Addr.addr.f.family, 0);
  });
}

TEST(ZuIPAddrPreference, DoesNotTouchTheCollisionAddress) {
  namespaces::RunInChild([] {
    ZUNET_SetFamilyPreference(AF_INET6);
    EXPECT_TRUE(CZuIPAddr::m_DummyIpInit);
    EXPECT_EQ(Text(CZuIPAddr::m_DummyIp), "127.0.53.53");
  });
}

// ---- Threads ----

TEST(ZuIPAddr, DistinctValuesAreForDistinctThreads) {
  const CZuIPAddr shared = Address("10.1.2.3", 80);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&shared, i] {
      for (int round = 0; round < 100; ++round) {
        CZuIPAddr own = shared;
        EXPECT_OK(own.SetPortNumber(i));
        EXPECT_TRUE(own == shared);
        EXPECT_EQ(Converted(own), "10.1.2.3");
        EXPECT_OK(own.SetAddressString("::1"));
        EXPECT_FALSE(own == shared);
        EXPECT_FAILS(own.SetAddressString("127.0.53.53"), ErrNoCode(-2), "");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// ---- Lower case ----

TEST(Strlwr, LowersInPlace) {
  char text[] = "HOST.Example-42_Z";
  EXPECT_EQ(strlwr(text), text);
  EXPECT_STREQ(text, "host.example-42_z");
}

TEST(Strlwr, LeavesAnEmptyTextAlone) {
  char text[] = {'\0', 'A'};
  EXPECT_EQ(strlwr(text), text);
  EXPECT_EQ(text[1], 'A');
}

TEST(Strlwr, TakesEveryByteAsTolowerDoes) {
  std::string text;
  std::string expected;
  for (int byte = 1; byte < 256; ++byte) {
    text += static_cast<char>(byte);
    expected += static_cast<char>(std::tolower(byte));
  }
  EXPECT_EQ(strlwr(text.data()), text.data());
  EXPECT_EQ(text, expected);
}

}  // namespace
