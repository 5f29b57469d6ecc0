#include "ZuNetwork/ZuIPAddr.h"

#include <cerrno>

#include "support/Expect.h"

namespace {

CZuIPAddr Address(const char* text) {
  CZuIPAddr address;
  EXPECT_OK(address.SetAddressString(text)) << text;
  return address;
}

std::string Text(const CZuIPAddr& address) {
  CZuString text = "untouched";
  EXPECT_OK(address.GetAddressString(text));
  return text.c_str();
}

TEST(ZuIPAddr, DefaultValueHasNoFamily) {
  CZuIPAddr address;
  EXPECT_FAILS(address.SetPortNumber(80), Win32Code(774), "Address family not set");
  EXPECT_EQ(address.GetPortNumber(), 0);
}

TEST(ZuIPAddr, ComparesFamilyAndAddressOnly) {
  CZuIPAddr one = Address("10.1.2.3");
  CZuIPAddr other = Address("10.1.2.3");
  ASSERT_OK(one.SetPortNumber(80));
  ASSERT_OK(other.SetPortNumber(443));
  EXPECT_TRUE(one == other);
  EXPECT_FALSE(one == Address("::ffff:10.1.2.3"));
}

TEST(ZuIPAddr, TakesTheLow16BitsOfAPort) {
  CZuIPAddr address = Address("10.1.2.3");
  ASSERT_OK(address.SetPortNumber(-1));
  EXPECT_EQ(address.GetPortNumber(), 65535);
  ASSERT_OK(address.SetPortNumber(65536));
  EXPECT_EQ(address.GetPortNumber(), 0);
}

TEST(ZuIPAddr, ChecksBlocks) {
  const struct {
    const char* address;
    const char* block;
    bool within;
  } kCases[] = {
      {"192.168.1.77", "192.168.1.0/24", true}, {"192.168.2.1", "192.168.1.0/24", false},
      {"8.8.8.8", "192.168.1.0/0", true},       {"8.8.8.8", "192.168.1.0/40", true},
      {"10.9.9.9", "10.0.0.0/8/x", true},       {"8.8.8.8", "10.0.0.0/99999999999999999999", true},
      {"nonsense", "0.0.0.0/8", true},
  };
  for (const auto& test : kCases) {
    bool within = !test.within;
    EXPECT_OK(CZuIPAddr::CheckIfIpv4AddressIsWithinCidrBlock(test.address, test.block, within));
    EXPECT_EQ(within, test.within) << test.address << " in " << test.block;
  }
  bool within = true;
  EXPECT_FAILS(CZuIPAddr::CheckIfIpv4AddressIsWithinCidrBlock("1.1.1.1", "192.168.1.0", within),
               Win32Code(87), "Invalid CIDR block: [192.168.1.0].");
}

TEST(ZuIPAddr, ResolvesAndRefusesCollisions) {
  CZuIPAddr address;
  ASSERT_OK(CZuIPAddr::GetByName("localhost", address, CZuIPAddr::FAMILY_IPV4));
  EXPECT_EQ(Text(address), "127.0.0.1");
  EXPECT_FAILS(CZuIPAddr::GetByName("127.0.53.53", address, CZuIPAddr::FAMILY_ANY), 0xFFFFFFFE,
               "DNS name collision occured");
  EXPECT_EQ(Text(address), "127.0.53.53");
  std::vector<CZuIPAddr> list;
  EXPECT_FAILS(CZuIPAddr::GetAllByName("127.0.53.53", list, CZuIPAddr::FAMILY_ANY), 0xFFFFFFFE,
               "DNS name collision occured");
  EXPECT_TRUE(list.empty());
  EXPECT_FAILS(CZuIPAddr::GetByName(nullptr, address, CZuIPAddr::FAMILY_ANY), Win32Code(87),
               "Null parameter passed");
}

TEST(ZuIPAddr, MasksAreTexts) {
  CZuString text;
  EXPECT_OK(CZuIPAddr::ConvertCIDRPrefixToSubnetMaskString(24, text));
  EXPECT_STREQ(text.c_str(), "255.255.255.0");
  EXPECT_OK(CZuIPAddr::ConvertCIDRPrefixToSubnetMaskString(33, text));
  EXPECT_STREQ(text.c_str(), "");
}

TEST(ZuIPAddr, KnowsTheMachine) {
  bool present = false;
  ASSERT_OK(CZuIPAddr::IsIPv4StackPresent(present));
  EXPECT_TRUE(present);
  bool bindable = true;
  EXPECT_FAILS(CZuIPAddr::IsAddrBindable(Address("203.0.113.9"), bindable),
               ErrNoCode(EADDRNOTAVAIL), "IsAddrBindable");
  EXPECT_FALSE(bindable);
  GetAllInterfacesArgs_t args{false, true};
  GetAllInterfacesRet_t found;
  ASSERT_OK(CZuIPAddr::GetAllInterfaces(args, found, CZuIPAddr::FAMILY_ANY));
  EXPECT_TRUE(args.getIPList);
  EXPECT_FALSE(found.ipListsa.empty());
}

TEST(ZuIPAddr, PairsLoopbackWithItsNetwork) {
  std::vector<std::pair<CZuIPAddr, CZuIPAddr>> pairs;
  ASSERT_OK(CZuIPAddr::GetIFList(pairs, CZuIPAddr::FAMILY_IPV4));
  bool found = false;
  for (const auto& [address, network] : pairs) {
    if (Text(address) != "127.0.0.1") continue;
    found = true;
    EXPECT_EQ(Text(network), "127.0.0.0");
  }
  EXPECT_TRUE(found);
  std::vector<std::string> macs;
  EXPECT_OK(CZuIPAddr::GetMACList(macs, CZuIPAddr::FAMILY_ANY));
  for (const std::string& mac : macs) EXPECT_EQ(mac.size(), 17u) << mac;
}

TEST(ZuIPAddr, LowersInPlace) {
  char text[] = "HOST.Example";
  EXPECT_EQ(strlwr(text), text);
  EXPECT_STREQ(text, "host.example");
}

}  // namespace
