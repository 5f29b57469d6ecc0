// The masks and blocks of CIDR notation.

#include <algorithm>
#include <climits>
#include <cstring>

#include "ZuNetwork/ZuIPAddr.h"
#include "support/Addresses.h"
#include "support/Expect.h"
#include "support/Namespaces.h"

namespace {

// ---- Masks ----

std::string MaskText(int prefix) {
  std::string text;
  for (int octet = 0; octet < 4; ++octet) {
    const int bits = std::clamp(prefix - 8 * octet, 0, 8);
    text += std::to_string(256 - (1 << (8 - bits))) + (octet < 3 ? "." : "");
  }
  return text;
}

TEST(ZuIPAddrCidr, MakesTheMaskOfEveryPrefix) {
  for (int prefix = 1; prefix <= 32; ++prefix) {
    CZuIPAddr mask;
    EXPECT_OK(mask.SetSubnetMaskFromCIDRPrefix(prefix));
    EXPECT_EQ(Text(mask), MaskText(prefix)) << prefix;
    CZuString text = "untouched";
    EXPECT_OK(CZuIPAddr::ConvertCIDRPrefixToSubnetMaskString(prefix, text));
    EXPECT_EQ(text.c_str(), MaskText(prefix)) << prefix;
  }
  EXPECT_EQ(MaskText(1), "128.0.0.0");
  EXPECT_EQ(MaskText(23), "255.255.254.0");
  EXPECT_EQ(MaskText(24), "255.255.255.0");
  EXPECT_EQ(MaskText(32), "255.255.255.255");
}

TEST(ZuIPAddrCidr, AMaskLeavesThePortAndTheOtherBytes) {
  CZuIPAddr address = Address("2001:db8:1111:2222:3333:4444:5555:6666", 80);
  CZuIPAddr expected = address;
  expected.m_Addr.addr.v4.sin_family = AF_INET;
  expected.m_Addr.addr.v4.sin_addr = V4("255.255.240.0").sin_addr;
  ASSERT_OK(address.SetSubnetMaskFromCIDRPrefix(20));
  EXPECT_EQ(std::memcmp(&address.m_Addr, &expected.m_Addr, sizeof expected), 0);
  EXPECT_EQ(address.GetPortNumber(), 80);
}

TEST(ZuIPAddrCidr, IgnoresPrefixesThatMakeNoMask) {
  for (const int prefix : {0, -1, 33, 64, INT_MIN, INT_MAX}) {
    for (const CZuIPAddr& before : {CZuIPAddr(), Address("10.1.2.3", 80), Address("::1", 80)}) {
      CZuIPAddr address = before;
      EXPECT_OK(address.SetSubnetMaskFromCIDRPrefix(prefix));
      EXPECT_EQ(std::memcmp(&address.m_Addr, &before.m_Addr, sizeof before), 0) << prefix;
    }
    CZuString text = "untouched";
    EXPECT_OK(CZuIPAddr::ConvertCIDRPrefixToSubnetMaskString(prefix, text));
    EXPECT_STREQ(text.c_str(), "") << prefix;
  }
}

// ---- Blocks ----

struct Block {
  const char* address;
  const char* block;
  bool within;
};

void ExpectAnswers(const std::vector<Block>& blocks) {
  for (const Block& test : blocks) {
    bool within = !test.within;
    EXPECT_OK(CZuIPAddr::CheckIfIpv4AddressIsWithinCidrBlock(test.address, test.block, within));
    EXPECT_EQ(within, test.within) << test.address << " in " << test.block;
  }
}

TEST(ZuIPAddrCidr, FindsAddressesInBlocks) {
  ExpectAnswers({
      {"192.168.1.77", "192.168.1.0/24", true},
      {"192.168.2.1", "192.168.1.0/24", false},
      {"192.168.1.77", "192.168.1.99/24", true},
      {"10.1.2.3", "10.1.2.3/32", true},
      {"10.1.2.2", "10.1.2.3/32", false},
      {"10.1.2.2", "10.1.2.3/31", true},
      {"127.255.255.255", "0.0.0.0/1", true},
      {"128.0.0.0", "0.0.0.0/1", false},
      {"10.127.0.1", "10.64.0.0/10", true},
      {"10.128.0.1", "10.64.0.0/10", false},
  });
}

TEST(ZuIPAddrCidr, APrefixThatMakesNoMaskTakesInEveryAddress) {
  ExpectAnswers({
      {"8.8.8.8", "192.168.1.0/0", true},
      {"8.8.8.8", "192.168.1.0/33", true},
      {"8.8.8.8", "192.168.1.0/40", true},
      {"8.8.8.8", "192.168.1.0/-8", true},
      {"8.8.8.8", "192.168.1.0/", true},
      {"8.8.8.8", "192.168.1.0/x8", true},
      {"8.8.8.8", "192.168.1.0//8", true},
      {"8.8.8.8", "192.168.1.0/99999999999999999999", true},
      {"8.8.8.8", "192.168.1.0/-99999999999999999999", true},
      {"8.8.8.8", "192.168.1.0/4294967304", true},  // 2^32 + 8: no wrapping
  });
}

TEST(ZuIPAddrCidr, ReadsAPrefixUpToWhatIsNoDigit) {
  ExpectAnswers({
      {"10.9.9.9", "10.0.0.0/8x", true},
      {"11.9.9.9", "10.0.0.0/8x", false},
      {"11.9.9.9", "10.0.0.0/ 8", false},
      {"11.9.9.9", "10.0.0.0/+8", false},
      {"10.9.9.9", "10.0.0.0/8.9", true},
      {"11.9.9.9", "10.0.0.0/008", false},
  });
}

TEST(ZuIPAddrCidr, IgnoresWhatFollowsASecondSlash) {
  ExpectAnswers({
      {"10.9.9.9", "10.0.0.0/8/x", true},
      {"11.9.9.9", "10.0.0.0/8/x", false},
      {"11.9.9.9", "10.0.0.0/8/0/0", false},
      {"10.9.9.9", "10.0.0.0/8/", true},
  });
}

TEST(ZuIPAddrCidr, AnAddressThatCannotBeReadCountsAsTheClearedOne) {
  ExpectAnswers({
      {"nonsense", "0.0.0.0/8", true},
      {"nonsense", "10.0.0.0/8", false},
      {"", "0.0.0.0/32", true},
      {"127.0.53.53", "127.0.0.0/8", true},  // refused as a text, yet read
      {"127.0.53.53", "10.0.0.0/8", false},
  });
}

TEST(ZuIPAddrCidr, ComparesTheFlowInformationOfV6Texts) {
  ExpectAnswers({
      {"2001:db8::1", "0.0.0.0/8", true},
      {"2001:db8::1", "10.0.0.0/8", false},
      {"0.1.2.3", "2001:db8::/8", true},
      {"10.1.2.3", "2001:db8::/8", false},
      {"2001:db8::1", "3001::/32", true},
  });
}

TEST(ZuIPAddrCidr, RefusesBlocksWithoutAPrefix) {
  for (const char* block : {"192.168.1.0", "", "nonsense", "192.168.1.0\\24"}) {
    for (const bool preset : {false, true}) {
      bool within = preset;
      const CZuError error =
          CZuIPAddr::CheckIfIpv4AddressIsWithinCidrBlock("1.1.1.1", block, within);
      const std::string text = "Invalid CIDR block: [" + std::string(block) + "].";
      EXPECT_FAILS(error, Win32Code(87), text.c_str());
      EXPECT_EQ(within, preset) << block;
    }
  }
}

TEST(ZuIPAddrCidr, RefusesBlocksWhoseNetworkCannotBeRead) {
  for (const char* block : {"nonsense/8", "/8", "/", "10.0.0.256/8", "127.0.53.53/8"}) {
    for (const bool preset : {false, true}) {
      bool within = preset;
      const CZuError error =
          CZuIPAddr::CheckIfIpv4AddressIsWithinCidrBlock("1.1.1.1", block, within);
      EXPECT_FAILS(error, ErrNoCode(EAI_NONAME), "CZuIPAddr::SetAddressString") << block;
      EXPECT_THAT(error.AsString(), testing::HasSubstr("CheckIfIpv4AddressIsWithinCidrBlock"))
          << block;
      EXPECT_EQ(within, preset) << block;
    }
  }
}

TEST(ZuIPAddrCidr, GivesPrefixesThatMakeNoMaskTheTextOfTheClearedAddress) {
  const struct {
    int family;
    const char* text;
  } kCases[] = {{AF_INET, "0.0.0.0"}, {AF_INET6, "::"}, {7, ""}};
  for (const auto& test : kCases) {
    namespaces::RunInChild([&test] {
      ZUNET_SetFamilyPreference(test.family);
      CZuString text = "untouched";
      EXPECT_OK(CZuIPAddr::ConvertCIDRPrefixToSubnetMaskString(33, text));
      EXPECT_STREQ(text.c_str(), test.text);
      EXPECT_OK(CZuIPAddr::ConvertCIDRPrefixToSubnetMaskString(8, text));
      EXPECT_STREQ(text.c_str(), "255.0.0.0");
    });
  }
}

TEST(ZuIPAddrCidr, TakesNoNoticeOfThePreferredFamilyInBlocks) {
  namespaces::RunInChild([] {
    ZUNET_SetFamilyPreference(AF_INET6);
    ExpectAnswers({{"nonsense", "0.0.0.0/8", true},
                   {"nonsense", "10.0.0.0/8", false},
                   {"8.8.8.8", "10.0.0.0/0", true},
                   {"10.1.1.1", "10.0.0.0/8", true}});
  });
}

}  // namespace
