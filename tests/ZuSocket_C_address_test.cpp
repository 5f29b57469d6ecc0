#include <cstring>

#include "support/Sockets.h"

namespace {

// ---- Comparing ----

struct Comparison {
  const char* left;
  const char* right;
  int bits;
  int expected;
};

TEST(ComparingAddresses, ComparesTheGivenBits) {
  const Comparison comparisons[] = {
      {"10.1.2.3", "10.1.200.1", 16, 1},
      {"10.1.2.3", "10.1.200.1", 17, 0},
      {"10.1.2.3", "10.1.200.1", 0, 0},
      {"10.1.2.3", "10.1.2.3", 0, 1},
      {"10.1.2.3", "10.1.2.3", 31, 1},
      {"10.1.2.3", "10.1.2.2", 31, 1},
      {"10.1.2.3", "10.1.2.1", 31, 0},
      {"10.1.2.3", "10.1.2.1", 30, 1},
      {"10.1.2.3", "10.1.2.2", 32, 0},  // from 32 on the whole address
      {"10.1.2.3", "10.1.2.3", 32, 1},
      {"10.1.2.3", "10.1.2.2", 1000, 0},
      {"10.1.2.3", "10.1.2.3", 1000, 1},
      {"10.1.2.3", "10.1.2.2", -1, 0},
      {"10.1.2.3", "10.1.2.3", -1, 1},
      {"10.1.2.3", "10.1.2.2", -31, 0},
      {"10.1.2.3", "127.255.255.255", 1, 1},
      {"10.1.2.3", "128.1.2.3", 1, 0},
      {"10.1.2.3", "11.1.2.3", 7, 1},
      {"10.1.2.3", "11.1.2.3", 8, 0},
      {"10.1.2.3", "10.255.255.255", 8, 1},
      {"10.1.2.3", "10.129.2.3", 9, 0},
      {"10.1.2.3", "11.1.2.3", 16, 0},  // an earlier byte decides
      {"10.1.2.3", "11.1.2.3", 25, 0},
      {"10.1.2.0", "10.1.2.128", 24, 1},
      {"10.1.2.0", "10.1.2.128", 25, 0},
      {"2001:db8::1", "2001:db8::1", 0, 1},
      {"2001:db8::1", "2001:db8::2", 0, 0},
      {"2001:db8::1", "2001:db8::2", 126, 1},
      {"2001:db8::1", "2001:db8::3", 127, 0},
      {"2001:db8::2", "2001:db8::3", 127, 1},
      {"2001:db8::2", "2001:db8::3", 128, 0},
      {"2001:db8::2", "2001:db8::3", 1000, 0},
      {"2001:db8::2", "2001:db8::3", -1, 0},
      {"2001:db8::2", "2001:db8::2", -1, 1},
      {"2001:db8::1", "2001:db8:ffff::1", 32, 1},
      {"2001:db8::1", "2001:db8:ffff::1", 33, 0},
      {"2001:db8::1", "2001:db8:7fff::1", 33, 1},
      {"2001:db8::1", "2001:db8:8000::1", 33, 0},
      {"2001:db8::1", "3fff:ffff::1", 3, 1},
      {"2001:db8::1", "3fff:ffff::1", 4, 0},
      {"2001:db8::1", "a001:db8::1", 1, 0},
      {"2001:db8::1", "2001:db8:0:0:8000::1", 64, 1},
      {"2001:db8::1", "2001:db8:0:0:8000::1", 65, 0},
      {"10.1.2.3", "2001:db8::1", 0, 0},
      {"0.0.0.0", "::", 1, 0},
      {"127.0.0.1", "::ffff:127.0.0.1", 0, 0},
  };
  for (const Comparison& c : comparisons) {
    ZUNET_SockAddr left = SockAddr(c.left, 1);
    ZUNET_SockAddr right = SockAddr(c.right, 2);
    EXPECT_EQ(ZUNET_addrequal(&left, &right, c.bits, 0), c.expected)
        << c.left << " " << c.right << " " << c.bits;
    EXPECT_EQ(ZUNET_addrequal(&right, &left, c.bits, 0), c.expected)
        << c.right << " " << c.left << " " << c.bits;
  }
}

TEST(ComparingAddresses, EveryBitOfTheAddressCountsFromItsPlaceOn) {
  for (const Loopback& loopback : kLoopbacks) {
    const int width = loopback.family == AF_INET ? 32 : 128;
    for (int bit = 0; bit < width; ++bit) {
      ZUNET_SockAddr left = SockAddr(loopback.text);
      ZUNET_SockAddr right = left;
      auto* const bytes = loopback.family == AF_INET
                              ? reinterpret_cast<unsigned char*>(&right.addr.v4.sin_addr)
                              : reinterpret_cast<unsigned char*>(&right.addr.v6.sin6_addr);
      bytes[bit / 8] = static_cast<unsigned char>(bytes[bit / 8] ^ (0x80 >> (bit % 8)));
      for (int bits = 1; bits <= width; ++bits) {
        ASSERT_EQ(ZUNET_addrequal(&left, &right, bits, 0), bits <= bit ? 1 : 0)
            << loopback.text << " bit " << bit << " of " << bits;
      }
      EXPECT_EQ(ZUNET_addrequal(&left, &right, 0, 0), 0) << bit;
    }
  }
}

TEST(ComparingAddresses, PortsCountOnDemand) {
  for (const Loopback& loopback : kLoopbacks) {
    ZUNET_SockAddr left = SockAddr(loopback.text, 80);
    ZUNET_SockAddr same = left;
    ZUNET_SockAddr other = SockAddr(loopback.text, 81);
    for (const int bits : {0, 8, 24}) {
      EXPECT_EQ(ZUNET_addrequal(&left, &other, bits, 0), 1) << bits;
      EXPECT_EQ(ZUNET_addrequal(&left, &other, bits, 1), 0) << bits;
      EXPECT_EQ(ZUNET_addrequal(&left, &other, bits, -1), 0) << bits;
      EXPECT_EQ(ZUNET_addrequal(&left, &same, bits, 1), 1) << bits;
    }
  }
}

TEST(ComparingAddresses, ScopeFlowAndPaddingNeverCount) {
  ZUNET_SockAddr left = SockAddr("fe80::1");
  ZUNET_SockAddr right = left;
  right.addr.v6.sin6_scope_id = 7;
  right.addr.v6.sin6_flowinfo = 9;
  EXPECT_EQ(ZUNET_addrequal(&left, &right, 0, 1), 1);
  EXPECT_EQ(ZUNET_addrequal(&left, &right, 127, 1), 1);
  left = right = SockAddr("10.1.2.3");
  std::memset(right.addr.v4.sin_zero, 0xEE, sizeof right.addr.v4.sin_zero);
  EXPECT_EQ(ZUNET_addrequal(&left, &right, 0, 1), 1);
}

TEST(ComparingAddresses, PointersAreComparedFirst) {
  ZUNET_SockAddr address = SockAddr("10.1.2.3");
  EXPECT_EQ(ZUNET_addrequal(&address, &address, 0, 1), 1);
  EXPECT_EQ(ZUNET_addrequal(nullptr, nullptr, 0, 0), 1);
  EXPECT_EQ(ZUNET_addrequal(&address, nullptr, 0, 0), 0);
  EXPECT_EQ(ZUNET_addrequal(nullptr, &address, 0, 0), 0);
}

TEST(ComparingAddresses, AnyOtherFamilyIsComparedAsIPv6) {
  ZUNET_SockAddr left = SockAddr("2001:db8::1");
  ZUNET_SockAddr right = SockAddr("2001:db8::2");
  left.addr.f.family = right.addr.f.family = AF_UNSPEC;
  EXPECT_EQ(ZUNET_addrequal(&left, &right, 0, 0), 0);
  EXPECT_EQ(ZUNET_addrequal(&left, &right, 126, 0), 1);
  right.addr.f.family = AF_INET6;
  EXPECT_EQ(ZUNET_addrequal(&left, &right, 126, 0), 0);
}

// ---- Ports ----

TEST(Ports, LieInNetworkByteOrderBehindTheFamily) {
  const struct {
    int port;
    unsigned char high, low;
    int read;
  } cases[] = {{80, 0x00, 0x50, 80},
               {0, 0, 0, 0},
               {1, 0, 1, 1},
               {256, 1, 0, 256},
               {8080, 0x1F, 0x90, 8080},
               {65535, 0xFF, 0xFF, 65535},
               {65536 + 80, 0, 0x50, 80},
               {-1, 0xFF, 0xFF, 65535}};
  for (const Loopback& loopback : kLoopbacks) {
    for (const auto& c : cases) {
      ZUNET_SockAddr address = SockAddr(loopback.text, 4711);
      ZUNET_setport(&address, c.port);
      unsigned char bytes[sizeof address];
      std::memcpy(bytes, &address, sizeof bytes);
      EXPECT_EQ(bytes[2], c.high) << c.port;
      EXPECT_EQ(bytes[3], c.low) << c.port;
      EXPECT_EQ(ZUNET_getport(&address), c.read) << c.port;
      EXPECT_EQ(Text(address), loopback.text) << c.port;
    }
  }
}

// ---- Family preference ----

TEST(FamilyPreference, IsAnyUntilItIsSet) {
  InOwnProcess([] { EXPECT_EQ(ZUNET_GetFamilyPreference(), 0); });
}

TEST(FamilyPreference, TheFirstOneCounts) {
  for (const int first : {AF_INET6, AF_INET, 0, -5}) {
    InOwnProcess([first] {
      for (const int each : {first, AF_INET, AF_INET6, 0}) {
        ZUNET_SetFamilyPreference(each);
        EXPECT_EQ(ZUNET_GetFamilyPreference(), first) << each;
      }
    });
  }
}

}  // namespace
