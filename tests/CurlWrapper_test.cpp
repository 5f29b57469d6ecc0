#include "ZuNetwork/CurlWrapper.h"

#include <pthread.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <future>
#include <thread>

#include "fakes/FakeCurlTest.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// What passes the loader's lower edge, noted by the functions below, which stand before those of
// the libraries.
std::vector<std::string>* gLookups = nullptr;
std::vector<std::string>* gLoads = nullptr;
// Stands for the marker below /tmp, which all processes share. A name that is never there, unless a
// test has a file of its own.
constexpr char kNoMarker[] = "/nonexistent/marker";
const char* gMarkerFile = kNoMarker;
std::vector<int>* gMarkerModes = nullptr;
std::atomic<int> gMutexCount{0};
pthread_mutex_t* gMutexes[4096];  // keeps the mutexes that the loader never frees from being lost
std::atomic<bool> gWatchesArrays{false};
std::atomic<size_t> gArrayCount{0};
std::atomic<size_t> gArraySize{0};

template <typename Function>
Function Next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void* CZuLibrary::Find(const char* name) const {
  using Real = void* (*)(const CZuLibrary*, const char*);
  if (gLookups != nullptr) gLookups->emplace_back(name);
  return Next<Real>("_ZNK10CZuLibrary4FindEPKc")(this, name);
}

CZuError CZuLibrary::Load(const char* path, bool global) {
  using Real = CZuError (*)(CZuLibrary*, const char*, bool);
  if (gLoads != nullptr) gLoads->push_back(std::string(path) + (global ? " true" : " false"));
  return Next<Real>("_ZN10CZuLibrary4LoadEPKcb")(this, path, global);
}

extern "C" int access(const char* path, int mode) noexcept {
  const bool isMarker = std::strcmp(path, "/tmp/KDREMOTEFILE_NO_OPENSSL_CALLBACK") == 0;
  if (isMarker && gMarkerModes != nullptr) gMarkerModes->push_back(mode);
  if (isMarker) path = gMarkerFile;
  return Next<int (*)(const char*, int)>("access")(path, mode);
}

extern "C" int pthread_mutex_init(pthread_mutex_t* mutex,
                                  const pthread_mutexattr_t* attributes) noexcept {
  const auto count = static_cast<size_t>(gMutexCount++);
  if (count < std::size(gMutexes)) gMutexes[count] = mutex;
  return Next<int (*)(pthread_mutex_t*, const pthread_mutexattr_t*)>("pthread_mutex_init")(
      mutex, attributes);
}

void* operator new[](size_t size) {
  if (gWatchesArrays) {
    ++gArrayCount;
    gArraySize = size;
  }
  void* const memory = std::malloc(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return std::malloc(size); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace {

void* const kHandle = reinterpret_cast<void*>(0x11);
void* const kMulti = reinterpret_cast<void*>(0x12);
void* const kPointer = reinterpret_cast<void*>(0x13);
constexpr int kResult = 77;  // of every libcurl function that returns a number

template <typename T>
T At(long address) {
  return reinterpret_cast<T>(address);
}

std::string Text(const char* text) { return text == nullptr ? "null" : text; }

// A forwarder as it is called, what libcurl is to see of it, and the results: libcurl's own,
// without a loadable library, and with one that lacks the function.
struct Forwarder {
  const char* label;
  const char* function;  // without its "curl_"
  std::function<std::string(CurlWrapper&)> call;
  std::string arguments;
  std::string result;
  std::string notInitialized;
  std::string missing;
};

int Trace(CURL*, curl_infotype, char*, size_t, void*) { return 0; }

// A forwarder without a result: the record alone tells that it was called.
template <typename Call>
std::function<std::string(CurlWrapper&)> Void(Call call) {
  return [call](CurlWrapper& curl) {
    call(curl);
    return std::string("void");
  };
}

template <typename Call>
std::function<std::string(CurlWrapper&)> Number(Call call) {
  return [call](CurlWrapper& curl) { return std::to_string(call(curl)); };
}

std::vector<Forwarder> TextForwarders() {
  const char* const kUninitialized = "CurlWrapper is not initialized.";
  const char* const kMissing = "Failed to load libcurl.";
  return {
      {"escape", "easy_escape",
       [](CurlWrapper& c) { return Text(c.Curl_easy_escape(kHandle, "a b", 2)); },
       " 0x11 \"a b\" 2", "a%20", "null", "null"},
      {"unescape", "easy_unescape",
       [](CurlWrapper& c) { return Text(c.Curl_easy_unescape(kHandle, "a%20b", 4, nullptr)); },
       " 0x11 \"a%20b\" 4 null", "a ", "null", "null"},
      {"version", "version", [](CurlWrapper& c) { return Text(c.Curl_version()); }, "",
       "libcurl/fake", kUninitialized, kMissing},
      {"version_info", "version_info",
       [](CurlWrapper& c) {
         const auto* const info = c.Curl_version_info(CURLVERSION_THIRD);
         return info == nullptr ? "null" : Text(info->version);
       },
       " 2", "libcurl/fake", "null", "null"},
      {"strerror", "easy_strerror",
       [](CurlWrapper& c) { return Text(c.Curl_easy_strerror(CURLE_GOT_NOTHING)); }, " 52",
       "a fake error", kUninitialized, kMissing},
  };
}

std::vector<Forwarder> PointerForwarders() {
  const auto shown = [](void* pointer) { return std::string(pointer ? "pointer" : "null"); };
  return {
      {"easy_init", "easy_init", [=](CurlWrapper& c) { return shown(c.Curl_easy_init()); }, "",
       "pointer", "null", "null"},
      {"multi_init", "multi_init", [=](CurlWrapper& c) { return shown(c.Curl_multi_init()); }, "",
       "pointer", "null", "null"},
      {"slist_append", "slist_append",
       [=](CurlWrapper& c) { return shown(c.Curl_slist_append(At<curl_slist*>(0x15), "A:1")); },
       " 0x15 \"A:1\"", "pointer", "null", "null"},
      {"free", "free", Void([](CurlWrapper& c) { c.Curl_free(At<char*>(0x15)); }), " 0x15", "void",
       "void", "void"},
      {"reset", "easy_reset", Void([](CurlWrapper& c) { c.Curl_easy_reset(kHandle); }), " 0x11",
       "void", "void", "void"},
      {"cleanup", "easy_cleanup", Void([](CurlWrapper& c) { c.Curl_easy_cleanup(kHandle); }),
       " 0x11", "void", "void", "void"},
      {"slist_free_all", "slist_free_all",
       Void([](CurlWrapper& c) { c.Curl_slist_free_all(At<curl_slist*>(0x16)); }), " 0x16", "void",
       "void", "void"},
      {"formfree", "formfree",
       Void([](CurlWrapper& c) { c.Curl_formfree(At<curl_httppost*>(0x17)); }), " 0x17", "void",
       "void", "void"},
      {"global_cleanup", "global_cleanup", Void([](CurlWrapper& c) { c.Curl_global_cleanup(); }),
       "", "void", "void", "void"},
  };
}

std::vector<Forwarder> NumberForwarders() {
  const auto row = [](const char* function, std::function<std::string(CurlWrapper&)> call,
                      const char* arguments, const char* unavailable) {
    return Forwarder{function,    function,   std::move(call), arguments, std::to_string(kResult),
                     unavailable, unavailable};
  };
  return {
      row("global_init", Number([](CurlWrapper& c) { return c.Curl_global_init(3); }), " 3", "2"),
      row("getdate", Number([](CurlWrapper& c) { return c.Curl_getdate("now", At<long*>(0x18)); }),
          " \"now\" 0x18", "-1"),
      row("easy_pause", Number([](CurlWrapper& c) { return c.Curl_easy_pause(kHandle, 5); }),
          " 0x11 5", "2"),
      row("easy_perform", Number([](CurlWrapper& c) { return c.Curl_easy_perform(kHandle); }),
          " 0x11", "2"),
      row("easy_getinfo", Number([](CurlWrapper& c) {
            return c.Curl_easy_getinfo(kHandle, CURLINFO_RESPONSE_CODE, kPointer);
          }),
          " 0x11 2097154", "2"),
      row("multi_add_handle",
          Number([](CurlWrapper& c) { return c.Curl_multi_add_handle(kMulti, kHandle); }),
          " 0x12 0x11", "1"),
      row("multi_remove_handle",
          Number([](CurlWrapper& c) { return c.Curl_multi_remove_handle(kMulti, kHandle); }),
          " 0x12 0x11", "1"),
      row("multi_perform",
          Number([](CurlWrapper& c) { return c.Curl_multi_perform(kMulti, At<int*>(0x19)); }),
          " 0x12 0x19", "1"),
      row("multi_fdset", Number([](CurlWrapper& c) {
            return c.Curl_multi_fdset(kMulti, At<fd_set*>(0x21), At<fd_set*>(0x22),
                                      At<fd_set*>(0x23), At<int*>(0x24));
          }),
          " 0x12 0x21 0x22 0x23 0x24", "1"),
      row("multi_timeout",
          Number([](CurlWrapper& c) { return c.Curl_multi_timeout(kMulti, At<long*>(0x25)); }),
          " 0x12 0x25", "1"),
  };
}

std::vector<Forwarder> OptionForwarders() {
  const auto row = [](const char* label, auto option, auto value, const std::string& shown) {
    return Forwarder{
        label,
        "easy_setopt",
        Number([=](CurlWrapper& c) { return c.Curl_easy_setopt(kHandle, option, value); }),
        " 0x11 " + shown,
        std::to_string(kResult),
        "2",
        "2"};
  };
  return {
      row("void*", CURLOPT_WRITEDATA, kPointer, Opt(CURLOPT_WRITEDATA, kPointer)),
      row("null void*", CURLOPT_HTTPHEADER, static_cast<void*>(nullptr),
          Opt(CURLOPT_HTTPHEADER, nullptr)),
      row("int", CURLOPT_SSL_VERIFYHOST, 2, Opt(CURLOPT_SSL_VERIFYHOST, 2)),
      row("negative int widened with zeros", CURLOPT_TIMEOUT, -1, Opt(CURLOPT_TIMEOUT, 4294967295)),
      row("smallest int widened with zeros", CURLOPT_TIMEOUT, -2147483647 - 1,
          Opt(CURLOPT_TIMEOUT, 2147483648)),
      row("long", CURLOPT_POSTFIELDSIZE, 5000000000L, Opt(CURLOPT_POSTFIELDSIZE, 5000000000)),
      row("negative long", CURLOPT_POSTFIELDSIZE, -1L, Opt(CURLOPT_POSTFIELDSIZE, -1)),
      row("long long", CURLOPT_INFILESIZE_LARGE, 6000000000LL,
          Opt(CURLOPT_INFILESIZE_LARGE, 6000000000)),
      row("negative long long", CURLOPT_INFILESIZE_LARGE, -1LL, Opt(CURLOPT_INFILESIZE_LARGE, -1)),
      row("const char*", CURLOPT_URL, "http://h/", Opt(CURLOPT_URL, "http://h/")),
      row("null const char*", CURLOPT_CUSTOMREQUEST, static_cast<const char*>(nullptr),
          Opt(CURLOPT_CUSTOMREQUEST, nullptr)),
      row("debug callback", CURLOPT_DEBUGFUNCTION, &Trace, Opt(CURLOPT_DEBUGFUNCTION, &Trace)),
  };
}

std::vector<Forwarder> FormForwarders() {
  auto* const first = At<curl_httppost**>(0x31);
  auto* const last = At<curl_httppost**>(0x32);
  const auto row = [](const char* label, auto call, const char* arguments) {
    return Forwarder{label, "formadd", Number(call), arguments, std::to_string(kResult), "3", "3"};
  };
  return {
      row(
          "text, text, pointer, number",
          [=](CurlWrapper& c) {
            return c.Curl_formadd(first, last, CURLFORM_COPYNAME, "n", CURLFORM_BUFFER, "f",
                                  CURLFORM_BUFFERPTR, kPointer, CURLFORM_BUFFERLENGTH, 5000000000L,
                                  CURLFORM_END);
          },
          " 0x31 0x32 1 \"n\" 11 \"f\" 12 0x13 13 5000000000 17"),
      row(
          "text, text, text",
          [=](CurlWrapper& c) {
            return c.Curl_formadd(first, last, CURLFORM_COPYNAME, "n", CURLFORM_FILE, "f",
                                  CURLFORM_CONTENTTYPE, "t", CURLFORM_END);
          },
          " 0x31 0x32 1 \"n\" 10 \"f\" 14 \"t\" 17"),
      row(
          "text, text",
          [=](CurlWrapper& c) {
            return c.Curl_formadd(first, last, CURLFORM_COPYNAME, "n", CURLFORM_COPYCONTENTS, "v",
                                  CURLFORM_END);
          },
          " 0x31 0x32 1 \"n\" 4 \"v\" 17"),
      row(
          "list, text, text",
          [=](CurlWrapper& c) {
            return c.Curl_formadd(first, last, CURLFORM_CONTENTHEADER, At<curl_slist*>(0x33),
                                  CURLFORM_COPYNAME, "n", CURLFORM_FILE, "f", CURLFORM_END);
          },
          " 0x31 0x32 15 0x33 1 \"n\" 10 \"f\" 17"),
  };
}

std::vector<Forwarder> AllForwarders() {
  std::vector<Forwarder> all;
  for (auto rows : {TextForwarders(), PointerForwarders(), NumberForwarders(), OptionForwarders(),
                    FormForwarders()}) {
    for (auto& row : rows) all.push_back(std::move(row));
  }
  return all;
}

std::set<std::string> ForwardedFunctions() {
  std::set<std::string> functions;
  for (const Forwarder& row : AllForwarders()) functions.insert(row.function);
  return functions;
}

class CurlWrapperTest : public FakeCurlTest {
 protected:
  CurlWrapperTest() {
    checksLeaks = false;  // the table calls with handles and results of its own
    for (const std::string& function : ForwardedFunctions()) fake.results[function] = kResult;
  }
  void TearDown() override {
    gLookups = gLoads = nullptr;
    fake.misuses.clear();
    FakeCurlTest::TearDown();
  }

  CurlWrapper& curl = CurlWrapper::gCurlWrapper;
};

TEST_F(CurlWrapperTest, EveryLibcurlFunctionOfTheLoaderIsInTheTable) {
  EXPECT_EQ(ForwardedFunctions().size(), 26u);
}

TEST_F(CurlWrapperTest, ForwardersPassTheirArgumentsAndReturnTheResult) {
  for (const Forwarder& row : AllForwarders()) {
    SCOPED_TRACE(std::string(row.function) + ": " + row.label);
    Mark();
    EXPECT_EQ(row.call(curl), row.result);
    EXPECT_THAT(Calls(), ElementsAre(row.function + row.arguments));
  }
}

TEST_F(CurlWrapperTest, UnescapeHandsTheLengthOut) {
  int length = -1;
  fake.results.clear();
  char* const text = curl.Curl_easy_unescape(nullptr, "a%00b", 0, &length);
  EXPECT_EQ(length, 3);
  EXPECT_EQ(std::string(text, 3), std::string("a\0b", 3));
  curl.Curl_free(text);
  EXPECT_THAT(fake.Alive(), IsEmpty());
}

TEST_F(CurlWrapperTest, StringOptionsAreToldFromOthers) {
  EXPECT_TRUE(curl.IsStringOption(CURLOPT_URL));
  EXPECT_FALSE(curl.IsStringOption(CURLOPT_HTTPHEADER));
}

TEST_F(CurlWrapperTest, EveryCallLooksItsFunctionUpAnew) {
  for (const Forwarder& row : AllForwarders()) {
    SCOPED_TRACE(row.label);
    std::vector<std::string> lookups;
    gLookups = &lookups;
    row.call(curl);
    row.call(curl);
    gLookups = nullptr;
    const std::string name = std::string("curl_") + row.function;
    EXPECT_THAT(lookups, ElementsAre(name, name));
  }
}

TEST_F(CurlWrapperTest, InitLoadsOnce) {
  std::vector<std::string> loads;
  gLoads = &loads;
  CurlWrapper wrapper;
  EXPECT_THAT(loads, ElementsAre("libcurl.so false"));
  EXPECT_TRUE(wrapper.Init());
  EXPECT_TRUE(wrapper.Init());
  EXPECT_STREQ(wrapper.Curl_version(), "libcurl/fake");
  EXPECT_EQ(loads.size(), 1u);
}

TEST_F(CurlWrapperTest, TheLibraryIsLoadedWithoutARequest) {
  std::vector<std::string> loads;
  gLoads = &loads;
  EXPECT_TRUE(curl.Init());
  EXPECT_THAT(loads, IsEmpty());
}

// Without a loadable library; the process starts anew for each test.

TEST(CurlWrapperAbsent, ForwardersReturnTheirNotInitializedValue) {
  const LibraryFolder folder;
  folder.Run([] {
    CurlWrapper& curl = CurlWrapper::gCurlWrapper;
    EXPECT_FALSE(curl.Init());
    EXPECT_FALSE(curl.IsStringOption(CURLOPT_URL));
    for (const Forwarder& row : AllForwarders()) {
      EXPECT_EQ(row.call(curl), row.notInitialized) << row.function << ": " << row.label;
    }
  });
}

TEST(CurlWrapperAbsent, EveryCallTriesToLoadAgain) {
  const LibraryFolder folder;
  folder.Run([] {
    std::vector<std::string> loads;
    gLoads = &loads;
    for (const Forwarder& row : AllForwarders()) {
      loads.clear();
      row.call(CurlWrapper::gCurlWrapper);
      EXPECT_FALSE(loads.empty()) << row.function;
      for (const std::string& load : loads) EXPECT_EQ(load, "libcurl.so false");
    }
    gLoads = nullptr;
  });
}

TEST(CurlWrapperAbsent, TheNextCallFindsALibraryThatAppeared) {
  const LibraryFolder folder;
  folder.Run([&] {
    CurlWrapper& curl = CurlWrapper::gCurlWrapper;
    EXPECT_STREQ(curl.Curl_version(), "CurlWrapper is not initialized.");
    EXPECT_EQ(curl.Curl_easy_perform(nullptr), CURLE_FAILED_INIT);
    folder.Install("complete");
    EXPECT_STREQ(curl.Curl_version(), "libcurl/fake");
    const FakeLibrary fake;
    fake->results["easy_perform"] = 28;
    void* const handle = curl.Curl_easy_init();
    EXPECT_EQ(curl.Curl_easy_perform(handle), CURLE_OPERATION_TIMEDOUT);
    curl.Curl_easy_cleanup(handle);
  });
}

TEST(CurlWrapperAbsent, FirstCallsOnSeveralThreadsAllFindIt) {
  const LibraryFolder folder;
  folder.Run([&] {
    folder.Install("complete");
    std::vector<std::future<std::string>> versions;
    for (int i = 0; i < 4; ++i) {
      versions.push_back(std::async(std::launch::async, [] {
        return std::string(CurlWrapper::gCurlWrapper.Curl_version());
      }));
    }
    for (auto& version : versions) EXPECT_EQ(version.get(), "libcurl/fake");
  });
}

TEST(CurlWrapperMissing, OnlyTheForwarderOfTheMissingFunctionFails) {
  const LibraryFolder folder;
  folder.Run([&] {
    for (const std::string& function : ForwardedFunctions()) {
      SCOPED_TRACE(function);
      folder.Install("without_curl_" + function);
      CurlWrapper curl;
      EXPECT_TRUE(curl.Init());
      const FakeLibrary fake;
      for (const std::string& other : ForwardedFunctions()) fake->results[other] = kResult;
      for (const Forwarder& row : AllForwarders()) {
        if (row.function == function) {
          EXPECT_EQ(row.call(curl), row.missing) << row.label;
        } else if (row.result != "void") {
          EXPECT_NE(row.call(curl), row.missing) << row.label;
        }
      }
    }
  });
}

TEST(CurlWrapperMissing, TheDestructorGivesTheLibraryUp) {
  const LibraryFolder folder;
  folder.Run([&] {
    folder.Install("complete");
    {
      CurlWrapper curl;
      EXPECT_STREQ(curl.Curl_version(), "libcurl/fake");
      void* const loaded = dlopen("libcurl.so", RTLD_LAZY | RTLD_NOLOAD);
      ASSERT_NE(loaded, nullptr);
      dlclose(loaded);
    }
    EXPECT_EQ(dlopen("libcurl.so", RTLD_LAZY | RTLD_NOLOAD), nullptr);
  });
}

// The thread functions of an old OpenSSL.

struct CryptoCase {
  const char* variant;
  bool marker;
  std::vector<std::string> installed;  // the calls at load
  int mutexes;                         // made at load
  size_t arrays;
  std::vector<std::string> reset;  // the calls of the destructor
};

const CryptoCase kCryptoCases[] = {
    {"crypto",
     false,
     {"CRYPTO_num_locks", "CRYPTO_set_id_callback function",
      "CRYPTO_set_locking_callback function"},
     1,
     1,
     {"CRYPTO_set_id_callback null", "CRYPTO_set_locking_callback null"}},
    {"crypto", true, {}, 0, 0, {"CRYPTO_set_id_callback null", "CRYPTO_set_locking_callback null"}},
    {"crypto_without_num_locks",
     false,
     {},
     1,
     0,
     {"CRYPTO_set_id_callback null", "CRYPTO_set_locking_callback null"}},
    {"crypto_without_set_id",
     false,
     {"CRYPTO_num_locks"},
     1,
     1,
     {"CRYPTO_set_locking_callback null"}},
    {"crypto_without_set_locking",
     false,
     {"CRYPTO_num_locks", "CRYPTO_set_id_callback function"},
     1,
     1,
     {"CRYPTO_set_id_callback null"}},
    {"crypto_without_callbacks", false, {"CRYPTO_num_locks"}, 1, 1, {}},
    {"crypto_without_num_locks_and_set_id", false, {}, 1, 0, {"CRYPTO_set_locking_callback null"}},
    {"complete", false, {}, 1, 0, {}},
};

void PrintTo(const CryptoCase& row, std::ostream* out) {
  *out << row.variant << (row.marker ? " with the marker file" : "");
}

class CurlWrapperCrypto : public testing::TestWithParam<CryptoCase> {};

TEST_P(CurlWrapperCrypto, CallbacksAreInstalledAtLoadAndResetAtTheEnd) {
  const CryptoCase& row = GetParam();
  const LibraryFolder folder;
  folder.Run([&] {
    const std::string marker = folder.Path() + "/marker";
    std::vector<int> modes;
    gMarkerFile = marker.c_str();
    gMarkerModes = &modes;
    if (row.marker) std::ofstream(marker) << "";
    folder.Install(row.variant);
    const FakeLibrary fake;
    {
      const int mutexes = gMutexCount;
      gWatchesArrays = true;
      CurlWrapper curl;
      gWatchesArrays = false;
      EXPECT_EQ(fake->calls, row.installed);
      EXPECT_EQ(gMutexCount - mutexes, row.mutexes);
      EXPECT_EQ(gArrayCount, row.arrays);
      EXPECT_EQ(gArraySize, row.arrays * 41 * sizeof(void*));
      EXPECT_TRUE(curl.Init());
      EXPECT_STREQ(curl.Curl_version(), "libcurl/fake");
      fake->calls.clear();
      // Looked at once only: what becomes of the file afterwards changes nothing.
      std::filesystem::remove(marker);
      if (!row.marker) std::ofstream(marker) << "";
      EXPECT_TRUE(curl.Init());
    }
    EXPECT_THAT(modes, ElementsAre(F_OK));
    EXPECT_EQ(fake->calls, row.reset);
    gMarkerFile = kNoMarker;
    gMarkerModes = nullptr;
    std::filesystem::remove(marker);
  });
}

INSTANTIATE_TEST_SUITE_P(Variants, CurlWrapperCrypto, testing::ValuesIn(kCryptoCases),
                         [](const testing::TestParamInfo<CryptoCase>& row) {
                           return row.param.variant +
                                  std::string(row.param.marker ? "_with_marker" : "");
                         });

TEST(CurlWrapperUnload, TheProcessWideObjectResetsTheCallbacks) {
  const LibraryFolder folder;
  folder.Install("crypto");
  folder.Run(
      [] {
        static const FakeLibrary fake;
        EXPECT_NE(fake->crypto.lock, nullptr);
        fake->announceCrypto = true;
      },
      "CRYPTO_set_id_callback null\nCRYPTO_set_locking_callback null\n$");
}

TEST(CurlWrapperUnload, NothingIsCalledWhenNothingWasLoaded) {
  const LibraryFolder folder;
  folder.Run([&] {
    std::vector<std::string> lookups;
    gLookups = &lookups;
    { const CurlWrapper curl; }
    gLookups = nullptr;
    EXPECT_THAT(lookups, IsEmpty());
  });
}

}  // namespace
