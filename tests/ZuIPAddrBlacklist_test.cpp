#include "ZuNetwork/ZuIPAddrBlacklist.h"

#include <cerrno>
#include <fstream>
#include <list>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "support/Expect.h"

namespace {
time_t gNow = 1'000'000;
}

extern "C" [[gnu::visibility("default")]] time_t time(time_t* out) noexcept {
  if (out != nullptr) *out = gNow;
  return gNow;
}

namespace {

CZuIPAddr Address(const char* text) {
  CZuIPAddr address;
  EXPECT_OK(address.SetAddressString(text)) << text;
  return address;
}

class ZuIPAddrBlacklist : public testing::Test {
 protected:
  CZuIPAddrBlacklist list;
  CZuIPAddr address = Address("10.0.0.1");
  CZuIPAddr out;
  CZuString name;
  unsigned attempts = 99;
  time_t remaining = 99;
};

TEST_F(ZuIPAddrBlacklist, SaturatesAtTheGraceCount) {
  list.SetGraceAttempts(3);
  for (const unsigned expected : {1u, 2u, 3u, 3u}) {
    ASSERT_OK(list.AddAddressToBlacklist(address, "first"));
    EXPECT_EQ(list.IsAddressBlacklisted(address, &name, &attempts), expected == 3);
    EXPECT_EQ(attempts, expected);
    EXPECT_STREQ(name.c_str(), "first");
  }
}

TEST_F(ZuIPAddrBlacklist, ForgivesOneAttemptAPeriod) {
  list.SetGraceAttempts(2);
  list.SetExpirationTime(60);
  for (int i = 0; i < 2; ++i) ASSERT_OK(list.AddAddressToBlacklist(address));
  const time_t start = gNow;
  gNow = start + 60;
  EXPECT_TRUE(list.IsAddressBlacklisted(address, nullptr, nullptr));
  gNow = start + 61;
  EXPECT_FALSE(list.IsAddressBlacklisted(address, &name, &attempts));
  EXPECT_EQ(attempts, 1u);
  ASSERT_OK(list.GetFirstBlacklistEntry(out, nullptr, nullptr, nullptr, &remaining));
  EXPECT_EQ(remaining, 59);
  gNow = start + 121;
  EXPECT_FALSE(list.IsAddressBlacklisted(address, &name, &attempts));
  EXPECT_EQ(attempts, 0u);
  EXPECT_FAILS(list.GetFirstBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr), Win32Code(259),
               "End of blacklist reached");
}

TEST_F(ZuIPAddrBlacklist, RemovalUnderTheCursorEndsTheEnumeration) {
  list.SetExpirationTime(1);
  ASSERT_OK(list.AddAddressToBlacklist(Address("::1")));
  ASSERT_OK(list.AddAddressToBlacklist(address));
  ASSERT_OK(list.GetFirstBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr));
  gNow += 10;
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, nullptr));
  EXPECT_FAILS(list.GetNextBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr), Win32Code(259),
               "End of blacklist reached");
}

TEST_F(ZuIPAddrBlacklist, KeepsCountOfManyAddressesThatComeAndGo) {
  constexpr int kPeriod = 100;
  constexpr unsigned kAddresses = 400;
  list.SetExpirationTime(kPeriod);
  std::mt19937 random(1);
  std::vector<CZuIPAddr> addresses;
  for (unsigned i = 0; i < kAddresses; ++i) {
    addresses.push_back(Address(((i % 2 == 0 ? "10.0." : "2001:db8::") + std::to_string(i / 200) +
                                 (i % 2 == 0 ? "." : ":") + std::to_string(i % 200))
                                    .c_str()));
  }
  std::list<std::pair<unsigned, time_t>> expected;  // which, and when it was added last
  for (int step = 0; step < 20'000; ++step) {
    gNow += static_cast<time_t>(random() % 2);
    const auto which = static_cast<unsigned>(random() % kAddresses);
    auto entry = expected.begin();
    while (entry != expected.end() && entry->first != which) ++entry;
    if (random() % 3 == 0) {
      ASSERT_OK(list.AddAddressToBlacklist(addresses[which]));
      if (entry == expected.end()) entry = expected.insert(entry, {which, gNow});
      entry->second = gNow;
    } else {
      const bool isGone = entry == expected.end() || entry->second + kPeriod < gNow;
      ASSERT_EQ(list.IsAddressBlacklisted(addresses[which], nullptr, nullptr), !isGone) << step;
      if (isGone && entry != expected.end()) expected.erase(entry);
    }
  }
  ASSERT_GT(expected.size(), 50u);
  CZuError error = list.GetFirstBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr);
  for (const auto& [which, added] : expected) {
    ASSERT_OK(error);
    EXPECT_TRUE(out == addresses[which]) << which;
    error = list.GetNextBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr);
  }
  EXPECT_FAILS(error, Win32Code(259), "End of blacklist reached");
}

TEST_F(ZuIPAddrBlacklist, LastLineCountsTwice) {
  const std::string path = testing::TempDir() + "zu_blacklist";
  std::ofstream(path) << "no such name\n\n10.0.0.2\n127.0.53.53\n10.0.0.1\n";
  list.SetGraceAttempts(5);
  ASSERT_OK(list.LoadBlacklistFromFile(path.c_str()));
  list.IsAddressBlacklisted(address, nullptr, &attempts);
  EXPECT_EQ(attempts, 2u);
  list.IsAddressBlacklisted(Address("10.0.0.2"), nullptr, &attempts);
  EXPECT_EQ(attempts, 1u);
  std::remove(path.c_str());
}

TEST_F(ZuIPAddrBlacklist, ReportsFilesThatCannotBeRead) {
  EXPECT_FAILS(list.LoadBlacklistFromFile("/no/such/file"), Win32Code(ENOENT),
               "Failed to open file, FileName=/no/such/file");
  EXPECT_FAILS(list.LoadBlacklistFromFile("/"), Win32Code(EISDIR),
               "Failed to read file, FileName=/");
}

}  // namespace
