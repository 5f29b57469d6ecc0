#pragma once

#include <stdlib.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>

inline void WriteFile(const std::filesystem::path& path, const std::string& contents) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  file << contents;
  if (!file.flush()) throw std::system_error(EIO, std::generic_category(), path.string());
}

inline std::string ReadFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::system_error(ENOENT, std::generic_category(), path.string());
  return {std::istreambuf_iterator<char>(file), {}};
}

// A directory of its own for one test, removed with all that is in it.
class TempDir {
 public:
  TempDir() {
    std::string name = std::filesystem::temp_directory_path() / "zunetwork-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), name);
    }
    m_path = name;
  }
  ~TempDir() {
    std::error_code ignored;  // what is left behind does no harm
    std::filesystem::remove_all(m_path, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& Path() const { return m_path; }
  std::filesystem::path operator/(const std::string& name) const { return m_path / name; }

 private:
  std::filesystem::path m_path;
};
