#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <filesystem>
#include <memory>
#include <vector>

#include "ZuNetwork/KdTransferIO.h"
#include "support/Expect.h"
#include "support/LeaveOut.h"
#include "support/SystemFunction.h"
#include "support/TempDir.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace fs = std::filesystem;

namespace {

SystemFunction<int(const char*, int, mode_t)> gOpen{"open"};
SystemFunction<int(int)> gFsync{"fsync"};
SystemFunction<int(const char*, const char*)> gRename{"rename"};

}  // namespace

extern "C" int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return gOpen(path, flags, mode);
}
extern "C" int fsync(int descriptor) { return gFsync(descriptor); }
extern "C" int rename(const char* from, const char* to) noexcept { return gRename(from, to); }

namespace {

constexpr uid_t kNobody = 65534;

size_t Give(KdCURL::FileSink& sink, std::string bytes) {
  return KdCURL::FileSink::Write(bytes.data(), 1, bytes.size(), &sink);
}

mode_t Permissions(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(lstat(path.c_str(), &status), 0);
  return status.st_mode & 07777;
}

class FileSinkFiles : public testing::Test {
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
  std::int64_t m_offset = -1;
};

}  // namespace

TEST_F(FileSinkFiles, WithoutAnOpenFileNothingIsTakenOrCommitted) {
  EXPECT_EQ(Give(m_sink, "lost"), 0U);
  EXPECT_FAILS(m_sink.Commit(), Win32Code(774), "No file is open");
  ASSERT_OK(m_sink.Open(m_path)) << "what was refused is not held against the next file";
  EXPECT_EQ(Give(m_sink, "text"), 4U);
  ASSERT_OK(m_sink.Commit());
  EXPECT_EQ(Give(m_sink, "more"), 0U);
  EXPECT_EQ(ReadFile(m_path), "text");
}

TEST_F(FileSinkFiles, ADescriptorOfTheCallersTakesTheTurnOfAnOpenFile) {
  WriteFile(m_path, "old");
  WriteFile(m_folder / "other", "");
  const int descriptor = open((m_folder / "other").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_OK(m_sink.Open(m_path));
  EXPECT_EQ(Give(m_sink, "dropped"), 7U);
  m_sink.Use(descriptor);
  EXPECT_EQ(Give(m_sink, "kept"), 4U);
  EXPECT_OK(m_sink.Commit());
  EXPECT_EQ(write(descriptor, "!", 1), 1) << "it is still open";
  EXPECT_EQ(close(descriptor), 0);
  EXPECT_EQ(ReadFile(m_folder / "other"), "kept!");
  EXPECT_EQ(ReadFile(m_path), "old");
  EXPECT_THAT(Names(), ElementsAre("file", "other"));
  ASSERT_OK(m_sink.Open(m_path)) << "and a file that of the descriptor";
  Give(m_sink, "new");
  ASSERT_OK(m_sink.Commit());
  EXPECT_EQ(ReadFile(m_path), "new");
}

TEST_F(FileSinkFiles, AFailedCommitGivesTheFileUp) {
  WriteFile(m_path, "old");
  {
    Replacement<int(int)> full(gFsync, [](int) {
      errno = ENOSPC;
      return -1;
    });
    ASSERT_OK(m_sink.Open(m_path));
    Give(m_sink, "new");
    EXPECT_FAILS(m_sink.Commit(), ErrNoCode(ENOSPC), ("Failed to write file [" + m_path).c_str());
  }
  EXPECT_EQ(ReadFile(m_path), "old");
  EXPECT_THAT(Names(), ElementsAre("file"));
  EXPECT_FAILS(m_sink.Commit(), Win32Code(774), "No file is open") << "not a success";
  ASSERT_OK(m_sink.Open(m_path));
  Give(m_sink, "newer");
  ASSERT_OK(m_sink.Commit());
  EXPECT_EQ(ReadFile(m_path), "newer");
}

TEST_F(FileSinkFiles, TheBytesAreOnTheDiskBeforeTheFileHasItsNameAndThenTheName) {
  std::vector<std::string> steps;
  Replacement<int(int)> sync(gFsync, [&](int descriptor) {
    struct stat status {};
    EXPECT_EQ(fstat(descriptor, &status), 0);
    steps.push_back(S_ISDIR(status.st_mode) ? "folder" : "file");
    return 0;
  });
  Replacement<int(const char*, const char*)> rename(gRename, [&](const char* from, const char* to) {
    steps.emplace_back("rename");
    return gRename.Real(from, to);
  });
  ASSERT_OK(m_sink.Open(m_path));
  ASSERT_OK(m_sink.Commit());
  EXPECT_THAT(steps, ElementsAre("file", "rename", "folder"));
  steps.clear();
  ASSERT_OK(m_sink.OpenForResume(m_path, m_offset));
  ASSERT_OK(m_sink.Commit());
  EXPECT_THAT(steps, ElementsAre("file", "rename", "folder"));
}

TEST_F(FileSinkFiles, SetIdBitsAreNotHandedOn) {
  for (const bool isResumed : {false, true}) {
    SCOPED_TRACE(isResumed);
    WriteFile(m_path, "old");
    ASSERT_EQ(chmod(m_path.c_str(), 06755), 0);
    ASSERT_OK(isResumed ? m_sink.OpenForResume(m_path, m_offset) : m_sink.Open(m_path));
    ASSERT_OK(m_sink.Commit());
    EXPECT_EQ(Permissions(m_path), 0755U);
  }
}

TEST_F(FileSinkFiles, WhatReplacesAFileIsThePrivateFileOfItsOwnerUntilItIsComplete) {
  const mode_t before = umask(0);
  WriteFile(m_path, "old");
  ASSERT_EQ(chmod(m_path.c_str(), 0400), 0);
  ASSERT_OK(m_sink.Open(m_path));
  for (const std::string& name : Names()) {
    EXPECT_EQ(Permissions(m_folder / name), name == "file" ? 0400U : 0600U);
  }
  ASSERT_OK(m_sink.Commit());
  {
    KdCURL::FileSink interrupted;
    ASSERT_OK(interrupted.OpenForResume(m_path, m_offset));
    Give(interrupted, "one ");
  }
  EXPECT_EQ(Permissions(m_path + ".part"), 0600U) << "it can be gone on with";
  ASSERT_OK(m_sink.OpenForResume(m_path, m_offset));
  EXPECT_EQ(m_offset, 4);
  ASSERT_OK(m_sink.Commit());
  EXPECT_EQ(Permissions(m_path), 0400U);
  umask(before);
}

TEST_F(FileSinkFiles, APlantedLinkIsNoPart) {
  WriteFile(m_folder / "victim", "precious");
  fs::create_symlink("victim", m_path + ".part");
  EXPECT_FAILS(m_sink.OpenForResume(m_path, m_offset), ErrNoCode(ELOOP), "file.part]");
  fs::remove(m_path + ".part");
  fs::create_symlink("absent", m_path + ".part");
  EXPECT_FAILS(m_sink.OpenForResume(m_path, m_offset), ErrNoCode(ELOOP), "file.part]");
  EXPECT_EQ(ReadFile(m_folder / "victim"), "precious");
  EXPECT_EQ(m_offset, -1);
  EXPECT_THAT(Names(), ElementsAre("file.part", "victim"));
}

TEST_F(FileSinkFiles, APipeIsNoPartAndIsNotWaitedFor) {
  ASSERT_EQ(mkfifo((m_path + ".part").c_str(), 0600), 0);
  EXPECT_FAILS(m_sink.OpenForResume(m_path, m_offset), ErrNoCode(ENXIO), "file.part]");
  const int reader = open((m_path + ".part").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  EXPECT_FAILS(m_sink.OpenForResume(m_path, m_offset), ErrNoCode(EEXIST), "file.part]");
  EXPECT_EQ(close(reader), 0);
  EXPECT_TRUE(fs::is_fifo(m_path + ".part"));
}

TEST_F(FileSinkFiles, APartHasOneWriter) {
  auto first = std::make_unique<KdCURL::FileSink>();
  ASSERT_OK(first->OpenForResume(m_path, m_offset));
  Give(*first, "one ");
  EXPECT_FAILS(m_sink.OpenForResume(m_path, m_offset), ErrNoCode(EWOULDBLOCK),
               "Failed to lock file [");
  EXPECT_EQ(m_offset, 0);
  first.reset();
  ASSERT_OK(m_sink.OpenForResume(m_path, m_offset));
  EXPECT_EQ(m_offset, 4);
  Give(m_sink, "two");
  ASSERT_OK(m_sink.Commit());
  EXPECT_EQ(ReadFile(m_path), "one two");
}

TEST_F(FileSinkFiles, APartHasOneWriterAmongProcesses) {
  ASSERT_OK(m_sink.OpenForResume(m_path, m_offset));
  const pid_t child = fork();
  if (child == 0) {
    KdCURL::FileSink other;
    const CZuError error = other.OpenForResume(m_path, m_offset);
    _exit(FXErrorUtil::IsErrNo(error, EWOULDBLOCK) ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

TEST_F(FileSinkFiles, APartStaysLockedUntilTheFileHasItsName) {
  bool isLocked = false;
  Replacement<int(const char*, const char*)> rename(gRename, [&](const char* from, const char* to) {
    KdCURL::FileSink other;
    isLocked = FXErrorUtil::IsErrNo(other.OpenForResume(m_path, m_offset), EWOULDBLOCK);
    return gRename.Real(from, to);
  });
  ASSERT_OK(m_sink.OpenForResume(m_path, m_offset));
  ASSERT_OK(m_sink.Commit());
  EXPECT_TRUE(isLocked);
  EXPECT_THAT(Names(), ElementsAre("file"));
}

TEST_F(FileSinkFiles, ALinkThatLedToNothingDoesSoAgainWhenTheFileIsGivenUp) {
  fs::create_symlink("target", m_path);
  {
    KdCURL::FileSink sink;
    ASSERT_OK(sink.Open(m_path));
    Give(sink, "incomplete");
  }
  EXPECT_THAT(Names(), ElementsAre("file"));
  EXPECT_TRUE(fs::is_symlink(m_path));
  {
    KdCURL::FileSink sink;
    ASSERT_OK(sink.Open(m_path));
    WriteFile(m_folder / "target", "of somebody else");
  }
  EXPECT_EQ(ReadFile(m_folder / "target"), "of somebody else") << "it is not ours to remove";
}

TEST_F(FileSinkFiles, ALinkPlantedInAFolderForEverybodyIsNotFollowed) {
  if (geteuid() != 0) LeaveOut("only root can make a link that belongs to somebody else");
  if (ReadFile("/proc/sys/fs/protected_symlinks") != "1\n") {
    GTEST_SKIP() << "fs.protected_symlinks is off";
  }
  TempDir victims;
  WriteFile(victims / "victim", "precious");
  ASSERT_EQ(chmod(m_folder.Path().c_str(), 01777), 0);
  for (const char* const target : {"victim", "absent"}) {
    SCOPED_TRACE(target);
    fs::create_symlink(victims / target, m_path);
    ASSERT_EQ(lchown(m_path.c_str(), kNobody, kNobody), 0);
    EXPECT_FAILS(m_sink.Open(m_path), ErrNoCode(EACCES), ("Failed to follow [" + m_path).c_str());
    EXPECT_FAILS(m_sink.OpenForResume(m_path, m_offset), ErrNoCode(EACCES), "Failed to follow [");
    fs::remove(m_path);
  }
  EXPECT_EQ(ReadFile(victims / "victim"), "precious");
  EXPECT_FALSE(fs::exists(victims / "absent"));
  EXPECT_THAT(Names(), IsEmpty());
}

TEST_F(FileSinkFiles, WhereTheSystemRefusesToFollowALinkNothingElseFollowsIt) {
  WriteFile(m_folder / "victim", "precious");
  for (const char* const target : {"victim", "absent"}) {
    SCOPED_TRACE(target);
    fs::create_symlink(target, m_path);
    Replacement<int(const char*, int, mode_t)> refusal(
        gOpen, [this](const char* path, int flags, mode_t mode) {
          if (path != m_path) return gOpen.Real(path, flags, mode);
          errno = EACCES;
          return -1;
        });
    EXPECT_FAILS(m_sink.Open(m_path), ErrNoCode(EACCES), "Failed to follow [");
    EXPECT_FAILS(m_sink.OpenForResume(m_path, m_offset), ErrNoCode(EACCES), "Failed to follow [");
    fs::remove(m_path);
  }
  EXPECT_EQ(ReadFile(m_folder / "victim"), "precious");
  EXPECT_THAT(Names(), ElementsAre("victim"));
}

TEST_F(FileSinkFiles, AFullDiskLeavesTheOldFileAndWhatCameOfAResumedOne) {
  WriteFile(m_path, "old");
  Replacement<int(int)> full(gFsync, [](int) {
    errno = EDQUOT;
    return -1;
  });
  ASSERT_OK(m_sink.OpenForResume(m_path, m_offset));
  Give(m_sink, "new");
  EXPECT_FAILS(m_sink.Commit(), ErrNoCode(EDQUOT), "Failed to write file [");
  EXPECT_EQ(ReadFile(m_path), "old");
  EXPECT_EQ(ReadFile(m_path + ".part"), "new");
}
