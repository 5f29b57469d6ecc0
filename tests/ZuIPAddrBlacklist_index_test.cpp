#include <malloc.h>
#include <sys/random.h>

#include <cerrno>
#include <cstring>
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

bool gHasNoKey = false;  // the system draws none

// Shows how the index finds its entries.
class Probe : public CZuIPAddrBlacklist {
 public:
  // The places that are looked at to find every entry once.
  std::size_t Steps() const {
    const std::size_t mask = m_index.size() - 1;
    std::size_t steps = 0;
    for (std::size_t place = 0; place < m_index.size(); ++place) {
      if (m_index[place].hash != 0) steps += ((place - m_index[place].hash) & mask) + 1;
    }
    return steps;
  }

  std::size_t Entries() const { return m_blacklist.size(); }
  const Key& GetKey() const { return m_key; }
  void UseKeyOf(const Probe& other) { m_key = other.m_key; }

  // The addresses that meet in the first places of an index with this key, if it has 8,192 of them.
  std::vector<CZuIPAddr> AddressesThatMeet() const {
    std::vector<CZuIPAddr> found;
    for (const Slot& slot : m_index) {
      if (slot.hash == 0) continue;
      if (slot.hash % 8192 < 128) found.push_back(slot.Entry()->m_addr);
    }
    return found;
  }
};

CZuIPAddr V6Address(std::uint64_t high, std::uint64_t low) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  const std::uint64_t words[] = {htobe64(high), htobe64(low)};
  std::memcpy(&address.sin6_addr, words, sizeof words);
  return address;
}

CZuIPAddr V4Address(std::uint32_t number) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(number);
  return address;
}

std::size_t StepsOf(const std::vector<CZuIPAddr>& addresses, Probe& list) {
  for (const CZuIPAddr& address : addresses) EXPECT_OK(list.AddAddressToBlacklist(address));
  EXPECT_EQ(list.Entries(), addresses.size());
  return list.Steps();
}

std::size_t StepsOf(const std::vector<CZuIPAddr>& addresses) {
  Probe list;
  return StepsOf(addresses, list);
}

constexpr std::uint32_t kMany = 50'000;

std::size_t StepsOfRandomAddresses(std::size_t count) {
  std::mt19937_64 random(7);
  std::vector<CZuIPAddr> addresses;
  for (std::size_t i = 0; i < count; ++i) addresses.push_back(V6Address(random(), random()));
  return StepsOf(addresses);
}

}  // namespace

extern "C" ssize_t getrandom(void* buffer, size_t size, unsigned flags) {
  if (gHasNoKey) {
    errno = ENOSYS;
    return -1;
  }
  return getentropy(buffer, size) == 0 && flags == GRND_NONBLOCK ? static_cast<ssize_t>(size) : -1;
}

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

// Families of addresses as an attacker, or a network, would have them.
TEST(ZuIPAddrBlacklistIndex, PatternsTakeNoMoreStepsThanRandomAddresses) {
  const std::size_t random = StepsOfRandomAddresses(kMany);
  const struct {
    const char* name;
    CZuIPAddr (*address)(std::uint32_t i);
  } patterns[] = {
      {"one /64, counted", [](std::uint32_t i) { return V6Address(0x20010DB8, i); }},
      {"one /64, counted in the high half",
       [](std::uint32_t i) { return V6Address(0x20010DB8, std::uint64_t{i} << 32); }},
      {"one /64, highest bits",
       [](std::uint32_t i) { return V6Address(1, std::uint64_t{i} << 48); }},
      {"many networks, one host", [](std::uint32_t i) { return V6Address(i, 1); }},
      {"many networks, high bits",
       [](std::uint32_t i) { return V6Address(std::uint64_t{i} << 48, 1); }},
      {"both halves alike", [](std::uint32_t i) { return V6Address(i, i); }},
      {"both halves against each other",
       [](std::uint32_t i) { return V6Address(i, ~std::uint64_t{i}); }},
      {"IPv4, counted", [](std::uint32_t i) { return V4Address(i); }},
      {"IPv4, in steps of 65,536", [](std::uint32_t i) { return V4Address(i << 16 | i >> 16); }},
      {"IPv4, in steps of 256", [](std::uint32_t i) { return V4Address(i << 8); }},
  };
  for (const auto& pattern : patterns) {
    std::vector<CZuIPAddr> addresses;
    for (std::uint32_t i = 0; i < kMany; ++i) addresses.push_back(pattern.address(i));
    EXPECT_LT(StepsOf(addresses), 3 * random) << pattern.name;
  }
}

// Whoever knows the hash, but not the key, can only choose against a key of his own.
TEST(ZuIPAddrBlacklistIndex, AddressesChosenAgainstOneKeyAreOrdinaryForAnother) {
  Probe known;
  for (std::uint32_t i = 0; i < 7 * kMany; ++i) {
    ASSERT_OK(known.AddAddressToBlacklist(V6Address(0x20010DB8, i)));
  }
  const std::vector<CZuIPAddr> chosen = known.AddressesThatMeet();
  ASSERT_GT(chosen.size(), kMany / 20);

  const std::size_t random = StepsOfRandomAddresses(chosen.size());
  EXPECT_LT(StepsOf(chosen), 3 * random);
  Probe attacked;
  attacked.UseKeyOf(known);
  EXPECT_GT(StepsOf(chosen, attacked), 30 * random) << "with the key they do meet";
}

TEST(ZuIPAddrBlacklistIndex, EveryObjectHasAKeyOfItsOwn) {
  for (const bool hasNoKey : {false, true}) {
    gHasNoKey = hasNoKey;
    const Probe first;
    const Probe second;
    gHasNoKey = false;
    EXPECT_NE(first.GetKey(), second.GetKey()) << hasNoKey;
    for (const std::uint64_t word : first.GetKey()) EXPECT_NE(word, 0u) << hasNoKey;
  }
}

TEST(ZuIPAddrBlacklistIndex, WorksWithoutAKeyOfTheSystem) {
  gHasNoKey = true;
  const std::size_t steps = StepsOfRandomAddresses(kMany);
  gHasNoKey = false;
  EXPECT_LT(steps, 3 * StepsOfRandomAddresses(kMany));
}

// Of the heap, for an entry in the list and its place in the index.
TEST(ZuIPAddrBlacklistIndex, EntriesTakeLittleMemory) {
  for (const std::uint32_t count : {1'000u, 100'000u, 1'000'000u}) {
    const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
    CZuIPAddrBlacklist list;
    for (std::uint32_t i = 0; i < count; ++i) {
      ASSERT_OK(list.AddAddressToBlacklist(V4Address(i)));
    }
    const std::size_t after = mallinfo2().uordblks + mallinfo2().hblkhd;
    EXPECT_LE((after - before) / count, 170u) << count;
  }
}
