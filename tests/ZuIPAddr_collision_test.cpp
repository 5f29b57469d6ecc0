// What becomes of the collision address when it cannot be read while the library is loaded.

#include <netdb.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "ZuNetwork/ZuIPAddr.h"
#include "support/Addresses.h"
#include "support/Expect.h"
#include "support/Namespaces.h"
#include "support/SystemFunction.h"

namespace {

SystemFunction<int(const char*, const char*, const addrinfo*, addrinfo**)> gGetAddrInfo{
    "getaddrinfo"};
SystemFunction<void(addrinfo*)> gFreeAddrInfo{"freeaddrinfo"};

constexpr auto kAny = CZuIPAddr::FAMILY_ANY;
constexpr unsigned kCollision = 0xFFFFFFFE;
constexpr char kCollisionText[] = "DNS name collision occured";

// Of look-ups that make the collision address and of conversions of texts: how many may still
// succeed (they come first while the library is loaded, when none may), and how many there were.
constexpr int kAllSucceed = 1 << 30;
std::atomic<int> gSuccesses{0};
std::atomic<int> gConversions{0};
std::atomic<int> gLists{0};               // not yet released
std::atomic<bool> gNamesAreEmpty{false};  // names are found, but have no address

void ExpectNotRefused() {
  CZuIPAddr address;
  EXPECT_OK(CZuIPAddr::GetByName("127.0.53.53", address, kAny));
  EXPECT_EQ(Text(address), "127.0.53.53");
  std::vector<CZuIPAddr> list;
  EXPECT_OK(CZuIPAddr::GetAllByName("127.0.53.53", list, kAny));
  EXPECT_THAT(Texts(list), testing::ElementsAre("127.0.53.53"));
}

void ExpectRefused() {
  CZuIPAddr address;
  EXPECT_FAILS(CZuIPAddr::GetByName("127.0.53.53", address, kAny), kCollision, kCollisionText);
  std::vector<CZuIPAddr> list;
  EXPECT_FAILS(CZuIPAddr::GetAllByName("127.0.53.53", list, kAny), kCollision, kCollisionText);
  EXPECT_THAT(list, testing::IsEmpty());
}

// Whether the look-up is the library's own for the collision address: a name, of IPv4 alone.
bool IsSetUp(const char* name, const addrinfo& hints) {
  return hints.ai_family == AF_INET && hints.ai_flags == AI_CANONNAME &&
         std::strcmp(name, "127.0.53.53") == 0;
}

// Constructs values without a family of their own, and says how many conversions it took.
int ConversionsOf(int constructions) {
  const int before = gConversions;
  for (int i = 0; i < constructions; ++i) {
    const CZuIPAddr address;
    EXPECT_EQ(Text(address), "family 0");
  }
  return gConversions - before;
}

}  // namespace

extern "C" {

int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list) {
  if ((hints->ai_flags & AI_NUMERICHOST) != 0 || IsSetUp(name, *hints)) {
    ++gConversions;
    if (gSuccesses.fetch_sub(1) <= 0) {
      ++gSuccesses;
      return EAI_MEMORY;
    }
  }
  if (gNamesAreEmpty) {
    *list = nullptr;
    return 0;
  }
  const int result = gGetAddrInfo(name, service, hints, list);
  if (result == 0) ++gLists;
  return result;
}

void freeaddrinfo(addrinfo* list) noexcept {
  if (list == nullptr) return;
  --gLists;
  gFreeAddrInfo(list);
}
}

namespace {

TEST(CollisionAddress, IsTriedWhenTheLibraryIsLoaded) {
  EXPECT_GT(gConversions, 0);
  EXPECT_FALSE(CZuIPAddr::m_DummyIpInit);
}

TEST(CollisionAddress, RefusesNothingUntilItIsKnown) {
  namespaces::RunInChild([] {
    ExpectNotRefused();
    EXPECT_FALSE(CZuIPAddr::m_DummyIpInit);
    CZuIPAddr address = Address("10.1.2.3");
    EXPECT_FAILS(address.SetAddressString("127.0.53.53"), ErrNoCode(EAI_MEMORY), "");
    EXPECT_EQ(Text(address), "10.1.2.3");
    EXPECT_EQ(gLists, 0);
  });
}

TEST(CollisionAddress, IsNotMadeByLookups) {
  namespaces::RunInChild([] {
    gSuccesses = kAllSucceed;
    CZuIPAddr address(ZUNET_SockAddr{});
    EXPECT_OK(CZuIPAddr::GetByName("127.0.53.53", address, kAny));
    std::vector<CZuIPAddr> list;
    EXPECT_OK(CZuIPAddr::GetAllByName("127.0.53.53", list, kAny));
    EXPECT_THAT(Texts(list), testing::ElementsAre("127.0.53.53"));
    EXPECT_FALSE(CZuIPAddr::m_DummyIpInit);
    const CZuIPAddr made;
    EXPECT_TRUE(CZuIPAddr::m_DummyIpInit);
  });
}

TEST(CollisionAddress, IsNothingThatAClearedValueCouldEqual) {
  namespaces::RunInChild([] {
    gNamesAreEmpty = true;
    CZuIPAddr address;
    EXPECT_OK(CZuIPAddr::GetByName("host", address, kAny));
    EXPECT_TRUE(address == CZuIPAddr::m_DummyIp);
  });
}

TEST(CollisionAddress, IsTriedAgainByEveryDefaultConstructionUntilItIsKnown) {
  namespaces::RunInChild([] {
    EXPECT_EQ(ConversionsOf(5), 5);
    EXPECT_FALSE(CZuIPAddr::m_DummyIpInit);
    gSuccesses = kAllSucceed;
    EXPECT_GT(ConversionsOf(1), 0);
    EXPECT_TRUE(CZuIPAddr::m_DummyIpInit);
    EXPECT_EQ(Text(CZuIPAddr::m_DummyIp), "127.0.53.53");
    EXPECT_EQ(ConversionsOf(5), 0);
    ExpectRefused();
    EXPECT_EQ(gLists, 0);
  });
}

// An empty list is a look-up that succeeded, but there is nothing to keep.
TEST(CollisionAddress, IsNotKnownFromALookUpWithoutAnAddress) {
  namespaces::RunInChild([] {
    gSuccesses = kAllSucceed;
    gNamesAreEmpty = true;
    ConversionsOf(1);
    EXPECT_FALSE(CZuIPAddr::m_DummyIpInit);
    gNamesAreEmpty = false;
    ConversionsOf(1);
    ExpectRefused();
  });
}

TEST(CollisionAddress, IsNotTriedByOtherConstructions) {
  namespaces::RunInChild([] {
    const sockaddr_in v4 = V4("10.1.2.3");
    const sockaddr_in6 v6 = V6("::1");
    const int before = gConversions;
    const CZuIPAddr first(v4);
    const CZuIPAddr second(v6);
    const CZuIPAddr third(first.m_Addr);
    CZuIPAddr fourth(second);
    fourth = third;
    fourth.Clear();
    EXPECT_EQ(gConversions, before);
  });
}

TEST(CollisionAddress, StaysKnownWhateverFailsLater) {
  namespaces::RunInChild([] {
    gSuccesses = kAllSucceed;
    ConversionsOf(1);
    gSuccesses = 0;
    ExpectRefused();
    EXPECT_EQ(ConversionsOf(1), 0);
  });
}

// The functions below keep a copy of their own, which they read once.
TEST(CollisionAddress, IsKnownToNamesAlsoWhereItIsNotToTexts) {
  namespaces::RunInChild([] {
    gSuccesses = 2;
    EXPECT_EQ(ConversionsOf(1), 1);
    CZuIPAddr address;
    EXPECT_OK(address.SetAddressString("10.1.2.3"));  // fails to make the copy behind it
    gSuccesses = kAllSucceed;
    ExpectRefused();
    EXPECT_OK(address.SetAddressString("127.0.53.53"));
    EXPECT_EQ(Text(address), "127.0.53.53");
  });
}

TEST(CollisionAddress, IsFoundByOneOfManyThreads) {
  namespaces::RunInChild([] {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::atomic<int> tries{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i) {
      threads.emplace_back([&tries, end] {
        while (!__atomic_load_n(&CZuIPAddr::m_DummyIpInit, __ATOMIC_ACQUIRE) &&
               std::chrono::steady_clock::now() < end) {
          ++tries;
          CZuIPAddr address;
          const CZuError error = CZuIPAddr::GetByName("127.0.53.53", address, kAny);
          EXPECT_TRUE(!Failed(error) || IsFailure(error, kCollision, kCollisionText));
          EXPECT_EQ(Text(address), "127.0.53.53");
        }
        ExpectRefused();
      });
    }
    while (tries < 60 && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    EXPECT_FALSE(__atomic_load_n(&CZuIPAddr::m_DummyIpInit, __ATOMIC_ACQUIRE));
    gSuccesses = kAllSucceed;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(Text(CZuIPAddr::m_DummyIp), "127.0.53.53");
    EXPECT_EQ(gLists, 0);
  });
}

}  // namespace
