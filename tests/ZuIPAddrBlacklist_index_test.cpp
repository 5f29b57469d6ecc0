#include <list>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "ZuNetwork/ZuIPAddrBlacklist.h"
#include "support/Expect.h"

namespace {

time_t gNow = 1'000'000;

CZuIPAddr Address(const char* text) {
  CZuIPAddr address;
  EXPECT_OK(address.SetAddressString(text)) << text;
  return address;
}

}  // namespace

extern "C" time_t time(time_t* out) noexcept {
  if (out != nullptr) *out = gNow;
  return gNow;
}

TEST(ZuIPAddrBlacklistIndex, KeepsCountOfManyAddressesThatComeAndGo) {
  constexpr int kPeriod = 100;
  constexpr unsigned kAddresses = 400;
  CZuIPAddrBlacklist list;
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
  CZuIPAddr out;
  CZuError error = list.GetFirstBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr);
  for (const auto& [which, added] : expected) {
    ASSERT_OK(error);
    EXPECT_TRUE(out == addresses[which]) << which;
    error = list.GetNextBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr);
  }
  EXPECT_FAILS(error, Win32Code(259), "End of blacklist reached");
}
