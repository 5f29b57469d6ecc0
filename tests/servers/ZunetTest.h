#pragma once

#include <gmock/gmock.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/Servers.h"

// What zunet did: its exit status (128 and the signal's number when one ended it) and what it
// printed.
struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs zunet as a user does, in a folder of its own, which is the user's home too.
class ZunetTest : public testing::Test {
 protected:
  // The arguments go through the shell, and so does what stands before the program's name.
  Outcome RunZunet(const std::string& arguments, const std::string& before = "") const {
    const auto out = m_folder / "stdout";
    const auto err = m_folder / "stderr";
    const std::string folder = m_folder.Path();
    const std::string command = "cd '" + folder + "' && exec </dev/null >'" + out.string() +
                                "' 2>'" + err.string() + "'; export HOME='" + folder +
                                "'; unset CURL_CA_BUNDLE SSL_CERT_FILE ZUNET_PASSWORD; " + before +
                                " timeout 60 " ZUNET_PROGRAM " " + arguments;
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, ReadFile(out), ReadFile(err)};
  }

  static std::string Local(const std::string& scheme, int port, const std::string& path) {
    return scheme + "://127.0.0.1:" + std::to_string(port) + path;
  }

  // The files of the working folder, but for the captured output.
  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_folder.Path())) {
      const std::string name = entry.path().filename();
      if (name != "stdout" && name != "stderr") names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  TempDir m_folder;
};
