#include "ZuUtils/ZuFile.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "support/Expect.h"
#include "support/Heap.h"
#include "support/Sanitizers.h"
#include "support/SystemFunction.h"
#include "support/TempDir.h"

namespace {

SystemFunction<ssize_t(int, void*, size_t)> gRead{"read"};
SystemFunction<int(int)> gClose{"close"};
SystemFunction<int(int, struct stat*)> gStat{"fstat"};

}  // namespace

extern "C" {

ssize_t read(int descriptor, void* buffer, size_t size) { return gRead(descriptor, buffer, size); }

int close(int descriptor) { return gClose(descriptor); }

int fstat(int descriptor, struct stat* status) noexcept { return gStat(descriptor, status); }

}  // extern "C"

namespace {

std::size_t OpenDescriptors() {
  std::size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    count += !entry.path().empty();
  }
  return count;
}

// The outputs of ReadWholeFile, set to what no call may leave behind by accident.
struct Outputs {
  char before[7] = "before";
  char* content = before;
  std::size_t length = 4711;
  ~Outputs() {
    if (content != before) delete[] content;
  }
};

testing::AssertionResult Untouched(const Outputs& out) {
  if (out.content == out.before && out.length == 4711) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "outputs were written, length " << out.length;
}

testing::AssertionResult Holds(const Outputs& out, const std::string& expected) {
  if (out.content == out.before) return testing::AssertionFailure() << "nothing was read";
  if (out.length != expected.size() || std::memcmp(out.content, expected.data(), out.length) != 0) {
    return testing::AssertionFailure()
           << "read " << out.length << " bytes, expected " << expected.size() << " or others";
  }
  if (out.content[out.length] != '\0') return testing::AssertionFailure() << "no terminator";
  return testing::AssertionSuccess();
}

std::string Content(std::size_t length) {
  std::string content(length, ' ');
  for (std::size_t i = 0; i < length; ++i) content[i] = static_cast<char>(i * 7 + i / 251);
  return content;
}

// Every test ends with as many open descriptors as it began with.
class ZuFile : public testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(OpenDescriptors(), m_descriptors); }

  std::string PathOf(const std::string& name) const { return m_folder / name; }

  std::string NewFile(const std::string& name, const std::string& content) const {
    WriteFile(m_folder / name, content);
    return PathOf(name);
  }

  TempDir m_folder;
  std::size_t m_descriptors = OpenDescriptors();
};

constexpr unsigned long long kGigabyte = 1ull << 30;

}  // namespace

static_assert(!std::is_copy_constructible_v<CZuFile> && !std::is_copy_assignable_v<CZuFile>);

TEST_F(ZuFile, ReadsFilesOfEveryLength) {
  for (const std::size_t length : {1u, 2u, 4094u, 4095u, 4096u, 4097u, 8191u, 8192u, 3000000u}) {
    const std::string content = Content(length);
    const std::string path = NewFile("file", content);
    Outputs out;
    EXPECT_OK(CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length));
    EXPECT_TRUE(Holds(out, content));
  }
}

TEST_F(ZuFile, ReadsByRelativePathAndThroughLinks) {
  const std::string path = NewFile("file", "content");
  std::filesystem::create_symlink(path, PathOf("link"));
  const std::string relative = std::filesystem::relative(path).string();
  for (const std::string& name : {PathOf("link"), relative}) {
    Outputs out;
    EXPECT_OK(CZuFile::ReadWholeFile(name.c_str(), &out.content, out.length)) << name;
    EXPECT_TRUE(Holds(out, "content")) << name;
  }
}

TEST_F(ZuFile, ReadsFilesOfProcThatTellNoSize) {
  CZuFile file;
  unsigned long long size = 99;
  ASSERT_OK(file.Open("/proc/self/status", 0, 0));
  EXPECT_OK(file.Size(size));
  EXPECT_EQ(size, 0u);
  EXPECT_OK(file.Close());
  Outputs out;
  ASSERT_OK(CZuFile::ReadWholeFile("/proc/self/status", &out.content, out.length));
  EXPECT_EQ(std::string(out.content, out.length).rfind("Name:\tZuFile_test\n", 0), 0u);
  EXPECT_EQ(std::strlen(out.content), out.length);
}

TEST_F(ZuFile, ReadsBeyondASizeOfZero) {
  const std::string content = Content(1000000);
  const std::string path = NewFile("file", content);
  const Replacement noSize(gStat, [](int descriptor, struct stat* status) {
    const int result = gStat.Real(descriptor, status);
    status->st_size = 0;
    return result;
  });
  Outputs out;
  EXPECT_OK(CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length));
  EXPECT_TRUE(Holds(out, content));
}

TEST_F(ZuFile, EmptyFileIsAnErrorOfItsOwn) {
  const std::string path = NewFile("file", "");
  Outputs out;
  EXPECT_FAILS(CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length),
               Win32Code(kErrorEmpty), ("File [" + path + "] is empty").c_str());
  EXPECT_TRUE(Untouched(out));
}

TEST_F(ZuFile, FileThatCannotBeOpenedIsTheSystemsError) {
  std::filesystem::create_symlink("loop", PathOf("loop"));
  const std::string plain = NewFile("file", "content");
  const struct {
    std::string path;
    int err;
    const char* text;
  } rows[] = {
      {PathOf("missing"), ENOENT, "No such file or directory"},
      {PathOf("missing/file"), ENOENT, "No such file or directory"},
      {"", ENOENT, "No such file or directory"},
      {plain + "/below", ENOTDIR, "Not a directory"},
      {PathOf("loop"), ELOOP, "Too many levels of symbolic links"},
      {PathOf(std::string(5000, 'n')), ENAMETOOLONG, "File name too long"},
      {PathOf(""), EISDIR, "Is a directory"},
      {"/proc/self/fd", EISDIR, "Is a directory"},
  };
  for (const auto& row : rows) {
    Outputs out;
    const CZuError read = CZuFile::ReadWholeFile(row.path.c_str(), &out.content, out.length);
    EXPECT_FAILS(read, ErrNoCode(row.err), ("Failed to open file [" + row.path + "]").c_str());
    EXPECT_FAILS(read, ErrNoCode(row.err), ("Failed to read file [" + row.path + "]").c_str());
    EXPECT_FAILS(read, ErrNoCode(row.err), row.text);
    EXPECT_TRUE(Untouched(out));
    CZuFile file;
    EXPECT_FAILS(file.Open(row.path.c_str(), 0, 0), ErrNoCode(row.err), row.path.c_str());
    unsigned long long size = 99;
    EXPECT_FAILS(file.Size(size), Win32Code(kErrorInvalidState), "File not open") << row.path;
    EXPECT_EQ(size, 99u);
  }
}

namespace {

// Ends the calling process, a child of the test: 0 if nobody's attempt fails as it should.
[[noreturn]] void ReadAsNobody(const char* path) {
  constexpr uid_t kNobody = 65534;
  if (geteuid() == 0 && setresuid(kNobody, kNobody, kNobody) != 0) _exit(2);
  Outputs out;
  CZuFile file;
  const CZuError opened = file.Open(path, 0, 0);
  const CZuError error = CZuFile::ReadWholeFile(path, &out.content, out.length);
  std::cerr << error.AsString() << std::endl;
  const bool refused = FXErrorUtil::IsErrNo(error, EACCES) && FXErrorUtil::IsErrNo(opened, EACCES);
  _exit(refused && Untouched(out) ? 0 : 1);
}

}  // namespace

TEST_F(ZuFile, UnreadableFileIsPermissionDenied) {
  const std::string path = NewFile("secret", "content");
  ASSERT_EQ(chmod(PathOf("").c_str(), 0755), 0);
  ASSERT_EQ(chmod(path.c_str(), 0), 0);
  EXPECT_EXIT(ReadAsNobody(path.c_str()), testing::ExitedWithCode(0), "Permission denied");
}

TEST_F(ZuFile, NullArgumentsAreInvalid) {
  Outputs out;
  EXPECT_FAILS(CZuFile::ReadWholeFile(nullptr, &out.content, out.length),
               Win32Code(kErrorInvalidArgument), "Null parameter passed");
  EXPECT_TRUE(Untouched(out));
  EXPECT_FAILS(CZuFile::ReadWholeFile("/proc/self/status", nullptr, out.length),
               Win32Code(kErrorInvalidArgument), "Null parameter passed");
  EXPECT_TRUE(Untouched(out));
  CZuFile file;
  EXPECT_FAILS(file.Open(nullptr, 0, 0), Win32Code(kErrorInvalidArgument), "Null parameter passed");
}

TEST_F(ZuFile, OpenTellsTheSizeUntilItIsClosed) {
  const std::string path = NewFile("file", "12345");
  CZuFile file;
  unsigned long long size = 99;
  EXPECT_FAILS(file.Size(size), Win32Code(kErrorInvalidState), "File not open");
  EXPECT_EQ(size, 99u);
  EXPECT_OK(file.Close()) << "nothing is open";
  ASSERT_OK(file.Open(path.c_str(), 0, 0));
  EXPECT_EQ(OpenDescriptors(), m_descriptors + 1);
  EXPECT_OK(file.Size(size));
  EXPECT_EQ(size, 5u);
  NewFile("file", "1234567");
  EXPECT_OK(file.Size(size));
  EXPECT_EQ(size, 7u) << "as it is now";
  EXPECT_OK(file.Close());
  EXPECT_EQ(OpenDescriptors(), m_descriptors);
  EXPECT_OK(file.Close());
  EXPECT_FAILS(file.Size(size), Win32Code(kErrorInvalidState), "File not open");
  EXPECT_EQ(size, 7u);
}

TEST_F(ZuFile, EmptyFileOpensWithSizeZero) {
  const std::string path = NewFile("file", "");
  CZuFile file;
  unsigned long long size = 99;
  ASSERT_OK(file.Open(path.c_str(), 0, 0));
  EXPECT_OK(file.Size(size));
  EXPECT_EQ(size, 0u);
}

TEST_F(ZuFile, SecondOpenIsRefusedAndKeepsTheFirst) {
  const std::string first = NewFile("first", "1");
  const std::string second = NewFile("second", "22");
  CZuFile file;
  unsigned long long size = 99;
  ASSERT_OK(file.Open(first.c_str(), 0, 0));
  EXPECT_FAILS(file.Open(second.c_str(), 0, 0), Win32Code(kErrorInvalidState), "File already open");
  EXPECT_OK(file.Size(size));
  EXPECT_EQ(size, 1u);
  EXPECT_EQ(OpenDescriptors(), m_descriptors + 1);
  EXPECT_OK(file.Close());
  ASSERT_OK(file.Open(second.c_str(), 0, 0)) << "may be used again";
  EXPECT_OK(file.Size(size));
  EXPECT_EQ(size, 2u);
}

TEST_F(ZuFile, DestructorClosesTheFile) {
  const std::string path = NewFile("file", "content");
  {
    CZuFile file;
    ASSERT_OK(file.Open(path.c_str(), 0, 0));
    EXPECT_EQ(OpenDescriptors(), m_descriptors + 1);
  }
  EXPECT_EQ(OpenDescriptors(), m_descriptors);
}

TEST_F(ZuFile, ReadingWholeFilesLeavesNoDescriptorWhateverHappens) {
  const std::string path = NewFile("file", "content");
  const std::string empty = NewFile("empty", "");
  const std::string folder = PathOf("");
  const std::string missing = PathOf("missing");
  for (int i = 0; i < 50; ++i) {
    for (const std::string& name : {path, empty, folder, missing}) {
      Outputs out;
      EXPECT_EQ(Failed(CZuFile::ReadWholeFile(name.c_str(), &out.content, out.length)),
                name != path);
    }
  }
  EXPECT_EQ(OpenDescriptors(), m_descriptors);
}

TEST_F(ZuFile, ReadsOnAfterInterruptionsAndShortCounts) {
  const std::string content = Content(20000);
  const std::string path = NewFile("file", content);
  int calls = 0;
  const Replacement interrupted(gRead, [&calls](int descriptor, void* buffer, size_t size) {
    if (++calls % 3 != 0) {
      errno = EINTR;
      return ssize_t{-1};
    }
    return gRead.Real(descriptor, buffer, std::min<size_t>(size, 777));
  });
  Outputs out;
  EXPECT_OK(CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length));
  EXPECT_TRUE(Holds(out, content));
  EXPECT_GT(calls, 60);
}

TEST_F(ZuFile, ReadErrorIsReportedAndLeavesTheOutputs) {
  const std::string path = NewFile("file", Content(20000));
  for (const int goodCalls : {0, 1, 2}) {
    int calls = 0;
    const Replacement broken(gRead, [&](int descriptor, void* buffer, size_t size) {
      if (calls++ < goodCalls) {
        return gRead.Real(descriptor, buffer, std::min<size_t>(size, 100));
      }
      errno = EIO;
      return ssize_t{-1};
    });
    Outputs out;
    const CZuError error = CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length);
    EXPECT_FAILS(error, ErrNoCode(EIO), "Input/output error");
    EXPECT_FAILS(error, ErrNoCode(EIO), ("Failed to read file [" + path + "]").c_str());
    EXPECT_TRUE(Untouched(out));
    EXPECT_EQ(calls, goodCalls + 1);
  }
}

TEST_F(ZuFile, FileThatShrinksWhileItIsReadEndsWhereItEndsNow) {
  const std::string content = Content(20000);
  for (const std::size_t left : {12345u, 100u, 0u}) {
    const std::string path = NewFile("file", content);
    int calls = 0;
    const Replacement shrinking(gRead, [&](int descriptor, void* buffer, size_t size) {
      if (calls++ == 0) std::filesystem::resize_file(path, left);
      return gRead.Real(descriptor, buffer, size);
    });
    Outputs out;
    const CZuError error = CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length);
    if (left > 0) {
      EXPECT_OK(error);
      EXPECT_TRUE(Holds(out, content.substr(0, left)));
    } else {
      EXPECT_FAILS(error, Win32Code(kErrorEmpty), "is empty");
      EXPECT_TRUE(Untouched(out));
    }
  }
}

TEST_F(ZuFile, FileThatGrowsWhileItIsReadIsReadToItsNewEnd) {
  const std::string path = NewFile("file", "begin");
  const std::string more = Content(10000);
  std::string expected = "begin";
  int calls = 0;
  const Replacement growing(gRead, [&](int descriptor, void* buffer, size_t size) {
    if (++calls < 10) {
      std::ofstream(path, std::ios::app | std::ios::binary) << more;
      expected += more;
    }
    return gRead.Real(descriptor, buffer, size);
  });
  Outputs out;
  EXPECT_OK(CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length));
  EXPECT_EQ(expected.size(), 90005u);
  EXPECT_TRUE(Holds(out, expected));
}

TEST_F(ZuFile, FileThatOutgrowsTheMemoryIsOutOfMemory) {
  const std::string path = NewFile("file", "begin");
  const Replacement endless(gRead, [](int, void* buffer, size_t size) {
    std::memset(buffer, 'x', size);
    return static_cast<ssize_t>(size);
  });
  Outputs out;
  const heap::Failing limit(heap::kNew, (1 << 20) + 1);
  EXPECT_FAILS(CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length),
               Win32Code(kErrorNotEnoughMemory), ("Failed to read file [" + path + "]").c_str());
  EXPECT_TRUE(Untouched(out));
}

TEST_F(ZuFile, FileAboveFourGigabytesHasItsSizeAndMayExceedTheMemory) {
  const std::string path = NewFile("sparse", "begin");
  ASSERT_EQ(truncate(path.c_str(), 5 * kGigabyte + 123), 0);
  CZuFile file;
  unsigned long long size = 99;
  ASSERT_OK(file.Open(path.c_str(), 0, 0));
  EXPECT_OK(file.Size(size));
  EXPECT_EQ(size, 5 * kGigabyte + 123);
  EXPECT_OK(file.Close());

  Outputs out;
  const heap::Failing limit(heap::kNew,
                            5 * kGigabyte + 1);  // what fits the content short by its end
  EXPECT_FAILS(CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length),
               Win32Code(kErrorNotEnoughMemory), "No memory for 5368713");
  EXPECT_TRUE(Untouched(out));
}

namespace {

[[noreturn]] void ReadWithinHalfAGigabyte(const char* path) {
  const rlimit limit = {kGigabyte / 2, kGigabyte / 2};
  if (setrlimit(RLIMIT_AS, &limit) != 0) _exit(2);
  Outputs out;
  const CZuError error = CZuFile::ReadWholeFile(path, &out.content, out.length);
  std::cerr << error.AsString() << std::endl;
  _exit(FXErrorUtil::IsWin32(error, kErrorNotEnoughMemory) && Untouched(out) ? 0 : 1);
}

}  // namespace

TEST_F(ZuFile, FileThatExceedsTheAddressSpaceIsOutOfMemory) {
  if (kSanitized) GTEST_SKIP() << "sanitizers need the address space";
  const std::string path = NewFile("sparse", "begin");
  ASSERT_EQ(truncate(path.c_str(), 5 * kGigabyte), 0);
  EXPECT_EXIT(ReadWithinHalfAGigabyte(path.c_str()), testing::ExitedWithCode(0),
              "No memory for 5368713216 bytes");
}

TEST_F(ZuFile, LargestSizesAreOutOfMemoryToo) {
  const std::string path = NewFile("file", "content");
  for (const off_t claimed : {off_t{1} << 40, off_t{1} << 62, off_t{0x7FFFFFFFFFFFFFFF}}) {
    const Replacement large(gStat, [claimed](int descriptor, struct stat* status) {
      const int result = gStat.Real(descriptor, status);
      status->st_size = claimed;
      return result;
    });
    Outputs out;
    EXPECT_FAILS(CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length),
                 Win32Code(kErrorNotEnoughMemory), "No memory for ");
    EXPECT_TRUE(Untouched(out));
    CZuFile file;
    unsigned long long size = 99;
    ASSERT_OK(file.Open(path.c_str(), 0, 0));
    EXPECT_OK(file.Size(size));
    EXPECT_EQ(size, static_cast<unsigned long long>(claimed));
  }
}

TEST_F(ZuFile, SizeThatCannotBeHadIsTheSystemsError) {
  const std::string path = NewFile("file", "content");
  CZuFile file;
  ASSERT_OK(file.Open(path.c_str(), 0, 0));
  const Replacement broken(gStat, [](int, struct stat*) {
    errno = ESTALE;
    return -1;
  });
  unsigned long long size = 99;
  EXPECT_FAILS(file.Size(size), ErrNoCode(ESTALE), "Failed to get the size of the file");
  EXPECT_EQ(size, 99u);
  Outputs out;
  EXPECT_FAILS(CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length), ErrNoCode(ESTALE),
               ("Failed to read file [" + path + "]").c_str());
  EXPECT_TRUE(Untouched(out));
}

TEST_F(ZuFile, FailedCloseIsReportedOnceAndGivesTheFileUp) {
  const std::string path = NewFile("file", "content");
  CZuFile file;
  ASSERT_OK(file.Open(path.c_str(), 0, 0));
  int calls = 0;
  {
    const Replacement broken(gClose, [&calls](int descriptor) {
      ++calls;
      gClose.Real(descriptor);
      errno = EIO;
      return -1;
    });
    EXPECT_FAILS(file.Close(), ErrNoCode(EIO), "Failed to close file: Input/output error");
    EXPECT_OK(file.Close()) << "the number may be another file's by now";
  }
  EXPECT_EQ(calls, 1);
  unsigned long long size = 99;
  EXPECT_FAILS(file.Size(size), Win32Code(kErrorInvalidState), "File not open");
  EXPECT_OK(file.Open(path.c_str(), 0, 0)) << "may be used again";
}

TEST_F(ZuFile, WhatWasReadCountsWhenClosingFails) {
  const std::string path = NewFile("file", "content");
  const Replacement broken(gClose, [](int descriptor) {
    gClose.Real(descriptor);
    errno = EIO;
    return -1;
  });
  Outputs out;
  EXPECT_OK(CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length));
  EXPECT_TRUE(Holds(out, "content"));
}

TEST_F(ZuFile, WholeFileIsReadWhateverTheObjectHolds) {
  const std::string first = NewFile("first", "1");
  const std::string second = NewFile("second", "22");
  CZuFile file;
  ASSERT_OK(file.Open(first.c_str(), 0, 0));
  Outputs out;
  EXPECT_OK(file.ReadWholeFile(second.c_str(), &out.content, out.length));
  EXPECT_TRUE(Holds(out, "22"));
  unsigned long long size = 99;
  EXPECT_OK(file.Size(size));
  EXPECT_EQ(size, 1u);
}

TEST_F(ZuFile, FilesAreReadOnSeveralThreads) {
  const std::string content = Content(50000);
  const std::string path = NewFile("file", content);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) {
        Outputs out;
        EXPECT_OK(CZuFile::ReadWholeFile(path.c_str(), &out.content, out.length));
        EXPECT_TRUE(Holds(out, content));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}
