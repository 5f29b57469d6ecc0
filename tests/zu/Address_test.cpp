#include "zu/Address.h"

#include <net/if.h>

#include <cerrno>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "support/Addresses.h"
#include "support/Expect.h"

namespace {

using std::string_view_literals::operator""sv;

CZuIPAddr Scoped(const char* text, std::uint32_t scope, int port = 0) {
  sockaddr_in6 address = V6(text, port);
  address.sin6_scope_id = scope;
  return address;
}

TEST(ZuAddress, ReadsAndWritesEachAddressInItsOneForm) {
  static constexpr struct {
    const char* text;
    const char* canonical;
  } kCases[] = {
      {"0.0.0.0", "0.0.0.0"},
      {"192.0.2.255", "192.0.2.255"},
      {"127.0.53.53", "127.0.53.53"},
      {"::", "::"},
      {"::1", "::1"},
      {"1::", "1::"},
      {"::1:2", "::1:2"},
      {"2001:DB8::A", "2001:db8::a"},
      {"2001:0db8:0000:0000:0001:0000:0000:0001", "2001:db8::1:0:0:1"},
      {"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},
      {"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},
      {"1:2:3:4:5:6:0:0", "1:2:3:4:5:6::"},
      {"0:0:3:4:5:6:7:8", "::3:4:5:6:7:8"},
      {"::ffff:1.2.3.4", "::ffff:1.2.3.4"},
      {"::ffff:102:304", "::ffff:1.2.3.4"},
      {"::1.2.3.4", "::102:304"},
      {"64:ff9b::1.2.3.4", "64:ff9b::102:304"},
      {"fe80::1", "fe80::1"},
      {"fe80::1%77777", "fe80::1%77777"},
      {"fe80::1%lo", "fe80::1%lo"},
      {"fe80::1%1", "fe80::1%lo"},
      {"febf::1%lo", "febf::1%lo"},
      {"ff02::1%lo", "ff02::1%lo"},
  };
  for (const auto& c : kCases) {
    CZuIPAddr address = Address("9.9.9.9", 9);
    ASSERT_OK(zu::ParseAddress(c.text, address)) << c.text;
    EXPECT_EQ(zu::Format(address), c.canonical) << c.text;
    EXPECT_EQ(address.GetPortNumber(), 0) << c.text;
    CZuIPAddr again;
    ASSERT_OK(zu::ParseAddress(zu::Format(address), again)) << c.text;
    EXPECT_TRUE(zu::EndpointEqual()(address, again)) << c.text;
  }
}

TEST(ZuAddress, WritesTheSameAddressAsTheSystemReads) {
  for (unsigned zeros = 0; zeros < 256; ++zeros) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    for (unsigned word = 0; word < 8; ++word) {
      if ((zeros >> word & 1) == 0) address.sin6_addr.s6_addr16[word] = htons(0xA0);
    }
    in6_addr read{};
    const std::string text = zu::Format(address);
    ASSERT_EQ(inet_pton(AF_INET6, text.c_str(), &read), 1) << text;
    EXPECT_TRUE(IN6_ARE_ADDR_EQUAL(&read, &address.sin6_addr)) << text;
  }
}

TEST(ZuAddress, RefusesEveryOtherText) {
  static constexpr std::string_view kCases[] = {
      "",
      " ",
      "1.2.3.4 ",
      " 1.2.3.4",
      "1.2.3.4\n",
      "1.2.3.4\0"sv,
      "1.2.3",
      "10.1",
      "167772161",
      "0x0a000001",
      "010.0.0.1",
      "10.0.0.01",
      "1.2.3.256",
      "1.2.3.4.5",
      "1.2.3.-4",
      "1.2.3.+4",
      "1.2.3.4:80",
      "[::1]",
      ":",
      ":::",
      "1::2::3",
      "12345::",
      "1:2:3:4:5:6:7",
      "::g",
      "1:2:3:4:5:6:7:8:9",
      "::ffff:1.2.3",
      "::ffff:010.1.1.1",
      "localhost",
      "::1%lo",
      "2001:db8::1%1",
      "1.2.3.4%lo",
      "fe80::1%",
      "fe80::1%0",
      "fe80::1%01",
      "fe80::1%4294967296",
      "fe80::1%lo\0"sv,
      "ff05::1%lo",
      "fe80::1%abcdefghijklmnop",
      "1111:2222:3333:4444:5555:6666:7777:8888:9999:aaaa:bbbb:cccc",
  };
  for (const std::string_view text : kCases) {
    CZuIPAddr address = Address("9.9.9.9", 9);
    EXPECT_FAILS(zu::ParseAddress(text, address), Win32Code(87), "[") << text;
    EXPECT_TRUE(zu::EndpointEqual()(address, Address("9.9.9.9", 9))) << text;
  }
}

TEST(ZuAddress, TellsOfAnInterfaceThatIsNotThere) {
  CZuIPAddr address = Address("9.9.9.9");
  EXPECT_FAILS(zu::ParseAddress("fe80::1%nosuch0", address), ErrNoCode(ENODEV),
               "[fe80::1%nosuch0]");
  EXPECT_EQ(Text(address), "9.9.9.9");
}

TEST(ZuAddress, ShowsNoControlCharactersOfAStrangersText) {
  CZuIPAddr address;
  const CZuError error = zu::ParseAddress("1\r\n\x1b[2J%s%n", address);
  EXPECT_FAILS(error, Win32Code(87), "[1???[2J%s%n]");
  const CZuError longer = zu::ParseAddress(std::string(1000000, 'x'), address);
  EXPECT_LT(longer.AsString().size(), 1000u);
}

TEST(ZuAddress, ReadsAndWritesEndpoints) {
  static constexpr struct {
    const char* text;
    const char* canonical;
  } kCases[] = {
      {"1.2.3.4:80", "1.2.3.4:80"},         {"1.2.3.4:0", "1.2.3.4:0"},
      {"[::1]:65535", "[::1]:65535"},       {"[2001:DB8::0]:1", "[2001:db8::]:1"},
      {"[fe80::1%lo]:7", "[fe80::1%lo]:7"}, {"[::ffff:1.2.3.4]:7", "[::ffff:1.2.3.4]:7"},
  };
  for (const auto& c : kCases) {
    CZuIPAddr endpoint;
    ASSERT_OK(zu::ParseEndpoint(c.text, endpoint)) << c.text;
    EXPECT_EQ(zu::FormatEndpoint(endpoint), c.canonical);
  }
  static constexpr const char* kBad[] = {
      "",
      "1.2.3.4",
      "1.2.3.4:",
      "1.2.3.4:65536",
      "1.2.3.4:-1",
      "1.2.3.4:+1",
      "1.2.3.4:080",
      "1.2.3.4: 80",
      "1.2.3.4:80 ",
      "1.2.3.4:0x50",
      "::1:80",
      "[1.2.3.4]:80",
      "[::1]80",
      "[::1]",
      "[::1:80",
      "::1]:80",
      "[]:80",
      ":80",
      "name:80",
      "[name]:80",
      "1.2.3.4:99999999999999999999",
      "[[::1]]:80",
  };
  for (const char* text : kBad) {
    CZuIPAddr endpoint = Address("9.9.9.9", 9);
    EXPECT_FAILS(zu::ParseEndpoint(text, endpoint), Win32Code(87), "[") << text;
    EXPECT_EQ(zu::FormatEndpoint(endpoint), "9.9.9.9:9") << text;
  }
}

TEST(ZuAddress, TakesHostAndPortApart) {
  static constexpr struct {
    const char* text;
    const char* host;
    int port;
  } kCases[] = {
      {"localhost", "localhost", -1},
      {"localhost:80", "localhost", 80},
      {"1.2.3.4", "1.2.3.4", -1},
      {"1.2.3.4:0", "1.2.3.4", 0},
      {"::1", "::1", -1},
      {"[::1]", "::1", -1},
      {"[::1]:443", "::1", 443},
      {"fe80::1%lo", "fe80::1%lo", -1},
      {"[fe80::1%lo]:5", "fe80::1%lo", 5},
      {"b\xC3\xBC.example:1", "b\xC3\xBC.example", 1},
  };
  for (const auto& c : kCases) {
    std::string host = "wrong";
    int port = 12345;
    ASSERT_OK(zu::SplitHostPort(c.text, host, port)) << c.text;
    EXPECT_EQ(host, c.host) << c.text;
    EXPECT_EQ(port, c.port) << c.text;
  }
  static constexpr std::string_view kBad[] = {
      "",       ":",         ":80",    "host:",     "host:http", "host:65536", "host:080",
      "a:b:c",  "::1:99999", "[::1",   "[::1]:",    "[::1]x",    "[::1]80",    "[1.2.3.4]",
      "[name]", "ho st",     "host\n", "\thost:80", "host\0"sv,  "[]:80",      "[]",
  };
  for (const std::string_view text : kBad) {
    std::string host = "untouched";
    int port = 7;
    EXPECT_FAILS(zu::SplitHostPort(text, host, port), Win32Code(87), "[") << text;
    EXPECT_EQ(host, "untouched") << text;
    EXPECT_EQ(port, 7) << text;
  }
}

TEST(ZuAddress, WithoutAFamilyHasNoText) {
  const CZuIPAddr none = ZUNET_SockAddr{};
  EXPECT_EQ(zu::Format(none), "");
  EXPECT_EQ(zu::FormatEndpoint(none), "");
}

TEST(ZuAddress, HasItsNumberWhereTheInterfaceIsGone) {
  EXPECT_EQ(zu::Format(Scoped("fe80::1", 4000000)), "fe80::1%4000000");
  EXPECT_EQ(zu::Format(Scoped("2001:db8::1", 4000000)), "2001:db8::1");
}

TEST(ZuAddress, AnyIsOfItsFamily) {
  EXPECT_EQ(zu::FormatEndpoint(zu::AnyAddress(CZuIPAddr::FAMILY_IPV4, 80)), "0.0.0.0:80");
  EXPECT_EQ(zu::FormatEndpoint(zu::AnyAddress(CZuIPAddr::FAMILY_IPV6, 0)), "[::]:0");
  EXPECT_EQ(zu::FormatEndpoint(zu::AnyAddress(CZuIPAddr::FAMILY_ANY, 1)), "[::]:1");
}

TEST(ZuAddress, ThatIsMappedIsUnmappedWithItsPort) {
  EXPECT_EQ(zu::FormatEndpoint(zu::Unmapped(Address("::ffff:1.2.3.4", 80))), "1.2.3.4:80");
  EXPECT_EQ(zu::FormatEndpoint(zu::Unmapped(Address("::1.2.3.4", 80))), "[::102:304]:80");
  EXPECT_EQ(zu::FormatEndpoint(zu::Unmapped(Address("1.2.3.4", 80))), "1.2.3.4:80");
  EXPECT_EQ(zu::Format(zu::Unmapped(ZUNET_SockAddr{})), "");
}

// In the columns: loopback, private, link-local, multicast, global.
TEST(ZuAddress, IsOfTheKindsThatTheRegistriesSay) {
  static constexpr struct {
    const char* text;
    const char* kinds;
  } kCases[] = {
      {"127.0.0.1", "L...."},
      {"127.255.255.255", "L...."},
      {"128.0.0.1", "....G"},
      {"::1", "L...."},
      {"::2", "....."},
      {"::ffff:127.0.0.1", "L...."},
      {"10.0.0.0", ".P..."},
      {"10.255.255.255", ".P..."},
      {"11.0.0.0", "....G"},
      {"172.15.255.255", "....G"},
      {"172.16.0.0", ".P..."},
      {"172.31.255.255", ".P..."},
      {"172.32.0.0", "....G"},
      {"192.168.0.0", ".P..."},
      {"192.169.0.0", "....G"},
      {"::ffff:10.1.1.1", ".P..."},
      {"fc00::1", ".P..."},
      {"fdff::1", ".P..."},
      {"fe00::1", "....."},
      {"169.254.0.1", "..K.."},
      {"169.255.0.1", "....G"},
      {"fe80::1", "..K.."},
      {"febf::1", "..K.."},
      {"fec0::1", "....."},
      {"::ffff:169.254.1.1", "..K.."},
      {"223.255.255.255", "....G"},
      {"224.0.0.1", "...M."},
      {"239.255.255.255", "...M."},
      {"240.0.0.0", "....."},
      {"255.255.255.255", "....."},
      {"ff02::1", "...M."},
      {"ff0e::1", "...M."},
      {"0.0.0.0", "....."},
      {"0.1.2.3", "....."},
      {"1.0.0.0", "....G"},
      {"100.63.255.255", "....G"},
      {"100.64.0.0", "....."},
      {"100.127.255.255", "....."},
      {"100.128.0.0", "....G"},
      {"192.0.0.8", "....."},
      {"192.0.0.9", "....G"},
      {"192.0.0.10", "....G"},
      {"192.0.0.11", "....."},
      {"192.0.1.0", "....G"},
      {"192.0.2.1", "....."},
      {"192.31.196.1", "....G"},
      {"198.17.255.255", "....G"},
      {"198.18.0.0", "....."},
      {"198.19.255.255", "....."},
      {"198.51.100.7", "....."},
      {"203.0.113.7", "....."},
      {"8.8.8.8", "....G"},
      {"::ffff:8.8.8.8", "....G"},
      {"::", "....."},
      {"2000::", "....G"},
      {"1fff::", "....."},
      {"4000::1", "....."},
      {"5f00::1", "....."},
      {"100::1", "....."},
      {"64:ff9b::808:808", "....G"},
      {"64:ff9b:1::1", "....."},
      {"64:ff9b::1:0:0", "....."},
      {"2001::1", "....."},
      {"2001:1::1", "....G"},
      {"2001:1::3", "....G"},
      {"2001:1::4", "....."},
      {"2001:3::1", "....G"},
      {"2001:4:112::1", "....G"},
      {"2001:4:113::1", "....."},
      {"2001:20::1", "....G"},
      {"2001:30::1", "....G"},
      {"2001:40::1", "....."},
      {"2001:200::1", "....G"},
      {"2001:db8::1", "....."},
      {"2001:db9::1", "....G"},
      {"2002::1", "....G"},
      {"2620:4f:8000::1", "....G"},
      {"3fff:fff::1", "....."},
      {"3fff:1000::1", "....G"},
      {"3ffe::1", "....G"},
  };
  for (const auto& c : kCases) {
    const CZuIPAddr address = Address(c.text);
    std::string kinds;
    kinds += zu::IsLoopback(address) ? 'L' : '.';
    kinds += zu::IsPrivate(address) ? 'P' : '.';
    kinds += zu::IsLinkLocal(address) ? 'K' : '.';
    kinds += zu::IsMulticast(address) ? 'M' : '.';
    kinds += zu::IsGlobal(address) ? 'G' : '.';
    EXPECT_EQ(kinds, c.kinds) << c.text;
  }
  const CZuIPAddr none = ZUNET_SockAddr{};
  EXPECT_FALSE(zu::IsLoopback(none) || zu::IsPrivate(none) || zu::IsLinkLocal(none) ||
               zu::IsMulticast(none) || zu::IsGlobal(none));
}

TEST(ZuAddress, KeysTellApartWhatTheirNamesSay) {
  static const struct {
    CZuIPAddr a, b;
    bool sameAddress, sameEndpoint;
  } kCases[] = {
      {Address("1.2.3.4", 80), Address("1.2.3.4", 80), true, true},
      {Address("1.2.3.4", 80), Address("1.2.3.4", 81), true, false},
      {Address("1.2.3.4", 80), Address("1.2.3.5", 80), false, false},
      {Address("1.2.3.4", 80), Address("::ffff:1.2.3.4", 80), false, false},
      {Address("::1", 80), Address("::1", 80), true, true},
      {Address("::1", 80), Address("::2", 80), false, false},
      {Address("1::", 80), Address("2::", 80), false, false},
      {Scoped("fe80::1", 1, 80), Scoped("fe80::1", 2, 80), true, false},
  };
  for (const auto& c : kCases) {
    const std::string name = zu::FormatEndpoint(c.a) + " and " + zu::FormatEndpoint(c.b);
    const bool ordered = zu::AddressLess()(c.a, c.b) || zu::AddressLess()(c.b, c.a);
    EXPECT_EQ(!ordered, c.sameAddress) << name;
    EXPECT_EQ(c.a == c.b, c.sameAddress) << name;
    EXPECT_EQ(zu::AddressHash()(c.a) == zu::AddressHash()(c.b), c.sameAddress) << name;
    const bool orderedPorts = zu::EndpointLess()(c.a, c.b) || zu::EndpointLess()(c.b, c.a);
    EXPECT_EQ(!orderedPorts, c.sameEndpoint) << name;
    EXPECT_EQ(zu::EndpointEqual()(c.a, c.b), c.sameEndpoint) << name;
    EXPECT_EQ(zu::EndpointHash()(c.a) == zu::EndpointHash()(c.b), c.sameEndpoint) << name;
  }
}

TEST(ZuAddress, OrdersByFamilyThenByNumber) {
  static const CZuIPAddr kOrder[] = {
      Address("1.2.3.4", 9), Address("1.2.3.4", 10), Address("9.0.0.0"), Address("10.0.0.0"),
      Address("::"),         Address("::ffff:0:0"),  Address("1::")};
  for (std::size_t i = 1; i < std::size(kOrder); ++i) {
    EXPECT_TRUE(zu::EndpointLess()(kOrder[i - 1], kOrder[i])) << i;
    EXPECT_FALSE(zu::EndpointLess()(kOrder[i], kOrder[i - 1])) << i;
    EXPECT_FALSE(zu::EndpointLess()(kOrder[i], kOrder[i])) << i;
  }
}

TEST(ZuAddress, IsAKeyOfMaps) {
  std::unordered_map<CZuIPAddr, int, zu::EndpointHash, zu::EndpointEqual> clients;
  std::map<CZuIPAddr, int, zu::EndpointLess> ordered;
  std::unordered_set<CZuIPAddr, zu::AddressHash> hosts;
  for (int port = 1; port <= 1000; ++port) {
    clients[Address("192.0.2.1", port)] = port;
    ordered[Address("192.0.2.1", port)] = port;
    hosts.insert(Address("192.0.2.1", port));
  }
  EXPECT_EQ(clients.size(), 1000u);
  EXPECT_EQ(ordered.size(), 1000u);
  EXPECT_EQ(hosts.size(), 1u);
}

// Neighbours are what real keys are.
TEST(ZuAddress, HashesOfNeighboursSpread) {
  std::vector<int> buckets(256);
  for (int i = 0; i < 256 * 64; ++i) {
    const std::string text = "10.0." + std::to_string(i / 256) + "." + std::to_string(i % 256);
    ++buckets[zu::AddressHash()(Address(text)) % 256];
  }
  for (const int count : buckets) {
    EXPECT_GT(count, 16);
    EXPECT_LT(count, 160);
  }
}

}  // namespace
