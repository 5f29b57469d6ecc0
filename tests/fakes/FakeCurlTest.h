#pragma once

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

#include "fakes/FakeCurl.h"
#include "support/Expect.h"

// The recording library that this process loads by the name "libcurl.so", held for as long as the
// object lives.
class FakeLibrary {
 public:
  FakeLibrary() : m_handle(dlopen("libcurl.so", RTLD_LAZY | RTLD_LOCAL)) {
    m_fake = Find<FakeCurl* (*)()>("fake_curl")();
    m_reset = Find<void (*)()>("fake_curl_reset");
  }
  ~FakeLibrary() { dlclose(m_handle); }
  FakeLibrary(const FakeLibrary&) = delete;
  FakeLibrary& operator=(const FakeLibrary&) = delete;

  FakeCurl& operator*() const { return *m_fake; }
  FakeCurl* operator->() const { return m_fake; }
  void Reset() const { m_reset(); }

 private:
  template <typename Function>
  Function Find(const char* name) const {
    void* const address = m_handle == nullptr ? nullptr : dlsym(m_handle, name);
    if (address == nullptr) {
      throw std::runtime_error("run with LD_LIBRARY_PATH=" FAKE_CURL_DIR "/complete");
    }
    return reinterpret_cast<Function>(address);
  }

  void* m_handle;
  FakeCurl* m_fake = nullptr;
  void (*m_reset)() = nullptr;
};

// The beginning of the two not-initialised texts; "function." or "functions." follows.
inline const std::string kNotInitialized =
    "KdProtocol class is not initialized yet. Call initialize function before any other ";

constexpr int kRefusal = CURLE_UNKNOWN_OPTION;  // what libcurl answers where a test says so
constexpr int kStale = 99;                      // in m_curlCode before a call
constexpr size_t kErrorBufferSize = 256;

inline bool IsCleared(const char* buffer) {
  return std::string(buffer, kErrorBufferSize) == std::string(kErrorBufferSize, '\0');
}

// A test on the recording library: it begins with an empty record and ends with nothing left alive.
class FakeCurlTest : public testing::Test {
 protected:
  FakeCurlTest() { library.Reset(); }
  void TearDown() override {
    EXPECT_THAT(fake.misuses, testing::IsEmpty());
    if (checksLeaks) {
      EXPECT_THAT(fake.Alive(), testing::IsEmpty());
    }
    library.Reset();
  }

  // The options set since `mark`, as Opt() shows them.
  std::vector<std::string> Options() const { return fake.CallsTo("easy_setopt handle1 ", mark); }
  std::vector<std::string> Calls() const { return fake.CallsTo("", mark); }
  void Mark() { mark = fake.calls.size(); }

  FakeLibrary library;
  FakeCurl& fake = *library;
  size_t mark = 0;
  bool checksLeaks = true;
};

// The folder in which a new process looks for libcurl.so. It begins with a file that is no library;
// Install() puts a variant in its place. A process that was started with a folder shares it.
class LibraryFolder {
 public:
  LibraryFolder() {
    if (const char* const inherited = std::getenv(kVariable)) {
      m_path = inherited;
      return;
    }
    std::string path = testing::TempDir() + "fakecurl.XXXXXX";
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("no temporary folder");
    m_path = path;
    m_isOwner = true;
    Remove();
  }
  ~LibraryFolder() {
    if (m_isOwner) std::filesystem::remove_all(m_path);
  }
  LibraryFolder(const LibraryFolder&) = delete;
  LibraryFolder& operator=(const LibraryFolder&) = delete;

  const std::string& Path() const { return m_path; }

  void Install(const std::string& variant) const {
    std::filesystem::remove(m_path + "/libcurl.so");
    std::filesystem::create_symlink(FAKE_CURL_DIR "/" + variant + "/libcurl.so",
                                    m_path + "/libcurl.so");
  }
  void Remove() const {
    std::filesystem::remove(m_path + "/libcurl.so");
    std::filesystem::copy_file(FAKE_CURL_DIR "/absent/libcurl.so", m_path + "/libcurl.so");
  }

  // Runs `body` in a new process that looks for libcurl.so here. Its failed expectations are told
  // on standard error, where `output` must stand too, and are failures of this test.
  void Run(const std::function<void()>& body, const std::string& output = "") const {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // starts the executable anew
    setenv("LD_LIBRARY_PATH", m_path.c_str(), 1);
    setenv(kVariable, m_path.c_str(), 1);
    EXPECT_EXIT(
        {
          body();
          ExitWithVerdict();
        },
        testing::ExitedWithCode(0), output);
    unsetenv(kVariable);
  }

 private:
  static constexpr char kVariable[] = "FAKE_CURL_FOLDER";

  [[noreturn]] static void ExitWithVerdict() {
    const testing::TestResult& result =
        *testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int i = 0; i < result.total_part_count(); ++i) {
      const testing::TestPartResult& part = result.GetTestPartResult(i);
      if (part.failed()) {
        std::fprintf(stderr, "%s:%d: %s\n", part.file_name(), part.line_number(), part.message());
      }
    }
    std::exit(result.Failed() ? EXIT_FAILURE : EXIT_SUCCESS);
  }

  std::string m_path;
  bool m_isOwner = false;
};
