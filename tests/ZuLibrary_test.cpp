#include "ZuUtils/ZuLibrary.h"

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "support/Expect.h"
#include "support/SystemFunction.h"
#include "support/TempDir.h"

namespace {

const std::string kFolder = ZUTEST_LIBRARY_FOLDER;
const std::string kLibrary = kFolder + "/libzufake_library.so";
const std::string kDependency = kFolder + "/libzufake_dependency.so";
const std::string kUnresolved = kFolder + "/libzufake_unresolved.so";

SystemFunction<int(void*)> gClose{"dlclose"};

bool IsLoaded(const std::string& path) {
  void* const handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  dlclose(handle);
  return true;
}

// Every test begins and ends without the libraries.
class ZuLibrary : public testing::Test {
 protected:
  void SetUp() override { ExpectNothingLoaded(); }
  void TearDown() override { ExpectNothingLoaded(); }

 private:
  static void ExpectNothingLoaded() {
    for (const std::string& path : {kLibrary, kDependency, kUnresolved}) {
      EXPECT_FALSE(IsLoaded(path)) << path;
    }
  }
};

}  // namespace

extern "C" int dlclose(void* handle) noexcept { return gClose(handle); }

static_assert(!std::is_copy_constructible_v<CZuLibrary> && !std::is_copy_assignable_v<CZuLibrary> &&
              !std::is_convertible_v<bool, CZuLibrary>);

TEST_F(ZuLibrary, FindsFunctionsAndValues) {
  CZuLibrary library(true);
  ASSERT_OK(library.Load(kLibrary.c_str(), false));
  void* address = nullptr;
  ASSERT_OK(library.GetAddress("zufake_function", address));
  EXPECT_EQ(reinterpret_cast<int (*)()>(address)(), 42);
  ASSERT_OK(library.GetAddress("zufake_value", address));
  EXPECT_EQ(*static_cast<int*>(address), 4711);
}

TEST_F(ZuLibrary, FindsWhatTheLibraryDependsOn) {
  CZuLibrary library(true);
  ASSERT_OK(library.Load(kLibrary.c_str(), false));
  void* address = nullptr;
  ASSERT_OK(library.GetAddress("zufake_dependency", address));
  EXPECT_EQ(reinterpret_cast<int (*)()>(address)(), 7);
  ASSERT_OK(library.GetAddress("zufake_calls_dependency", address));
  EXPECT_EQ(reinterpret_cast<int (*)()>(address)(), 8);
}

TEST_F(ZuLibrary, NameWithoutSlashIsSearchedFor) {
  CZuLibrary library(true);
  ASSERT_OK(library.Load("libm.so.6", false));
  void* address = nullptr;
  ASSERT_OK(library.GetAddress("floor", address));
  EXPECT_EQ(reinterpret_cast<double (*)(double)>(address)(2.5), 2.0);
}

TEST_F(ZuLibrary, FailedLoadCarriesTheLoadersText) {
  const TempDir folder;
  const std::string text = folder / "text.so";
  const std::string empty = folder / "empty.so";
  WriteFile(text, std::string(4096, 't'));
  WriteFile(empty, "");
  const struct {
    std::string path;
    const char* text;
  } rows[] = {
      {"libzufake_missing.so",
       "Failed to load [libzufake_missing.so]: libzufake_missing.so: cannot open shared object "
       "file: No such file or directory"},
      {folder / "missing.so", "cannot open shared object file: No such file or directory"},
      {text, "invalid ELF header"},
      {empty, "file too short"},
      {folder / "", "cannot read file data: Is a directory"},
  };
  for (const auto& row : rows) {
    CZuLibrary library(true);
    EXPECT_FAILS(library.Load(row.path.c_str(), false), Win32Code(kErrorInvalidState), row.text);
    EXPECT_FAILS(library.Load(row.path.c_str(), true), Win32Code(kErrorInvalidState),
                 ("Failed to load [" + row.path + "]").c_str());
    EXPECT_OK(library.Load(kLibrary.c_str(), false)) << "may be used again";
  }
}

TEST_F(ZuLibrary, NullArgumentsAreInvalid) {
  CZuLibrary library(true);
  EXPECT_FAILS(library.Load(nullptr, false), Win32Code(kErrorInvalidArgument),
               "Null parameter passed");
  void* address = &library;
  EXPECT_FAILS(library.GetAddress(nullptr, address), Win32Code(kErrorInvalidArgument),
               "Null parameter passed");
  EXPECT_EQ(address, nullptr);
}

TEST_F(ZuLibrary, BindsFunctionsWhenTheyAreCalled) {
  ASSERT_EQ(dlopen(kUnresolved.c_str(), RTLD_NOW), nullptr) << "all of it cannot be bound";
  CZuLibrary library(true);
  ASSERT_OK(library.Load(kUnresolved.c_str(), false));
  void* address = nullptr;
  ASSERT_OK(library.GetAddress("zufake_is_whole", address));
  EXPECT_EQ(reinterpret_cast<int (*)()>(address)(), 1);
}

namespace {

// Ends the calling process, a child of the test: a lookup in the global scope would keep the
// library loaded. 0 if its symbols are found there once it is loaded globally, and not before.
[[noreturn]] void LookUpGlobally() {
  CZuLibrary local(false);
  if (Failed(local.Load(kLibrary.c_str(), false))) _exit(2);
  if (dlsym(RTLD_DEFAULT, "zufake_function") != nullptr) _exit(3);
  CZuLibrary global(false);
  if (Failed(global.Load(kLibrary.c_str(), true))) _exit(4);
  _exit(dlsym(RTLD_DEFAULT, "zufake_function") == nullptr ? 5 : 0);
}

}  // namespace

TEST_F(ZuLibrary, SymbolsAreVisibleToOthersIfTheyAreToBe) {
  EXPECT_EXIT(LookUpGlobally(), testing::ExitedWithCode(0), "");
}

TEST_F(ZuLibrary, MissingSymbolCarriesTheLoadersText) {
  CZuLibrary library(true);
  ASSERT_OK(library.Load(kLibrary.c_str(), false));
  void* address = &library;
  const CZuError error = library.GetAddress("zufake_missing", address);
  EXPECT_FAILS(error, Win32Code(kErrorInvalidState), "Failed to find [zufake_missing]: ");
  EXPECT_FAILS(error, Win32Code(kErrorInvalidState), "undefined symbol: zufake_missing");
  EXPECT_EQ(address, nullptr);
  EXPECT_OK(library.GetAddress("zufake_function", address)) << "the next one is found";
}

TEST_F(ZuLibrary, FindTellsByNullWhatIsMissing) {
  CZuLibrary library(true);
  EXPECT_EQ(library.Find("zufake_function"), nullptr) << "before it is loaded";
  ASSERT_OK(library.Load(kLibrary.c_str(), false));
  EXPECT_EQ(library.Find("zufake_missing"), nullptr);
  EXPECT_EQ(library.Find("zufake_null"), nullptr);
  EXPECT_EQ(reinterpret_cast<int (*)()>(library.Find("zufake_function"))(), 42);
  ASSERT_OK(library.Free());
  EXPECT_EQ(library.Find("zufake_function"), nullptr) << "after it is freed";
}

TEST_F(ZuLibrary, SymbolWithoutAddressIsMissing) {
  CZuLibrary library(true);
  ASSERT_OK(library.Load(kLibrary.c_str(), false));
  void* address = &library;
  EXPECT_FAILS(library.GetAddress("zufake_null", address), Win32Code(kErrorInvalidState),
               "Failed to find [zufake_null]: no reason given");
  EXPECT_EQ(address, nullptr);
}

TEST_F(ZuLibrary, NothingIsFoundBeforeLoadAndAfterFree) {
  CZuLibrary library(true);
  const char* const text = "Failed to find [zufake_function]: no library is loaded";
  void* address = &library;
  EXPECT_FAILS(library.GetAddress("zufake_function", address), Win32Code(kErrorInvalidState), text);
  EXPECT_EQ(address, nullptr);
  ASSERT_OK(library.Load(kLibrary.c_str(), false));
  ASSERT_OK(library.Free());
  address = &library;
  EXPECT_FAILS(library.GetAddress("zufake_function", address), Win32Code(kErrorInvalidState), text);
  EXPECT_EQ(address, nullptr);
}

TEST_F(ZuLibrary, FreeReleasesWhatLoadTookAndNoMore) {
  CZuLibrary library(false);
  EXPECT_OK(library.Free()) << "nothing is loaded";
  void* const own = dlopen(kLibrary.c_str(), RTLD_LAZY);
  ASSERT_NE(own, nullptr);
  EXPECT_OK(library.Free());
  EXPECT_TRUE(IsLoaded(kLibrary));
  ASSERT_OK(library.Load(kLibrary.c_str(), false));
  EXPECT_OK(library.Free());
  EXPECT_OK(library.Free());
  EXPECT_TRUE(IsLoaded(kLibrary)) << "the program's own share is left";
  dlclose(own);
  EXPECT_FALSE(IsLoaded(kLibrary));
}

TEST_F(ZuLibrary, DestructorFreesIfItIsAskedTo) {
  {
    CZuLibrary library(true);
    ASSERT_OK(library.Load(kLibrary.c_str(), false));
    EXPECT_TRUE(IsLoaded(kLibrary));
  }
  EXPECT_FALSE(IsLoaded(kLibrary));
  {
    CZuLibrary library(false);
    ASSERT_OK(library.Load(kLibrary.c_str(), false));
  }
  EXPECT_TRUE(IsLoaded(kLibrary));
  void* const left = dlopen(kLibrary.c_str(), RTLD_LAZY);
  dlclose(left);
  dlclose(left);  // the share that the object left
  EXPECT_FALSE(IsLoaded(kLibrary));
}

TEST_F(ZuLibrary, LoadingTheSameLibraryAgainChangesNothing) {
  CZuLibrary library(true);
  for (int i = 0; i < 3; ++i) ASSERT_OK(library.Load(kLibrary.c_str(), false));
  const std::string detour = kFolder + "/../lib/libzufake_library.so";
  ASSERT_OK(library.Load(detour.c_str(), false)) << "another name for the same file";
  ASSERT_OK(library.Free());
  EXPECT_FALSE(IsLoaded(kLibrary)) << "it was counted once";
}

TEST_F(ZuLibrary, AnotherLibraryIsRefusedAndTheFirstKept) {
  CZuLibrary library(true);
  ASSERT_OK(library.Load(kLibrary.c_str(), false));
  EXPECT_FAILS(library.Load(kUnresolved.c_str(), false), Win32Code(kErrorInvalidState),
               ("Failed to load [" + kUnresolved + "]: another library is loaded").c_str());
  EXPECT_FALSE(IsLoaded(kUnresolved)) << "the refused one is given up";
  void* address = nullptr;
  EXPECT_OK(library.GetAddress("zufake_function", address));
  EXPECT_OK(library.Free());
  EXPECT_OK(library.Load(kUnresolved.c_str(), false)) << "possible once the first is gone";
}

TEST_F(ZuLibrary, FailedFreeIsReportedOnce) {
  CZuLibrary library(true);
  ASSERT_OK(library.Load(kLibrary.c_str(), false));
  {
    const Fault fault(gClose, EIO);
    EXPECT_FAILS(library.Free(), Win32Code(kErrorInvalidState), "Failed to free the library: ");
    EXPECT_TRUE(fault.HasHappened());
  }
  EXPECT_OK(library.Free());
  void* const left = dlopen(kLibrary.c_str(), RTLD_LAZY);
  dlclose(left);
  dlclose(left);
}

TEST_F(ZuLibrary, ConcurrentLoadsCountOnce) {
  for (int round = 0; round < 20; ++round) {
    CZuLibrary library(true);
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&library, &wrong] {
        void* address = nullptr;
        for (int i = 0; i < 5; ++i) {
          if (Failed(library.Load(kLibrary.c_str(), false))) ++wrong;
          if (Failed(library.GetAddress("zufake_function", address))) ++wrong;
        }
        if (reinterpret_cast<int (*)()>(address)() != 42) ++wrong;
      });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_OK(library.Free());
    EXPECT_FALSE(IsLoaded(kLibrary)) << "round " << round;
  }
}

TEST_F(ZuLibrary, ConcurrentLoadsAndFreesLeaveNothing) {
  CZuLibrary library(true);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&library] {
      for (int i = 0; i < 50; ++i) {
        EXPECT_OK(library.Load(kLibrary.c_str(), false));
        EXPECT_OK(library.Free());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_OK(library.Free());
  EXPECT_FALSE(IsLoaded(kLibrary));
}
