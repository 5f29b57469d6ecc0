#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "support/Sockets.h"
#include "support/SystemFunction.h"

// The address that names must not stand for is converted on first need, which is when the libraries
// are loaded unless the resolver fails then. Here it does, so that each test has the first need in
// a process of its own.

namespace {

using GetAddrInfoType = int(const char*, const char*, const addrinfo*, addrinfo**);

SystemFunction<GetAddrInfoType> gGetAddrInfo{"getaddrinfo"};
std::atomic<bool> gIsResolverUp{false};
std::atomic<int> gRefusedEarly{0};

}  // namespace

extern "C" int getaddrinfo(const char* name, const char* service, const addrinfo* hints,
                           addrinfo** list) {
  if (!gIsResolverUp) {
    ++gRefusedEarly;
    return EAI_AGAIN;
  }
  return gGetAddrInfo(name, service, hints, list);
}

namespace {

constexpr char kCollision[] = "127.0.53.53";

class CollisionAddress : public testing::Test {
 protected:
  void SetUp() override { ASSERT_GT(gRefusedEarly, 0) << "nothing was looked up while loading"; }

  // Runs `body` with a resolver that works, but for the lookups numbered in `failing` (from 1).
  void Try(const std::function<void()>& body, const std::vector<int>& failing = {}) {
    InOwnProcess([&] {
      gIsResolverUp = true;
      const Replacement<GetAddrInfoType> record(
          gGetAddrInfo,
          [&](const char* name, const char* service, const addrinfo* hints, addrinfo** list) {
            lookups.emplace_back(name);
            for (const int number : failing) {
              if (static_cast<std::size_t>(number) == lookups.size()) return EAI_AGAIN;
            }
            return gGetAddrInfo.Real(name, service, hints, list);
          });
      body();
    });
  }

  using Names = std::vector<std::string>;
  Names lookups;
  ZUNET_SockAddr address{};
};

TEST_F(CollisionAddress, IsConvertedOnceByTheFirstTextThatIsRead) {
  Try([&] {
    EXPECT_EQ(ZUNET_str2ip("10.1.2.3", &address), 0);
    EXPECT_EQ(lookups, (Names{"10.1.2.3", kCollision}));
    EXPECT_EQ(ZUNET_str2ip("10.1.2.4", &address), 0);
    EXPECT_EQ(ZUNET_str2ip(kCollision, &address), -2);
    EXPECT_EQ(lookups, (Names{"10.1.2.3", kCollision, "10.1.2.4", kCollision}));
  });
}

TEST_F(CollisionAddress, RefusesItselfFromTheFirstTimeOn) {
  Try([&] { EXPECT_EQ(ZUNET_str2ip(kCollision, &address), -2); });
}

TEST_F(CollisionAddress, IsNotConvertedWhereATextFails) {
  Try([&] {
    EXPECT_EQ(ZUNET_str2ip("localhost", &address), EAI_NONAME);
    EXPECT_EQ(lookups, Names{"localhost"});
  });
}

TEST_F(CollisionAddress, IsConvertedByTheFirstIPv4AddressOfAName) {
  Try([&] {
    ZUNET_HostEnt host{-7, nullptr};
    EXPECT_EQ(ZUNET_name2ip("::1", &host, 0), 0);
    ZUNET_freehostent(&host);
    EXPECT_EQ(lookups, Names{"::1"});  // of the other family none can be it
    EXPECT_EQ(ZUNET_name2ip("10.1.2.3", &host, 0), 0);
    ZUNET_freehostent(&host);
    EXPECT_EQ(lookups, (Names{"::1", "10.1.2.3", kCollision}));
    EXPECT_EQ(ZUNET_name2ip(kCollision, &host, 0), -2);
    ZUNET_freehostent(&host);
  });
}

TEST_F(CollisionAddress, FailedConversionLeavesNothingToCollideWith) {
  Try(
      [&] {
        EXPECT_EQ(ZUNET_str2ip("10.1.2.3", &address), 0);
        EXPECT_EQ(lookups, (Names{"10.1.2.3", kCollision}));
        EXPECT_EQ(ZUNET_str2ip(kCollision, &address), 0);
        EXPECT_EQ(ZUNET_str2ip("0.0.0.0", &address), 0);
        ZUNET_HostEnt host{-7, nullptr};
        EXPECT_EQ(ZUNET_name2ip(kCollision, &host, 0), 0);
        EXPECT_EQ(host.addr_count, 1);
        ZUNET_freehostent(&host);
      },
      {2});
}

TEST_F(CollisionAddress, MayBeNeededFirstByManyThreadsAtOnce) {
  InOwnProcess([] {
    gIsResolverUp = true;
    constexpr int kThreads = 8;
    std::atomic<int> ready{0};
    std::atomic<int> wrong{0};
    std::vector<std::unique_ptr<QuietThread>> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.push_back(std::make_unique<QuietThread>([&, i] {
        ++ready;
        while (ready < kThreads) std::this_thread::yield();
        ZUNET_SockAddr own{};
        ZUNET_HostEnt host{-7, nullptr};
        for (int round = 0; round < 20; ++round) {
          if (i % 2 == 0) {
            if (ZUNET_str2ip(kCollision, &own) != -2) ++wrong;
            if (ZUNET_str2ip("10.1.2.3", &own) != 0) ++wrong;
          } else {
            if (ZUNET_name2ip(kCollision, &host, AF_INET) != -2) ++wrong;
            ZUNET_freehostent(&host);
          }
        }
      }));
    }
    threads.clear();
    EXPECT_EQ(wrong, 0);
  });
}

}  // namespace
