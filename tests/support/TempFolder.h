#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

// A fresh folder that every user may read, removed with all it holds at the end.
class TempFolder {
 public:
  TempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zutest.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr || chmod(pattern.c_str(), 0755) != 0) {
      throw std::runtime_error("Failed to create a folder like " + pattern);
    }
    m_path = pattern;
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;

  std::string PathOf(const std::string& name) const { return m_path + "/" + name; }

  // Creates a file and returns its path.
  std::string Write(const std::string& name, const std::string& content) const {
    std::ofstream file(PathOf(name), std::ios::binary);
    file << content;
    file.close();
    if (!file) throw std::runtime_error("Failed to write " + PathOf(name));
    return PathOf(name);
  }

 private:
  std::string m_path;
};
