#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <type_traits>

#include "ZuNetwork/CurlWrapper.h"
#include "fakes/FakeCurlTest.h"
#include "support/SystemFunction.h"

namespace {

SystemFunction<int(const char*, int)> gAccess{"access"};
SystemFunction<int(pthread_mutex_t*, const pthread_mutexattr_t*)> gMutexInit{"pthread_mutex_init"};
SystemFunction<int(pthread_mutex_t*)> gMutexDestroy{"pthread_mutex_destroy"};

// The mutexes and arrays that are made while this is set. They must live as long as the process: it
// ends with a message when one of them is destroyed or freed.
std::atomic<bool> gWatches{false};
std::array<std::atomic<const void*>, 64> gWatched{};
std::atomic<std::size_t> gWatchedCount{0};

void Watch(const void* block) {
  if (gWatches) gWatched.at(gWatchedCount++) = block;
}

void CheckIsNotWatched(const void* block, const char* what) {
  if (block == nullptr || std::find(gWatched.begin(), gWatched.end(), block) == gWatched.end()) {
    return;
  }
  std::fprintf(stderr, "%s what has to stay\n", what);
  _exit(EXIT_FAILURE);
}

void Free(void* block) {
  CheckIsNotWatched(block, "freed");
  std::free(block);
}

void* Allocate(std::size_t size) {
  void* const block = std::malloc(size > 0 ? size : 1);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace

extern "C" int access(const char* path, int mode) noexcept { return gAccess(path, mode); }

extern "C" int pthread_mutex_init(pthread_mutex_t* mutex,
                                  const pthread_mutexattr_t* attributes) noexcept {
  Watch(mutex);
  return gMutexInit(mutex, attributes);
}

extern "C" int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
  CheckIsNotWatched(mutex, "destroyed");
  return gMutexDestroy(mutex);
}

void* operator new(std::size_t size) { return Allocate(size); }
void* operator new[](std::size_t size) {
  void* const block = Allocate(size);
  Watch(block);
  return block;
}
void operator delete(void* block) noexcept { Free(block); }
void operator delete[](void* block) noexcept { Free(block); }
void operator delete(void* block, std::size_t) noexcept { Free(block); }
void operator delete[](void* block, std::size_t) noexcept { Free(block); }

namespace {

static_assert(std::is_nothrow_destructible_v<CurlWrapper>, "libcurl is given up silently");

constexpr char kMarker[] = "/tmp/KDREMOTEFILE_NO_OPENSSL_CALLBACK";

// Stands for the marker below /tmp, which all processes share: while it lives, whether that is
// there is for a test to say.
class Marker {
 public:
  bool isThere = false;
  int lookups = 0;

 private:
  Replacement<int(const char*, int)> m_access{gAccess, [this](const char* path, int mode) {
                                                if (std::strcmp(path, kMarker) != 0) {
                                                  return gAccess.Real(path, mode);
                                                }
                                                EXPECT_EQ(mode, F_OK);
                                                ++lookups;
                                                errno = ENOENT;
                                                return isThere ? 0 : -1;
                                              }};
};

// What a class that derives from the loader sees.
class OwnLoader : public CurlWrapper {
 public:
  bool IsLoaded() const { return m_bInit; }
  const void* Address(const char* name) const { return mZuLibrary.Find(name); }
};

TEST(CurlWrapperMarker, IsNotLookedAtBeforeTheLibraryIsLoaded) {
  const LibraryFolder folder;
  folder.Run([] {
    Marker marker;
    CurlWrapper curl;
    EXPECT_FALSE(curl.Init());
    EXPECT_FALSE(CurlWrapper::gCurlWrapper.Init());
    EXPECT_EQ(curl.Curl_easy_init(), nullptr);
    EXPECT_EQ(marker.lookups, 0);
  });
}

class CurlWrapperMarkerThat : public testing::TestWithParam<bool> {};

TEST_P(CurlWrapperMarkerThat, ChangesAfterAFailedLoadCountsAtTheNext) {
  const bool isThere = GetParam();
  const LibraryFolder folder;
  folder.Run([&] {
    Marker marker;
    marker.isThere = !isThere;
    CurlWrapper curl;
    EXPECT_FALSE(curl.Init());
    EXPECT_EQ(marker.lookups, 0);

    marker.isThere = isThere;
    folder.Install("crypto");
    const FakeLibrary fake;
    EXPECT_TRUE(curl.Init());
    EXPECT_EQ(marker.lookups, 1);
    EXPECT_EQ(fake->crypto.lock == nullptr, isThere);
    EXPECT_EQ(fake->calls.empty(), isThere);

    marker.isThere = !isThere;
    EXPECT_TRUE(curl.Init());
    EXPECT_STREQ(curl.Curl_version(), "libcurl/fake");
    EXPECT_EQ(marker.lookups, 1);
    EXPECT_EQ(fake->crypto.lock == nullptr, isThere);
  });
}

INSTANTIATE_TEST_SUITE_P(Is, CurlWrapperMarkerThat, testing::Bool(),
                         [](const testing::TestParamInfo<bool>& isThere) {
                           return isThere.param ? "made" : "removed";
                         });

TEST(CurlWrapperLifetime, TheMutexesAndTheirArrayOutliveTheLoader) {
  const LibraryFolder folder;
  folder.Run([&] {
    const Marker marker;
    folder.Install("crypto");
    const FakeLibrary fake;
    {
      gWatches = true;
      const CurlWrapper curl;
      EXPECT_EQ(gWatchedCount, 2u) << "the guard and the array";
      ASSERT_NE(fake->crypto.lock, nullptr);
      for (const int mode : {1, 2}) fake->crypto.lock(mode, 40, nullptr, 0);
      EXPECT_EQ(gWatchedCount, 3u) << "and the mutex of a lock";
      gWatches = false;
      fake->calls.clear();
    }
    EXPECT_THAT(fake->calls, testing::ElementsAre("CRYPTO_set_id_callback null",
                                                  "CRYPTO_set_locking_callback null"));
  });
}

TEST(CurlWrapperLifetime, DerivingClassesSeeTheLibraryAndWhetherItIsLoaded) {
  const LibraryFolder folder;
  folder.Run([&] {
    OwnLoader loader;
    EXPECT_FALSE(loader.IsLoaded());
    EXPECT_EQ(loader.Address("curl_version"), nullptr);
    folder.Install("complete");
    EXPECT_TRUE(loader.Init());
    EXPECT_TRUE(loader.IsLoaded());
    EXPECT_NE(loader.Address("curl_version"), nullptr);
    EXPECT_EQ(loader.Address("curl_absent"), nullptr);
  });
}

}  // namespace
