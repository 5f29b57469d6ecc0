#pragma once

#include <fstream>
#include <optional>
#include <string>
#include <thread>

#include "support/Process.h"
#include "support/TempDir.h"

// Quotes a word for the shell.
inline std::string Quoted(const std::string& word) { return "'" + word + "'"; }

// zunet with arguments in the words of the shell, which may redirect the streams again. What it
// prints goes to files.
class ZunetRun {
 public:
  ZunetRun(const TempDir& folder, const std::string& name, const std::string& arguments,
           const std::string& input = "/dev/null")
      : m_output(folder / (name + ".out")), m_errors(folder / (name + ".err")) {
    const std::string streams =
        "exec <" + Quoted(input) + " >" + Quoted(m_output) + " 2>" + Quoted(m_errors);
    const std::string program = "exec " + Quoted(ZUNET_PROGRAM) + " " + arguments;
    m_process.emplace(std::vector<std::string>{"sh", "-c", streams + "; " + program},
                      folder / (name + ".log"));
  }

  const Process& Program() const { return *m_process; }
  std::string Output() const { return ReadFile(m_output); }
  std::string Errors() const { return ReadFile(m_errors); }

  // Its exit status, or -1000 when it does not end in time.
  int Wait(std::chrono::milliseconds limit = std::chrono::seconds(60)) const {
    return m_process->WaitForEnd(limit) ? m_process->ExitStatus() : -1000;
  }

  // Waits until the text is printed, ten seconds at most, and returns all that is printed.
  std::string WaitForOutput(const std::string& text) const { return WaitFor(m_output, text); }
  std::string WaitForError(const std::string& text) const { return WaitFor(m_errors, text); }

  // The port that "listen 0" chose.
  int Port() const {
    const std::string start = "listening on port ";
    const std::string text = WaitForError(start);
    const size_t position = text.find(start);
    return position == std::string::npos ? 0 : std::atoi(text.c_str() + position + start.size());
  }

 private:
  static std::string WaitFor(const std::filesystem::path& path, const std::string& text) {
    using namespace std::chrono_literals;
    std::string printed;
    for (const auto end = std::chrono::steady_clock::now() + 10s;
         std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(5ms)) {
      if (std::filesystem::exists(path)) printed = ReadFile(path);
      const size_t position = printed.find(text);
      if (position != std::string::npos && printed.find('\n', position) != std::string::npos) break;
    }
    return printed;
  }

  std::filesystem::path m_output;
  std::filesystem::path m_errors;
  std::optional<Process> m_process;
};
