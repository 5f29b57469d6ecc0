#include "ZuNetwork/KdTransferIO.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <thread>

#include "support/Expect.h"
#include "support/SystemFunction.h"
#include "support/TempDir.h"

using testing::ElementsAre;

namespace fs = std::filesystem;

namespace {

SystemFunction<ssize_t(int, const void*, size_t)> gWrite{"write"};
SystemFunction<ssize_t(int, void*, size_t)> gRead{"read"};
SystemFunction<int(int)> gClose{"close"};

}  // namespace

extern "C" ssize_t write(int descriptor, const void* data, size_t size) {
  return gWrite(descriptor, data, size);
}

extern "C" ssize_t read(int descriptor, void* data, size_t size) {
  return gRead(descriptor, data, size);
}

extern "C" int close(int descriptor) { return gClose(descriptor); }

namespace {

size_t Give(KdCURL::FileSink& sink, std::string bytes) {
  return KdCURL::FileSink::Write(bytes.data(), 1, bytes.size(), &sink);
}

template <typename Source>
std::string Take(Source& source, size_t size) {
  std::string bytes(size, '?');
  const size_t length = Source::Read(bytes.data(), 1, size, &source);
  EXPECT_LE(length, size);
  return bytes.substr(0, length);
}

mode_t Permissions(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

class Umask {
 public:
  explicit Umask(mode_t mask) : m_before(umask(mask)) {}
  ~Umask() { umask(m_before); }
  Umask(const Umask&) = delete;
  Umask& operator=(const Umask&) = delete;

 private:
  mode_t m_before;
};

class FileSink : public testing::Test {
 protected:
  std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(m_folder.Path())) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  TempDir m_folder;
  std::string m_path = m_folder / "file";
  KdCURL::FileSink m_sink;
};

class FileSource : public testing::Test {
 protected:
  TempDir m_folder;
  std::string m_path = m_folder / "file";
  KdCURL::FileSource m_source;
};

}  // namespace

TEST_F(FileSink, TheFileAppearsWhenItIsComplete) {
  ASSERT_OK(m_sink.Open(m_path));
  EXPECT_EQ(Give(m_sink, "one "), 4U);
  EXPECT_EQ(Give(m_sink, ""), 0U);
  EXPECT_EQ(Give(m_sink, std::string("two\0", 4)), 4U);
  EXPECT_FALSE(fs::exists(m_path));
  EXPECT_EQ(Names().size(), 1U) << "beside it";
  ASSERT_OK(m_sink.Commit());
  EXPECT_EQ(ReadFile(m_path), std::string("one two\0", 8));
  EXPECT_THAT(Names(), ElementsAre("file"));
  EXPECT_OK(m_sink.Commit()) << "once more does no harm";
}

TEST_F(FileSink, AnItemMayHaveMoreThanOneByte) {
  ASSERT_OK(m_sink.Open(m_path));
  char data[] = "123456";
  EXPECT_EQ(KdCURL::FileSink::Write(data, 3, 2, &m_sink), 6U);
  ASSERT_OK(m_sink.Commit());
  EXPECT_EQ(ReadFile(m_path), "123456");
}

TEST_F(FileSink, NothingReceivedIsAnEmptyFile) {
  ASSERT_OK(m_sink.Open(m_path));
  ASSERT_OK(m_sink.Commit());
  EXPECT_EQ(ReadFile(m_path), "");
}

TEST_F(FileSink, OneObjectServesOneFileAfterTheOther) {
  for (const char* const name : {"first", "second"}) {
    ASSERT_OK(m_sink.Open(m_folder / name));
    Give(m_sink, name);
    ASSERT_OK(m_sink.Commit());
    EXPECT_EQ(ReadFile(m_folder / name), name);
  }
  ASSERT_OK(m_sink.Open(m_path));
  EXPECT_FAILS(m_sink.Open(m_folder / "other"), Win32Code(774), "File already open");
  EXPECT_FALSE(fs::exists(m_folder / "other"));
}

TEST_F(FileSink, TheOldFileStaysUntilThen) {
  WriteFile(m_path, "old");
  ASSERT_OK(m_sink.Open(m_path));
  Give(m_sink, "new");
  EXPECT_EQ(ReadFile(m_path), "old");
  ASSERT_OK(m_sink.Commit());
  EXPECT_EQ(ReadFile(m_path), "new");
}

TEST_F(FileSink, WhatIsNotCommittedIsRemoved) {
  WriteFile(m_path, "old");
  {
    KdCURL::FileSink sink;
    ASSERT_OK(sink.Open(m_path));
    Give(sink, "new");
  }
  EXPECT_EQ(ReadFile(m_path), "old");
  EXPECT_THAT(Names(), ElementsAre("file"));
}

TEST_F(FileSink, PermissionsOfTheReplacedFileStay) {
  for (const mode_t mode : {0600U, 0644U, 0755U, 0666U, 0400U}) {
    SCOPED_TRACE(mode);
    const Umask umask(077);
    WriteFile(m_path, "old");
    fs::permissions(m_path, static_cast<fs::perms>(mode));
    KdCURL::FileSink sink;
    ASSERT_OK(sink.Open(m_path));
    Give(sink, "new");
    ASSERT_OK(sink.Commit());
    EXPECT_EQ(Permissions(m_path), mode);
    EXPECT_EQ(ReadFile(m_path), "new");
    fs::remove(m_path);
  }
}

TEST_F(FileSink, ANewFileGetsWhatTheUmaskLeaves) {
  const struct {
    mode_t mask;
    mode_t mode;
  } cases[] = {{022, 0644}, {077, 0600}, {0, 0666}, {0117, 0660}};
  for (const auto& [mask, mode] : cases) {
    SCOPED_TRACE(mask);
    const Umask umask(mask);
    KdCURL::FileSink sink;
    ASSERT_OK(sink.Open(m_path));
    ASSERT_OK(sink.Commit());
    EXPECT_EQ(Permissions(m_path), mode);
    EXPECT_EQ(::umask(mask), mask) << "as it was";
    fs::remove(m_path);
  }
}

TEST_F(FileSink, ManyAtOnceDoNotMeet) {
  const Umask mask(027);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 8; ++thread) {
    threads.emplace_back([this, thread] {
      for (int i = 0; i < 50; ++i) {
        KdCURL::FileSink sink;
        EXPECT_OK(sink.Open(m_path));
        Give(sink, std::string(100, static_cast<char>('a' + thread)));
        EXPECT_OK(sink.Commit());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::string text = ReadFile(m_path);
  EXPECT_EQ(text, std::string(100, text.at(0))) << "that of the last one";
  EXPECT_THAT(Names(), ElementsAre("file"));
  EXPECT_EQ(umask(027), 027U);
  EXPECT_EQ(Permissions(m_path), 0640U);
}

TEST_F(FileSink, SymbolicLinksAreFollowedAndStay) {
  fs::create_directory(m_folder / "far");
  WriteFile(m_folder / "far/target", "old");
  const struct {
    const char* what;
    std::string target;
    std::string file;
  } cases[] = {
      {"relative", "far/target", "far/target"},
      {"absolute", m_folder / "far/target", "far/target"},
      {"dangling", "far/absent", "far/absent"},
      {"absolute and dangling", m_folder / "nothing", "nothing"},
  };
  for (const auto& [what, target, file] : cases) {
    SCOPED_TRACE(what);
    fs::create_symlink(target, m_folder / "link");
    fs::create_symlink("link", m_folder / "link to link");
    KdCURL::FileSink sink;
    ASSERT_OK(sink.Open(m_folder / "link to link"));
    Give(sink, what);
    ASSERT_OK(sink.Commit());
    EXPECT_TRUE(fs::is_symlink(m_folder / "link to link"));
    EXPECT_TRUE(fs::is_symlink(m_folder / "link"));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(m_folder / file)));
    EXPECT_EQ(ReadFile(m_folder / file), what);
    fs::remove(m_folder / "link");
    fs::remove(m_folder / "link to link");
  }
}

TEST_F(FileSink, LinksInACircleAreAnError) {
  fs::create_symlink("there", m_folder / "here");
  fs::create_symlink("here", m_folder / "there");
  EXPECT_FAILS(m_sink.Open(m_folder / "here"), ErrNoCode(ELOOP), "Failed to follow [");
  EXPECT_THAT(Names(), ElementsAre("here", "there"));
}

TEST_F(FileSink, ANameInTheCurrentFolderNeedsNoSlash) {
  const fs::path before = fs::current_path();
  fs::current_path(m_folder.Path());
  EXPECT_OK(m_sink.Open("file"));
  Give(m_sink, "here");
  EXPECT_OK(m_sink.Commit());
  fs::current_path(before);
  EXPECT_EQ(ReadFile(m_path), "here");
}

TEST_F(FileSink, WhatIsNoRegularFileIsWrittenDirectly) {
  ASSERT_OK(m_sink.Open("/dev/null"));
  EXPECT_EQ(Give(m_sink, "gone"), 4U);
  ASSERT_OK(m_sink.Commit());
  EXPECT_TRUE(fs::is_character_file("/dev/null"));

  const std::string pipe = m_folder / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::string received;
  std::thread reader([&] { received = ReadFile(pipe); });
  ASSERT_OK(m_sink.Open(pipe));
  EXPECT_EQ(Give(m_sink, "through the pipe"), 16U);
  EXPECT_OK(m_sink.Commit());
  reader.join();
  EXPECT_EQ(received, "through the pipe");
  EXPECT_THAT(Names(), ElementsAre("pipe"));
}

TEST_F(FileSink, AnInterruptedFileGoesOnWhereItStopped) {
  std::int64_t offset = -1;
  {
    KdCURL::FileSink sink;
    ASSERT_OK(sink.OpenForResume(m_path, offset));
    EXPECT_EQ(offset, 0);
    Give(sink, "one ");
  }
  EXPECT_THAT(Names(), ElementsAre("file.part"));
  ASSERT_OK(m_sink.OpenForResume(m_path, offset));
  EXPECT_EQ(offset, 4);
  Give(m_sink, "two");
  EXPECT_FALSE(fs::exists(m_path));
  ASSERT_OK(m_sink.Commit());
  EXPECT_EQ(ReadFile(m_path), "one two");
  EXPECT_THAT(Names(), ElementsAre("file"));
}

TEST_F(FileSink, AFileThatStartsOverHasOnlyWhatCameAfter) {
  for (const bool isResumed : {true, false}) {
    SCOPED_TRACE(isResumed);
    WriteFile(m_path + ".part", "an older part");
    KdCURL::FileSink sink;
    std::int64_t offset = 0;
    ASSERT_OK(isResumed ? sink.OpenForResume(m_path, offset) : sink.Open(m_path));
    std::string more = "more";
    ASSERT_EQ(KdCURL::FileSink::Write(more.data(), 1, more.size(), &sink), more.size());
    EXPECT_OK(sink.StartOver());
    std::string text = "new";
    ASSERT_EQ(KdCURL::FileSink::Write(text.data(), 1, text.size(), &sink), text.size());
    EXPECT_OK(sink.Commit());
    EXPECT_EQ(ReadFile(m_path), "new");
  }
}

TEST_F(FileSink, AResumedFileKeepsPermissionsAndLinks) {
  WriteFile(m_path, "old");
  fs::permissions(m_path, fs::perms{0600});
  fs::create_symlink("file", m_folder / "link");
  std::int64_t offset = -1;
  ASSERT_OK(m_sink.OpenForResume(m_folder / "link", offset));
  Give(m_sink, "new");
  EXPECT_THAT(Names(), ElementsAre("file", "file.part", "link"));
  ASSERT_OK(m_sink.Commit());
  EXPECT_TRUE(fs::is_symlink(m_folder / "link"));
  EXPECT_EQ(ReadFile(m_path), "new");
  EXPECT_EQ(Permissions(m_path), 0600U);
  EXPECT_THAT(Names(), ElementsAre("file", "link"));
}

TEST_F(FileSink, ADeviceIsNeverReplacedByAResumedFile) {
  std::int64_t offset = 7;
  ASSERT_OK(m_sink.OpenForResume("/dev/null", offset));
  EXPECT_EQ(offset, 7);
  EXPECT_EQ(Give(m_sink, "gone"), 4U);
  ASSERT_OK(m_sink.Commit());
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
  EXPECT_FALSE(fs::exists("/dev/null.part"));
}

TEST_F(FileSink, WhatCannotBeResumedIsAnError) {
  std::int64_t offset = 7;
  EXPECT_FAILS(m_sink.OpenForResume(m_folder / "absent/file", offset), ErrNoCode(ENOENT),
               "absent/file.part]");
  fs::create_directory(m_folder / "file.part");
  EXPECT_FAILS(m_sink.OpenForResume(m_path, offset), ErrNoCode(EISDIR), "file.part]");
  EXPECT_FAILS(m_sink.OpenForResume("", offset), ErrNoCode(ENOENT), "Failed to open file []");
  EXPECT_EQ(offset, 7);
  ASSERT_OK(m_sink.OpenForResume(m_folder / "other", offset));
  EXPECT_FAILS(m_sink.OpenForResume(m_folder / "third", offset), Win32Code(774),
               "File already open");
}

TEST_F(FileSink, AfterAResumedFileTheNextOneIsRemovedAgain) {
  {
    std::int64_t offset = 0;
    KdCURL::FileSink sink;
    ASSERT_OK(sink.OpenForResume(m_path, offset));
    ASSERT_OK(sink.Commit());
    ASSERT_OK(sink.Open(m_folder / "second"));
    Give(sink, "incomplete");
  }
  EXPECT_THAT(Names(), ElementsAre("file"));
}

TEST_F(FileSink, AFullDiskIsToldByCommit) {
  ASSERT_OK(m_sink.Open("/dev/full"));
  EXPECT_EQ(Give(m_sink, "x"), 0U);
  EXPECT_FAILS(m_sink.Commit(), ErrNoCode(ENOSPC), "Failed to write file [/dev/full]");
}

TEST_F(FileSink, AFailedWriteLeavesTheOldFile) {
  WriteFile(m_path, "old");
  {
    KdCURL::FileSink sink;
    ASSERT_OK(sink.Open(m_path));
    EXPECT_EQ(Give(sink, "new"), 3U);
    {
      const Fault fault(gWrite, EIO);
      EXPECT_EQ(Give(sink, "more"), 0U);
    }
    EXPECT_FAILS(sink.Commit(), ErrNoCode(EIO), "Failed to write file [");
  }
  EXPECT_EQ(ReadFile(m_path), "old");
  EXPECT_THAT(Names(), ElementsAre("file"));
}

TEST_F(FileSink, AFailedCloseLeavesTheOldFile) {
  WriteFile(m_path, "old");
  {
    KdCURL::FileSink sink;
    ASSERT_OK(sink.Open(m_path));
    Give(sink, "new");
    const Replacement fail(gClose, [](int descriptor) {
      gClose.Real(descriptor);
      errno = EDQUOT;
      return -1;
    });
    EXPECT_FAILS(sink.Commit(), ErrNoCode(EDQUOT), "Failed to write file [");
  }
  EXPECT_EQ(ReadFile(m_path), "old");
  EXPECT_THAT(Names(), ElementsAre("file"));
}

TEST_F(FileSink, InterruptedAndShortWritesGoOn) {
  ASSERT_OK(m_sink.Open(m_path));
  int calls = 0;
  {
    const Replacement odd(gWrite, [&](int descriptor, const void* data, size_t size) -> ssize_t {
      if (++calls % 2 == 0) return gWrite.Real(descriptor, data, std::min(size, size_t{3}));
      errno = EINTR;
      return -1;
    });
    EXPECT_EQ(Give(m_sink, "0123456789"), 10U);
  }
  EXPECT_EQ(calls, 8);
  ASSERT_OK(m_sink.Commit());
  EXPECT_EQ(ReadFile(m_path), "0123456789");
}

TEST_F(FileSink, AFileThatCannotBeMadeIsAnError) {
  EXPECT_FAILS(m_sink.Open(m_folder / "absent/file"), ErrNoCode(ENOENT),
               "Failed to create a file beside [");
  EXPECT_FAILS(m_sink.Open(m_folder.Path()), ErrNoCode(EISDIR), "Failed to open file [");
  EXPECT_FAILS(m_sink.Open(""), ErrNoCode(ENOENT), "Failed to open file []");
  EXPECT_FAILS(m_sink.Open(m_path + "/"), ErrNoCode(ENOENT), "");
  WriteFile(m_path, "a file");
  EXPECT_FAILS(m_sink.Open(m_path + "/below"), ErrNoCode(ENOTDIR), "");
  EXPECT_THAT(Names(), ElementsAre("file"));
  EXPECT_OK(m_sink.Open(m_path)) << "none of these is in the way";
}

TEST_F(FileSink, AFolderThatMayNotBeWrittenIsAnError) {
  constexpr uid_t kNobody = 65534;
  WriteFile(m_path, "old");
  fs::permissions(m_path, fs::perms{0666});
  fs::permissions(m_folder.Path(), fs::perms{0555});
  const uid_t user = geteuid();
  ASSERT_TRUE(user != 0 || seteuid(kNobody) == 0);
  const CZuError error = m_sink.Open(m_path);
  ASSERT_EQ(seteuid(user), 0);
  fs::permissions(m_folder.Path(), fs::perms{0700});
  EXPECT_FAILS(error, ErrNoCode(EACCES), "Failed to create a file beside [");
  EXPECT_EQ(ReadFile(m_path), "old");
}

TEST_F(FileSink, AFolderThatTookTheNameIsAnError) {
  {
    KdCURL::FileSink sink;
    ASSERT_OK(sink.Open(m_path));
    fs::create_directory(m_path);
    EXPECT_FAILS(sink.Commit(), ErrNoCode(EISDIR), "Failed to replace file [");
  }
  EXPECT_THAT(Names(), ElementsAre("file"));
  EXPECT_TRUE(fs::is_directory(m_path));
}

TEST_F(FileSink, ADescriptorOfTheCallersStaysOpen) {
  const int descriptor = open(m_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  {
    KdCURL::FileSink sink;
    sink.Use(descriptor);
    EXPECT_EQ(Give(sink, "one "), 4U);
    EXPECT_OK(sink.Commit());
    EXPECT_EQ(Give(sink, "two "), 4U);
  }
  EXPECT_EQ(write(descriptor, "three", 5), 5);
  EXPECT_EQ(close(descriptor), 0);
  EXPECT_EQ(ReadFile(m_path), "one two three");
  m_sink.Use(descriptor);
  EXPECT_EQ(Give(m_sink, "x"), 0U);
  EXPECT_FAILS(m_sink.Commit(), ErrNoCode(EBADF),
               ("[descriptor " + std::to_string(descriptor) + "]").c_str());
}

TEST(StringSink, TakesUpToItsLimit) {
  const struct {
    size_t limit;
    std::vector<std::string> pieces;
    const char* text;
    bool isOver;
  } cases[] = {
      {10, {}, "", false},
      {10, {"12345", "67890"}, "1234567890", false},
      {10, {"12345", "678901"}, "12345", true},
      {10, {"1234567890", "1"}, "1234567890", true},
      {10, {"12345678901"}, "", true},
      {0, {""}, "", false},
      {0, {"1"}, "", true},
      {SIZE_MAX, {"any"}, "any", false},
  };
  for (const auto& [limit, pieces, text, isOver] : cases) {
    SCOPED_TRACE(testing::PrintToString(pieces) + " in " + std::to_string(limit));
    KdCURL::StringSink sink(limit);
    for (size_t i = 0; i < pieces.size(); ++i) {
      std::string piece = pieces[i];
      const bool isRefused = isOver && i + 1 == pieces.size();
      EXPECT_EQ(KdCURL::StringSink::Write(piece.data(), 1, piece.size(), &sink),
                isRefused ? 0 : piece.size());
    }
    EXPECT_EQ(sink.GetText(), text);
    EXPECT_EQ(sink.IsOverLimit(), isOver);
  }
}

TEST_F(FileSource, GivesTheFileInPieces) {
  WriteFile(m_path, std::string("0123456\0 9", 10));
  ASSERT_OK(m_source.Open(m_path));
  EXPECT_EQ(Take(m_source, 4), "0123");
  EXPECT_EQ(Take(m_source, 4), std::string("456\0", 4));
  EXPECT_EQ(Take(m_source, 4), " 9");
  EXPECT_EQ(Take(m_source, 4), "");
  EXPECT_EQ(Take(m_source, 4), "");
  ASSERT_OK(m_source.Open(m_path)) << "from the start";
  EXPECT_EQ(Take(m_source, 3), "012");
}

TEST_F(FileSource, AFileMayBeReadFromItsMiddle) {
  WriteFile(m_path, "0123456789");
  const struct {
    std::int64_t offset;
    const char* rest;
  } cases[] = {
      {0, "0123456789"}, {1, "123456789"}, {9, "9"}, {10, ""}, {std::int64_t{1} << 40, ""}};
  for (const auto& [offset, rest] : cases) {
    SCOPED_TRACE(offset);
    ASSERT_OK(m_source.Open(m_path, offset));
    EXPECT_EQ(Take(m_source, 100), rest);
  }
  EXPECT_FAILS(m_source.Open(m_path, -1), ErrNoCode(EINVAL), "Failed to open file [");
  const std::string pipe = m_folder / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const int writer = open(pipe.c_str(), O_RDWR | O_CLOEXEC);
  EXPECT_FAILS(m_source.Open(pipe, 1), ErrNoCode(ESPIPE), "Failed to open file [");
  EXPECT_EQ(close(writer), 0);
}

TEST_F(FileSource, AnEmptyFileGivesNothing) {
  WriteFile(m_path, "");
  ASSERT_OK(m_source.Open(m_path));
  EXPECT_EQ(Take(m_source, 4), "");
}

TEST_F(FileSource, AFileThatGrowsIsReadToItsEnd) {
  WriteFile(m_path, "one");
  ASSERT_OK(m_source.Open(m_path));
  EXPECT_EQ(Take(m_source, 100), "one");
  WriteFile(m_path, "one two");
  EXPECT_EQ(Take(m_source, 100), " two");
}

TEST_F(FileSource, WhatCannotBeOpenedIsAnError) {
  const struct {
    std::string path;
    int err;
  } cases[] = {{m_folder / "absent", ENOENT},
               {m_folder.Path(), EISDIR},
               {"", ENOENT},
               {"/dev/null/file", ENOTDIR}};
  for (const auto& [path, err] : cases) {
    SCOPED_TRACE(path);
    EXPECT_FAILS(m_source.Open(path), ErrNoCode(err), ("Failed to open file [" + path).c_str());
    char byte = '?';
    EXPECT_EQ(KdCURL::FileSource::Read(&byte, 1, 1, &m_source), size_t{CURL_READFUNC_ABORT});
    EXPECT_EQ(byte, '?');
  }
}

TEST_F(FileSource, ClosedItAborts) {
  WriteFile(m_path, "text");
  ASSERT_OK(m_source.Open(m_path));
  m_source.Close();
  m_source.Close();
  char byte = '?';
  EXPECT_EQ(KdCURL::FileSource::Read(&byte, 1, 1, &m_source), size_t{CURL_READFUNC_ABORT});
}

TEST_F(FileSource, AnInterruptedReadGoesOnAndAFailedOneAborts) {
  WriteFile(m_path, "text");
  ASSERT_OK(m_source.Open(m_path));
  int calls = 0;
  const Replacement odd(gRead, [&](int descriptor, void* data, size_t size) -> ssize_t {
    if (++calls == 3) return gRead.Real(descriptor, data, size);
    errno = calls < 3 ? EINTR : EIO;
    return -1;
  });
  EXPECT_EQ(Take(m_source, 100), "text");
  EXPECT_EQ(calls, 3);
  char byte = '?';
  EXPECT_EQ(KdCURL::FileSource::Read(&byte, 1, 1, &m_source), size_t{CURL_READFUNC_ABORT});
}

TEST(MemorySource, GivesTheBytesInPieces) {
  const std::string bytes("0123\0 67", 8);
  KdCURL::MemorySource source(bytes.data(), bytes.size());
  char buffer[6] = {};
  EXPECT_EQ(KdCURL::MemorySource::Read(buffer, 3, 2, &source), 6U);
  EXPECT_EQ(std::string(buffer, 6), bytes.substr(0, 6));
  EXPECT_EQ(Take(source, 100), "67");
  EXPECT_EQ(Take(source, 100), "");
}

TEST(MemorySource, NoBytesNeedNoAddress) {
  KdCURL::MemorySource source(nullptr, 0);
  EXPECT_EQ(Take(source, 100), "");
}
