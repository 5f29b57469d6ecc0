#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "ZuNetwork/CurlWrapper.h"
#include "fakes/FakeCurlTest.h"
#include "support/SystemFunction.h"

namespace {

using MutexInit = int(pthread_mutex_t*, const pthread_mutexattr_t*);

SystemFunction<MutexInit> gMutexInit{"pthread_mutex_init"};
std::atomic<int> gMutexCount{0};
std::atomic<bool> gSlowMutexes{false};  // the making of a mutex takes its time
pthread_mutex_t* gMutexes[4096];        // keeps the mutexes that are never freed from being lost

}  // namespace

extern "C" int pthread_mutex_init(pthread_mutex_t* mutex,
                                  const pthread_mutexattr_t* attributes) noexcept {
  const auto count = static_cast<size_t>(gMutexCount++);
  if (count < std::size(gMutexes)) gMutexes[count] = mutex;
  if (gSlowMutexes) usleep(20000);
  return gMutexInit(mutex, attributes);
}

namespace {

class OpenSslLocks : public testing::Test {
 protected:
  // Runs `body` with the callback that OpenSSL got.
  static void Run(const std::function<void(const FakeCrypto&)>& body) {
    const LibraryFolder folder;
    folder.Install("crypto");
    folder.Run([&] {
      const FakeLibrary fake;
      EXPECT_TRUE(CurlWrapper::gCurlWrapper.Init());
      EXPECT_NE(fake->crypto.lock, nullptr);
      if (fake->crypto.lock != nullptr) body(fake->crypto);
    });
  }

  // Whether another thread gets the lock within the time.
  static bool IsFree(const FakeCrypto& crypto, int n, std::chrono::milliseconds limit) {
    auto taken = std::async(std::launch::async, [&crypto, n] {
      crypto.lock(1, n, nullptr, 0);
      crypto.lock(2, n, nullptr, 0);
    });
    const bool isFree = taken.wait_for(limit) == std::future_status::ready;
    if (!isFree) crypto.lock(2, n, nullptr, 0);  // lets the thread end
    return isFree;
  }
};

constexpr int kLock = 1;
constexpr int kUnlock = 2;
constexpr int kRead = 4;
constexpr int kWrite = 8;
constexpr std::chrono::milliseconds kShort{50};
constexpr std::chrono::seconds kLong{10};

TEST_F(OpenSslLocks, TheIdIsTheThread) {
  Run([](const FakeCrypto& crypto) {
    EXPECT_EQ(crypto.id(), pthread_self());
    unsigned long other = 0;
    std::thread([&] { other = crypto.id(); }).join();
    EXPECT_NE(other, pthread_self());
  });
}

TEST_F(OpenSslLocks, ALockIsMadeWhenItIsFirstNeeded) {
  Run([](const FakeCrypto& crypto) {
    int mutexes = gMutexCount;
    crypto.lock(kLock, 7, "file", 1);
    EXPECT_EQ(gMutexCount, mutexes + 1);
    EXPECT_FALSE(IsFree(crypto, 7, kShort));
    crypto.lock(kLock, 7, "file", 1);
    crypto.lock(kUnlock, 7, nullptr, 0);
    EXPECT_TRUE(IsFree(crypto, 7, kLong));
    EXPECT_EQ(gMutexCount, mutexes + 1);
  });
}

TEST_F(OpenSslLocks, NeitherBitMakesTheLockAndLeavesItFree) {
  Run([](const FakeCrypto& crypto) {
    const int mutexes = gMutexCount;
    crypto.lock(0, 3, nullptr, 0);
    crypto.lock(kRead | kWrite, 3, nullptr, 0);
    EXPECT_EQ(gMutexCount, mutexes + 1);
    EXPECT_TRUE(IsFree(crypto, 3, kLong));
  });
}

TEST_F(OpenSslLocks, ReadersExcludeEachOther) {
  Run([](const FakeCrypto& crypto) {
    crypto.lock(kLock | kRead, 3, nullptr, 0);
    EXPECT_FALSE(IsFree(crypto, 3, kShort));
    crypto.lock(kLock | kWrite, 3, nullptr, 0);
    EXPECT_FALSE(IsFree(crypto, 3, kShort));
  });
}

TEST_F(OpenSslLocks, BothBitsLock) {
  Run([](const FakeCrypto& crypto) {
    crypto.lock(kLock | kUnlock, 3, nullptr, 0);
    EXPECT_FALSE(IsFree(crypto, 3, kShort));
  });
}

TEST_F(OpenSslLocks, EveryLockOfTheArrayIsItsOwn) {
  Run([](const FakeCrypto& crypto) {
    const int mutexes = gMutexCount;
    for (int n = 0; n < crypto.numLocks; ++n) crypto.lock(kLock, n, nullptr, 0);
    EXPECT_EQ(gMutexCount, mutexes + crypto.numLocks);
    for (int n = 0; n < crypto.numLocks; ++n) crypto.lock(kUnlock, n, nullptr, 0);
  });
}

TEST_F(OpenSslLocks, SeveralThreadsMakeOneLockTogether) {
  Run([](const FakeCrypto& crypto) {
    const int mutexes = gMutexCount;
    int counter = 0;  // guarded by the lock alone
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    std::atomic<int> started{0};
    std::vector<std::thread> threads;
    gSlowMutexes = true;  // so that all threads find the lock missing
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&] {
        ++started;
        while (started < kThreads) std::this_thread::yield();
        for (int round = 0; round < kRounds; ++round) {
          crypto.lock(kLock, 40, nullptr, 0);
          ++counter;
          crypto.lock(kUnlock, 40, nullptr, 0);
        }
      });
    }
    for (auto& thread : threads) thread.join();
    gSlowMutexes = false;
    EXPECT_EQ(counter, kThreads * kRounds);
    EXPECT_EQ(gMutexCount, mutexes + 1);
  });
}

}  // namespace
