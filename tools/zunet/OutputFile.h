#pragma once

#include <cstddef>
#include <string>

#include "ZuUtils/ZuError.h"

// Where a download goes: standard output, or a file that appears under its name only when it is
// complete. Until then the bytes lie in a temporary file beside it, which the destructor removes.
// A name that is no regular file (a device, a pipe) is written to directly.
class OutputFile {
 public:
  OutputFile() = default;
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // An empty path means standard output.
  CZuError Open(const std::string& path);

  // False when the bytes cannot be written; Commit() then tells why.
  bool Write(const char* data, std::size_t size);

  // Closes the file and gives it its name.
  CZuError Commit();

 private:
  CZuError OpenBeside();

  int m_descriptor = -1;
  int m_writeError = 0;
  std::string m_path;
  std::string m_temporary;  // empty when the target is written directly
};
