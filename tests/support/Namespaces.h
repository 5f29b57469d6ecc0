#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>

#include "support/LeaveOut.h"

// Test bodies with a process of their own, and with a network, mounts or a host name that nobody
// else sees. What a body breaks or sets for the process is gone with it. The kernel removes the
// namespaces with their last process.

namespace namespaces {

// To be combined. A new network has nothing but a loopback interface that is down.
constexpr int kNone = 0;
constexpr int kNetwork = CLONE_NEWNET;
constexpr int kMounts = CLONE_NEWNS;
constexpr int kHostName = CLONE_NEWUTS;

constexpr int kExitSkipped = 77;
constexpr std::chrono::seconds kChildLimit{60};

inline bool WriteFile(const std::string& path, const std::string& content) {
  std::ofstream file(path);
  file << content;
  file.close();
  return !file.fail();
}

// Enters new namespaces; without the privilege, as root of a user namespace. False with `errno`.
inline bool Enter(int kinds) {
  const std::string uid = std::to_string(geteuid());
  const std::string gid = std::to_string(getegid());
  if (unshare(kinds) != 0) {
    if (unshare(kinds | CLONE_NEWUSER) != 0) return false;
    WriteFile("/proc/self/setgroups", "deny");
    if (!WriteFile("/proc/self/uid_map", "0 " + uid + " 1")) return false;
    if (!WriteFile("/proc/self/gid_map", "0 " + gid + " 1")) return false;
  }
  return (kinds & kMounts) == 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

// The child's side. It never returns, nor throws, into the tests of the parent.
[[noreturn]] inline void RunBody(int kinds, const std::function<void()>& body) noexcept {
  if (kinds != kNone && !Enter(kinds)) {
    std::printf("No new namespaces here: %s\n", std::strerror(errno));
    std::exit(kExitSkipped);
  }
  body();
  if (testing::Test::HasFailure()) std::exit(1);
  std::exit(testing::Test::IsSkipped() ? kExitSkipped : 0);
}

// What comes through the pipe until its end; ends the child when that takes too long.
inline std::string ReadAll(int descriptor, pid_t child) {
  std::string text;
  const auto end = std::chrono::steady_clock::now() + kChildLimit;
  char buffer[4096];
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    pollfd readable{descriptor, POLLIN, 0};
    if (left.count() <= 0 || poll(&readable, 1, static_cast<int>(left.count())) == 0) {
      kill(child, SIGKILL);
      return text + "\nThe child took too long and was ended.\n";
    }
    const ssize_t size = read(descriptor, buffer, sizeof buffer);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) return text;
    text.append(buffer, static_cast<std::size_t>(size));
  }
}

// Runs the body in a child in new namespaces of these kinds. Its failures become one of the test
// that calls, with what it printed. Where the machine forbids namespaces the test is skipped, with
// CI=true in the environment it fails. To be called last in a test.
inline void RunIn(int kinds, const std::function<void()>& body) {
  ASSERT_FALSE(testing::Test::HasFailure());  // the child would report it as its own
  std::fflush(nullptr);
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0) << std::strerror(errno);
  const pid_t child = fork();
  ASSERT_GE(child, 0) << std::strerror(errno);
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    RunBody(kinds, body);
  }
  close(ends[1]);
  const std::string output = ReadAll(ends[0], child);
  close(ends[0]);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == kExitSkipped) {
    LeaveOut(output);
  }
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    ADD_FAILURE() << "In the child (wait status " << status << "):\n" << output;
  }
}

// Runs the body in a child alone: for what can be set once in a process.
inline void RunInChild(const std::function<void()>& body) { RunIn(kNone, body); }

// ---- For bodies ----

// Runs shell commands, which must succeed.
inline void Command(const std::string& commands) {
  const int status = std::system(("PATH=$PATH:/usr/sbin:/sbin; set -e; " + commands).c_str());
  ASSERT_EQ(status, 0) << commands;
}

// Replaces an existing file by one with this content. Needs kMounts.
inline void ReplaceFile(const std::string& path, const std::string& content) {
  char name[] = "/tmp/zutest.XXXXXX";
  const int descriptor = mkstemp(name);
  ASSERT_GE(descriptor, 0) << std::strerror(errno);
  const ssize_t written = write(descriptor, content.data(), content.size());
  fchmod(descriptor, 0644);
  close(descriptor);
  const int result = mount(name, path.c_str(), nullptr, MS_BIND, nullptr);
  const int err = errno;
  unlink(name);
  ASSERT_EQ(written, static_cast<ssize_t>(content.size()));
  ASSERT_EQ(result, 0) << path << ": " << std::strerror(err);
}

// Makes a folder look empty. Needs kMounts.
inline void HideFolder(const char* path) {
  ASSERT_EQ(mount("none", path, "tmpfs", 0, nullptr), 0) << path << ": " << std::strerror(errno);
}

// Lets names be found in this hosts(5) text and nowhere else. Needs kMounts.
inline void UseHosts(const std::string& hosts) {
  ReplaceFile("/etc/hosts", hosts);
  ReplaceFile("/etc/nsswitch.conf", "hosts: files\n");
}

}  // namespace namespaces
