#include "support/Process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <random>
#include <stdexcept>

#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

std::runtime_error SystemError(const std::string& what, int err) {
  return std::runtime_error(what + ": " + strerror(err));
}

std::string Text(const std::filesystem::path& log) {
  return std::filesystem::exists(log) ? ReadFile(log) : std::string();
}

// Between fork and exec: calls only what a child of a program with threads may call. Never returns.
[[noreturn]] void BecomeProgram(char* const* arguments, const char* log, pid_t parent, int report) {
  const int input = open("/dev/null", O_RDONLY);
  const int output = open(log, O_WRONLY | O_CREAT | O_APPEND, 0600);
  const bool isReady = setpgid(0, 0) == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 &&
                       getppid() == parent && dup2(input, STDIN_FILENO) >= 0 &&
                       dup2(output, STDOUT_FILENO) >= 0 && dup2(output, STDERR_FILENO) >= 0;
  if (isReady) execv(arguments[0], arguments);
  const int err = errno;
  (void)!write(report, &err, sizeof err);
  _exit(127);
}

sockaddr_in Loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<in_port_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

bool Accepts(int port) {
  const sockaddr_in address = Loopback(port);
  const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int result = connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  close(client);
  return result == 0;
}

bool CanBeBound(int port) {
  const sockaddr_in address = Loopback(port);
  const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int result = bind(server, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  close(server);
  return result == 0;
}

// Other test processes see the reservation: it is an abstract socket's name, held until this
// process ends.
bool Reserve(int port) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const int length =
      snprintf(address.sun_path + 1, sizeof address.sun_path - 1, "zunetwork-test-port-%d", port);
  const auto size =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + static_cast<size_t>(length));
  const int holder = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(holder, reinterpret_cast<const sockaddr*>(&address), size) == 0) return true;
  close(holder);
  return false;
}

// Where the servers really are: the way through the folder of the sources is closed to those that
// run with fewer rights than root, where that folder is root's alone.
const std::string& UnpackedServers() {
  static const std::string folder = std::filesystem::weakly_canonical(UNPACKED_SERVERS);
  return folder;
}

}  // namespace

std::string FindProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return name;
  const char* const path = getenv("PATH");
  std::string folders = UnpackedServers() + "/bin:" + (path == nullptr ? std::string() : path) +
                        ":/usr/sbin:/usr/local/sbin:";
  for (size_t end; (end = folders.find(':')) != std::string::npos; folders.erase(0, end + 1)) {
    std::string program = folders.substr(0, end) + "/" + name;
    if (end != 0 && access(program.c_str(), X_OK) == 0) return program;
  }
  throw std::runtime_error(name + " is not installed");
}

std::string FindServerFile(const std::string& path) {
  std::string unpacked = UnpackedServers() + path;
  return access(unpacked.c_str(), F_OK) == 0 ? unpacked : path;
}

Process::Process(const std::vector<std::string>& command, std::filesystem::path log)
    : m_log(std::move(log)) {
  std::vector<std::string> words = command;
  words.at(0) = FindProgram(command.at(0));
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);

  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) throw SystemError("pipe", errno);
  const pid_t parent = getpid();
  m_id = fork();
  if (m_id == 0) BecomeProgram(arguments.data(), m_log.c_str(), parent, report[1]);
  const int forkError = errno;
  close(report[1]);
  int err = 0;
  const bool hasFailed = m_id > 0 && read(report[0], &err, sizeof err) > 0;
  close(report[0]);
  if (m_id < 0) throw SystemError("fork", forkError);
  if (hasFailed) {
    waitpid(m_id, nullptr, 0);
    throw SystemError(words[0], err);
  }
  m_descriptor = static_cast<int>(syscall(SYS_pidfd_open, m_id, 0));
}

Process::~Process() {
  kill(m_id, SIGTERM);
  WaitForEnd(5s);
  kill(-m_id, SIGKILL);  // its children too; the name of the group is not free before waitpid()
  waitpid(m_id, nullptr, 0);
  close(m_descriptor);
  if (testing::Test::HasFailure()) std::cout << m_log << ":\n" << Text(m_log) << std::flush;
}

void Process::WaitForPort(int port) const {
  for (const auto end = Clock::now() + 10s; !Accepts(port);) {
    if (WaitForEnd(10ms)) throw std::runtime_error("server ended\n" + Text(m_log));
    if (Clock::now() > end) throw std::runtime_error("server does not answer\n" + Text(m_log));
  }
}

bool Process::WaitForEnd(std::chrono::milliseconds limit) const {
  pollfd ended{m_descriptor, POLLIN, 0};
  return poll(&ended, 1, static_cast<int>(limit.count())) == 1;
}

int Process::ExitStatus() const {
  siginfo_t info{};
  waitid(P_PID, static_cast<id_t>(m_id), &info, WEXITED | WNOWAIT | WNOHANG);
  if (info.si_pid != m_id) throw std::runtime_error("still running");
  return info.si_code == CLD_EXITED ? info.si_status : -1;
}

std::string Run(const std::vector<std::string>& command) {
  const TempDir folder;
  const auto log = folder / "log";
  const Process process(command, log);
  if (!process.WaitForEnd(100s)) throw std::runtime_error(command[0] + " does not end");
  if (process.ExitStatus() != 0) throw std::runtime_error(command[0] + " failed\n" + Text(log));
  return Text(log);
}

int FreePort() {
  constexpr int kLowest = 10000;
  constexpr int kHighest = 32767;  // clients get theirs above
  std::random_device random;
  std::uniform_int_distribution<int> ports(kLowest, kHighest);
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const int port = ports(random);
    if (Reserve(port) && CanBeBound(port)) return port;
  }
  throw std::runtime_error("no free port");
}

std::string Sha256(const std::filesystem::path& path) {
  return Run({"openssl", "dgst", "-sha256", "-r", path}).substr(0, 64);
}
