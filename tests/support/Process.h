#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

// A program in a process group of its own, with empty input; what it prints goes to `log`, which is
// shown when the test fails. It ends with the object, and with the thread that started it.
class Process {
 public:
  // The first word is FindProgram()'s name. Throws std::runtime_error when it is missing or cannot
  // be run.
  Process(const std::vector<std::string>& command, std::filesystem::path log);
  ~Process();  // asks it to end, kills its group after five seconds
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  pid_t Id() const { return m_id; }

  // Waits until 127.0.0.1:port accepts a connection. Throws, with the log, when the program ends
  // before or ten seconds pass.
  void WaitForPort(int port) const;

  // False when it still runs after that time.
  bool WaitForEnd(std::chrono::milliseconds limit) const;

  // Its exit status, -1 when it ended by a signal; throws while it runs.
  int ExitStatus() const;

 private:
  std::filesystem::path m_log;
  pid_t m_id = -1;
  int m_descriptor = -1;  // readable once the program has ended
};

// The path of a program: among the servers that ./dev unpacked, in PATH, or where servers are
// installed. A name with a slash is its own path. Throws std::runtime_error when there is none.
std::string FindProgram(const std::string& name);

// Where a file of a server's package is, which is installed at `path`: among the unpacked ones or,
// when it is not there, at `path`.
std::string FindServerFile(const std::string& path);

// Runs a program to its end, within a hundred seconds, and returns what it printed. Throws
// std::runtime_error, with the output, when it fails.
std::string Run(const std::vector<std::string>& command);

// A TCP port of the loopback that no one listens on and that no other call, of whatever test
// process, returns while this process lives. It is none that the system gives to a client.
int FreePort();

// The file's SHA-256, in hexadecimal.
std::string Sha256(const std::filesystem::path& path);
