#include "ZuNetwork/ZuIPAddrBlacklist.h"

#include <cerrno>
#include <ctime>
#include <limits>
#include <type_traits>
#include <vector>

#include "support/Expect.h"

namespace {
constexpr time_t kStart = 1'000'000;
time_t gNow = kStart;
}  // namespace

extern "C" time_t time(time_t* out) noexcept {
  if (out != nullptr) *out = gNow;
  return gNow;
}

namespace {

static_assert(!std::is_copy_constructible_v<CZuIPAddrBlacklist>);
static_assert(!std::is_copy_assignable_v<CZuIPAddrBlacklist>);

constexpr unsigned kUntouched = 99;
constexpr char kEnd[] = "End of blacklist reached";

CZuIPAddr Address(const char* text, int port = 0) {
  CZuIPAddr address;
  EXPECT_OK(address.SetAddressString(text)) << text;
  EXPECT_OK(address.SetPortNumber(port)) << text;
  return address;
}

CZuIPAddr NumberedAddress(unsigned number) {
  sockaddr_in v4{};
  v4.sin_family = AF_INET;
  v4.sin_addr.s_addr = htonl(0x0A000000u + number);
  return CZuIPAddr(v4);
}

std::string TextOf(const CZuIPAddr& address) {
  CZuString text;
  if (Failed(address.GetAddressString(text))) return "no address";
  return text.c_str();
}

class ZuIPAddrBlacklist : public testing::Test {
 protected:
  ZuIPAddrBlacklist() { gNow = kStart; }

  void Add(const CZuIPAddr& shunned, int times = 1) {
    for (int i = 0; i < times; ++i) ASSERT_OK(list.AddAddressToBlacklist(shunned));
  }

  std::vector<std::string> Entries() {
    std::vector<std::string> entries;
    CZuIPAddr entry;
    CZuError error = list.GetFirstBlacklistEntry(entry, nullptr, nullptr, nullptr, nullptr);
    while (!Failed(error)) {
      entries.push_back(TextOf(entry));
      error = list.GetNextBlacklistEntry(entry, nullptr, nullptr, nullptr, nullptr);
    }
    return entries;
  }

  CZuIPAddrBlacklist list;
  CZuIPAddr address = Address("10.0.0.1");
  CZuIPAddr out = Address("10.9.9.9");
  CZuString name = "before";
  unsigned attempts = kUntouched;
  time_t added = kUntouched;
  time_t remaining = kUntouched;
};

using Texts = std::vector<std::string>;

// ---- Counting ----

TEST_F(ZuIPAddrBlacklist, NodeIsEmptyAtFirst) {
  const CZuIPAddrBlacklistNode node;
  EXPECT_TRUE(node.m_addr == CZuIPAddr());
  EXPECT_TRUE(node.m_name.IsEmpty());
  EXPECT_EQ(node.m_timeAdded, 0);
}

TEST_F(ZuIPAddrBlacklist, UnknownAddressIsNotBlacklisted) {
  EXPECT_FALSE(list.IsAddressBlacklisted(address, &name, &attempts));
  EXPECT_STREQ(name.c_str(), "");
  EXPECT_EQ(attempts, 0u);
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, nullptr));
}

TEST_F(ZuIPAddrBlacklist, OneAttemptBlacklistsForEverByDefault) {
  Add(address);
  for (const time_t now : {kStart, kStart + 1, std::numeric_limits<time_t>::max(), time_t{0}}) {
    gNow = now;
    EXPECT_TRUE(list.IsAddressBlacklisted(address, &name, &attempts)) << now;
    EXPECT_EQ(attempts, 1u);
    EXPECT_STREQ(name.c_str(), "");
  }
}

TEST_F(ZuIPAddrBlacklist, GraceCountBlacklistsAndIsNotPassed) {
  list.SetGraceAttempts(3);
  for (const unsigned expected : {1u, 2u, 3u, 3u, 3u}) {
    ASSERT_OK(list.AddAddressToBlacklist(address, "first"));
    EXPECT_EQ(list.IsAddressBlacklisted(address, &name, &attempts), expected == 3);
    EXPECT_EQ(attempts, expected);
    EXPECT_STREQ(name.c_str(), "first") << "known also below the grace count";
  }
}

TEST_F(ZuIPAddrBlacklist, GraceCountIsNotAppliedToCountsThatAreThere) {
  list.SetGraceAttempts(5);
  Add(address, 4);
  list.SetGraceAttempts(2);
  EXPECT_TRUE(list.IsAddressBlacklisted(address, nullptr, &attempts));
  EXPECT_EQ(attempts, 4u);
  Add(address);
  EXPECT_TRUE(list.IsAddressBlacklisted(address, nullptr, &attempts));
  EXPECT_EQ(attempts, 2u) << "the next attempt applies it";
  list.SetGraceAttempts(3);
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, nullptr));
}

TEST_F(ZuIPAddrBlacklist, GraceOfNoneStillCountsTheFirstAttempt) {
  list.SetGraceAttempts(0);
  Add(address);
  EXPECT_TRUE(list.IsAddressBlacklisted(address, nullptr, &attempts));
  EXPECT_EQ(attempts, 1u);
  Add(address);
  EXPECT_TRUE(list.IsAddressBlacklisted(address, nullptr, &attempts));
  EXPECT_EQ(attempts, 0u);
}

TEST_F(ZuIPAddrBlacklist, LargestGraceCountIsNeverReached) {
  list.SetGraceAttempts(std::numeric_limits<unsigned>::max());
  Add(address, 1000);
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, &attempts));
  EXPECT_EQ(attempts, 1000u);
}

TEST_F(ZuIPAddrBlacklist, NameOfTheFirstAttemptStays) {
  ASSERT_OK(list.AddAddressToBlacklist(address, "old"));
  ASSERT_OK(list.AddAddressToBlacklist(address, "new"));
  ASSERT_OK(list.AddAddressToBlacklist(address));
  EXPECT_TRUE(list.IsAddressBlacklisted(address, &name, nullptr));
  EXPECT_STREQ(name.c_str(), "old");
  const CZuIPAddr unnamed = Address("10.0.0.2");
  Add(unnamed);
  ASSERT_OK(list.AddAddressToBlacklist(unnamed, "late"));
  EXPECT_TRUE(list.IsAddressBlacklisted(unnamed, &name, nullptr));
  EXPECT_STREQ(name.c_str(), "");
}

TEST_F(ZuIPAddrBlacklist, LongNamesAreKept) {
  const std::string text(5000, 'n');
  ASSERT_OK(list.AddAddressToBlacklist(address, text.c_str()));
  EXPECT_TRUE(list.IsAddressBlacklisted(address, &name, nullptr));
  EXPECT_EQ(name.c_str(), text);
}

TEST_F(ZuIPAddrBlacklist, PortsDoNotCount) {
  list.SetGraceAttempts(9);
  for (const int port : {0, 80, 443, 65535}) Add(Address("10.0.0.1", port));
  for (const int port : {0, 80, 443, 65535}) Add(Address("2001:db8::1", port));
  EXPECT_EQ(Entries(), (Texts{"10.0.0.1", "2001:db8::1"}));
  list.IsAddressBlacklisted(Address("10.0.0.1", 7), nullptr, &attempts);
  EXPECT_EQ(attempts, 4u);
  list.IsAddressBlacklisted(Address("2001:db8::1", 7), nullptr, &attempts);
  EXPECT_EQ(attempts, 4u);
  ASSERT_OK(list.GetFirstBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(out.GetPortNumber(), 0) << "the first one's";
}

TEST_F(ZuIPAddrBlacklist, FamiliesAndScopesAreToldAsAddressesAre) {
  Add(Address("10.1.2.3"));
  EXPECT_FALSE(list.IsAddressBlacklisted(Address("::ffff:10.1.2.3"), nullptr, nullptr));
  EXPECT_FALSE(list.IsAddressBlacklisted(Address("10.1.2.4"), nullptr, nullptr));
  CZuIPAddr scoped = Address("fe80::1");
  scoped.m_Addr.addr.v6.sin6_scope_id = 3;
  scoped.m_Addr.addr.v6.sin6_flowinfo = 7;
  Add(scoped);
  EXPECT_TRUE(list.IsAddressBlacklisted(Address("fe80::1"), nullptr, nullptr));
  CZuIPAddr tail = Address("2001:db8::ffff");
  tail = Address("10.1.2.3").m_Addr.addr.v4;  // keeps bytes of the IPv6 address
  EXPECT_TRUE(list.IsAddressBlacklisted(tail, nullptr, nullptr));
  Add(CZuIPAddr());
  EXPECT_TRUE(list.IsAddressBlacklisted(CZuIPAddr(), nullptr, nullptr)) << "without a family too";
}

// ---- Forgiving ----

TEST_F(ZuIPAddrBlacklist, ForgivesOneAttemptForEachPeriodThatIsOver) {
  const struct {
    time_t after;
    unsigned attempts;
  } kCases[] = {{0, 3},   {59, 3},  {60, 3},  {61, 2},  {119, 2},
                {120, 2}, {121, 1}, {180, 1}, {181, 0}, {1'000'000, 0}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.after);
    CZuIPAddrBlacklist fresh;
    fresh.SetGraceAttempts(3);
    fresh.SetExpirationTime(60);
    gNow = kStart;
    for (int i = 0; i < 3; ++i) ASSERT_OK(fresh.AddAddressToBlacklist(address, "name"));
    gNow = kStart + c.after;
    EXPECT_EQ(fresh.IsAddressBlacklisted(address, &name, &attempts), c.attempts == 3);
    EXPECT_EQ(attempts, c.attempts);
    EXPECT_STREQ(name.c_str(), c.attempts > 0 ? "name" : "");
    const CZuError error = fresh.GetFirstBlacklistEntry(out, nullptr, nullptr, &added, nullptr);
    EXPECT_EQ(Failed(error), c.attempts == 0) << "no attempt, no entry";
    if (c.attempts > 0) {
      EXPECT_EQ(added, kStart + 60 * (3 - static_cast<time_t>(c.attempts)));
    }
  }
}

TEST_F(ZuIPAddrBlacklist, ForgivesStepByStepAsAtOnce) {
  list.SetGraceAttempts(2);
  list.SetExpirationTime(60);
  Add(address, 2);
  gNow = kStart + 60;
  EXPECT_TRUE(list.IsAddressBlacklisted(address, nullptr, nullptr)) << "a period has to be over";
  gNow = kStart + 61;
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, &attempts));
  EXPECT_EQ(attempts, 1u);
  gNow = kStart + 120;
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, &attempts));
  EXPECT_EQ(attempts, 1u);
  gNow = kStart + 121;
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, &attempts));
  EXPECT_EQ(attempts, 0u);
  EXPECT_TRUE(Entries().empty());
}

TEST_F(ZuIPAddrBlacklist, AttemptStartsThePeriodAnew) {
  list.SetExpirationTime(60);
  list.SetGraceAttempts(2);
  Add(address);
  gNow = kStart + 50;
  Add(address);
  gNow = kStart + 110;
  EXPECT_TRUE(list.IsAddressBlacklisted(address, nullptr, &attempts));
  EXPECT_EQ(attempts, 2u);
  gNow = kStart + 111;
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, nullptr));
}

TEST_F(ZuIPAddrBlacklist, NothingIsForgivenWhenAnAttemptIsCounted) {
  list.SetExpirationTime(60);
  list.SetGraceAttempts(3);
  Add(address);
  gNow = kStart + 1000;
  Add(address);
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, &attempts));
  EXPECT_EQ(attempts, 2u) << "only asking forgives";
}

TEST_F(ZuIPAddrBlacklist, ForgottenAddressStartsAfreshAtTheEnd) {
  list.SetExpirationTime(60);
  ASSERT_OK(list.AddAddressToBlacklist(address, "old"));
  Add(Address("10.0.0.2"));
  gNow = kStart + 61;
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, nullptr));
  ASSERT_OK(list.AddAddressToBlacklist(address, "new"));
  EXPECT_TRUE(list.IsAddressBlacklisted(address, &name, &attempts));
  EXPECT_STREQ(name.c_str(), "new");
  EXPECT_EQ(attempts, 1u);
  EXPECT_EQ(Entries(), (Texts{"10.0.0.2", "10.0.0.1"}));
}

TEST_F(ZuIPAddrBlacklist, WithoutAPeriodNothingIsForgiven) {
  for (const int period : {0, -1, std::numeric_limits<int>::min()}) {
    list.SetExpirationTime(period);
    Add(address);
    gNow += 1'000'000'000;
    EXPECT_TRUE(list.IsAddressBlacklisted(address, nullptr, nullptr)) << period;
  }
}

TEST_F(ZuIPAddrBlacklist, PeriodAppliesToEntriesThatAreThere) {
  Add(address);
  gNow = kStart + 61;
  EXPECT_TRUE(list.IsAddressBlacklisted(address, nullptr, nullptr));
  list.SetExpirationTime(60);
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, nullptr));
}

TEST_F(ZuIPAddrBlacklist, ClockThatGoesBackForgivesNothing) {
  list.SetExpirationTime(60);
  Add(address);
  for (const time_t now : {kStart - 1, kStart - 1000, time_t{0}, time_t{-1000}}) {
    gNow = now;
    EXPECT_TRUE(list.IsAddressBlacklisted(address, nullptr, nullptr)) << now;
  }
}

TEST_F(ZuIPAddrBlacklist, CountOfNoneIsForgottenInsteadOfWrapping) {
  list.SetGraceAttempts(0);
  list.SetExpirationTime(60);
  Add(address, 2);
  ASSERT_EQ(Entries().size(), 1u);
  gNow = kStart + 61;
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, &attempts));
  EXPECT_EQ(attempts, 0u);
  EXPECT_TRUE(Entries().empty());
}

TEST_F(ZuIPAddrBlacklist, LongestSilenceIsReckonedAtOnce) {
  list.SetGraceAttempts(std::numeric_limits<unsigned>::max());
  list.SetExpirationTime(1);
  Add(address, 3);
  gNow = kStart + 100'000'000'000;
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, &attempts));
  EXPECT_EQ(attempts, 0u);
}

// ---- Enumerating ----

TEST_F(ZuIPAddrBlacklist, EmptyListEndsAtOnceAndWritesNothing) {
  const CZuError first = list.GetFirstBlacklistEntry(out, &name, &attempts, &added, &remaining);
  EXPECT_FAILS(first, Win32Code(259), kEnd);
  const std::string text = first.AsString();
  EXPECT_LT(text.find("::GetNextBlacklistEntry("), text.find("::GetFirstBlacklistEntry(")) << text;
  EXPECT_NE(text.find("ZuIPAddrBlacklist.cpp"), std::string::npos) << text;
  EXPECT_FAILS(list.GetNextBlacklistEntry(out, &name, &attempts, &added, &remaining),
               Win32Code(259), kEnd);
  EXPECT_EQ(TextOf(out), "10.9.9.9");
  EXPECT_STREQ(name.c_str(), "before");
  EXPECT_EQ(attempts, kUntouched);
  EXPECT_EQ(added, kUntouched);
  EXPECT_EQ(remaining, kUntouched);
}

TEST_F(ZuIPAddrBlacklist, EntriesComeInTheOrderOfTheirAddition) {
  list.SetGraceAttempts(9);
  ASSERT_OK(list.AddAddressToBlacklist(Address("10.0.0.9", 80), "nine"));
  gNow = kStart + 5;
  ASSERT_OK(list.AddAddressToBlacklist(Address("::1"), "one"));
  gNow = kStart + 7;
  ASSERT_OK(list.AddAddressToBlacklist(Address("10.0.0.1"), ""));
  ASSERT_OK(list.AddAddressToBlacklist(Address("10.0.0.9"), ""));
  const struct {
    const char* address;
    const char* name;
    unsigned attempts;
    time_t added;
  } kExpected[] = {{"10.0.0.9", "nine", 2, kStart + 7},
                   {"::1", "one", 1, kStart + 5},
                   {"10.0.0.1", "", 1, kStart + 7}};
  bool isFirst = true;
  for (const auto& expected : kExpected) {
    SCOPED_TRACE(expected.address);
    ASSERT_OK(isFirst ? list.GetFirstBlacklistEntry(out, &name, &attempts, &added, &remaining)
                      : list.GetNextBlacklistEntry(out, &name, &attempts, &added, &remaining));
    isFirst = false;
    EXPECT_EQ(TextOf(out), expected.address);
    EXPECT_STREQ(name.c_str(), expected.name);
    EXPECT_EQ(attempts, expected.attempts);
    EXPECT_EQ(added, expected.added);
    EXPECT_EQ(remaining, -1);
  }
  for (int round = 0; round < 2; ++round) {
    const CZuError end = list.GetNextBlacklistEntry(out, &name, &attempts, &added, &remaining);
    EXPECT_FAILS(end, Win32Code(259), kEnd);
    EXPECT_EQ(end.AsString().find("GetFirst"), std::string::npos);
    EXPECT_EQ(TextOf(out), "10.0.0.1") << "untouched at the end";
    EXPECT_EQ(remaining, -1);
  }
  ASSERT_OK(list.GetFirstBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(TextOf(out), "10.0.0.9") << "and from the start again";
}

TEST_F(ZuIPAddrBlacklist, RemainingTimeIsThatOfTheNextForgivenAttempt) {
  list.SetGraceAttempts(3);
  Add(address, 3);
  const struct {
    int period;
    time_t after;
    time_t remaining;
  } kCases[] = {{0, 0, -1},    {-5, 1000, -1}, {60, 0, 60},
                {60, 59, 1},   {60, 60, 0},    {60, 61, 0},
                {60, 5000, 0}, {60, -10, 70},  {2147483647, 1, 2147483646}};
  for (const auto& c : kCases) {
    list.SetExpirationTime(c.period);
    gNow = kStart + c.after;
    ASSERT_OK(list.GetFirstBlacklistEntry(out, nullptr, &attempts, &added, &remaining));
    EXPECT_EQ(remaining, c.remaining) << c.period << " " << c.after;
    EXPECT_EQ(attempts, 3u) << "enumerating forgives nothing";
    EXPECT_EQ(added, kStart);
  }
}

TEST_F(ZuIPAddrBlacklist, EnumeratingRemovesNothing) {
  list.SetExpirationTime(1);
  Add(address);
  gNow = kStart + 1000;
  EXPECT_EQ(Entries().size(), 1u);
  EXPECT_EQ(Entries().size(), 1u);
  EXPECT_FALSE(list.IsAddressBlacklisted(address, nullptr, nullptr));
  EXPECT_TRUE(Entries().empty());
}

TEST_F(ZuIPAddrBlacklist, NextBeforeFirstIsTheEnd) {
  Add(address);
  EXPECT_FAILS(list.GetNextBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr), Win32Code(259),
               kEnd);
  EXPECT_EQ(TextOf(out), "10.9.9.9");
}

TEST_F(ZuIPAddrBlacklist, RemovalUnderTheCursorEndsTheEnumeration) {
  list.SetExpirationTime(1);
  for (unsigned i = 1; i <= 3; ++i) Add(NumberedAddress(i));
  ASSERT_OK(list.GetFirstBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr));
  gNow += 10;
  EXPECT_FALSE(list.IsAddressBlacklisted(NumberedAddress(2), nullptr, nullptr));
  for (int round = 0; round < 2; ++round) {
    EXPECT_FAILS(list.GetNextBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr),
                 Win32Code(259), kEnd);
  }
  EXPECT_EQ(Entries(), (Texts{"10.0.0.1", "10.0.0.3"}));
}

TEST_F(ZuIPAddrBlacklist, RemovalElsewhereLeavesTheCursor) {
  list.SetExpirationTime(1);
  for (unsigned i = 1; i <= 4; ++i) Add(NumberedAddress(i));
  ASSERT_OK(list.GetFirstBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr));
  gNow += 10;
  for (const unsigned removed : {1u, 3u}) {
    EXPECT_FALSE(list.IsAddressBlacklisted(NumberedAddress(removed), nullptr, nullptr));
  }
  ASSERT_OK(list.GetNextBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(TextOf(out), "10.0.0.2");
  ASSERT_OK(list.GetNextBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(TextOf(out), "10.0.0.4");
}

TEST_F(ZuIPAddrBlacklist, AdditionsBehindTheCursorAreSeen) {
  Add(NumberedAddress(1));
  Add(NumberedAddress(2));
  ASSERT_OK(list.GetFirstBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr));
  Add(NumberedAddress(3));
  ASSERT_OK(list.GetNextBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr));
  ASSERT_OK(list.GetNextBlacklistEntry(out, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(TextOf(out), "10.0.0.3");
}

// ---- Size ----

// With work that grows with the list for each of these calls the test would never end in time.
TEST_F(ZuIPAddrBlacklist, TakesTheSameTimeHoweverLongTheListIs) {
  constexpr unsigned kAddresses = 300'000;
  list.SetGraceAttempts(2);
  list.SetExpirationTime(60);
  for (int round = 0; round < 2; ++round) {
    for (unsigned i = 0; i < kAddresses; ++i) {
      if (Failed(list.AddAddressToBlacklist(NumberedAddress(i)))) FAIL() << i;
    }
  }
  unsigned blacklisted = 0;
  for (unsigned i = 0; i < 2 * kAddresses; ++i) {
    if (list.IsAddressBlacklisted(NumberedAddress(i), nullptr, nullptr)) ++blacklisted;
  }
  EXPECT_EQ(blacklisted, kAddresses);
  gNow = kStart + 1000;
  for (unsigned i = 0; i < kAddresses; ++i) {
    if (list.IsAddressBlacklisted(NumberedAddress(i), nullptr, nullptr)) FAIL() << i;
  }
  EXPECT_TRUE(Entries().empty());
}

}  // namespace
