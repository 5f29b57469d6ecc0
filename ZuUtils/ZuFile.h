#pragma once

#include <cstddef>

#include "ZuUtils/ZuError.h"

// A regular file (or one of /proc) that is read as a whole. Not copyable; used by one thread at a
// time. A failed system call is ErrorErrNo, with the path in the message where one is given; a
// directory is EISDIR.
class ZUUTILS_API CZuFile {
 public:
  CZuFile() = default;
  ~CZuFile();  // closes an open file
  CZuFile(const CZuFile&) = delete;
  CZuFile& operator=(const CZuFile&) = delete;

  // Opens `path` for reading. `mode` and `share` are reserved: pass 0. A null path is ErrorWin32
  // 87; an object that already holds a file is ErrorWin32 774 and keeps it.
  CZuError Open(const char* path, int mode, int share);

  // The size in bytes as the system reports it, 0 for most files of /proc. ErrorWin32 774 when no
  // file is open.
  CZuError Size(unsigned long long& size);

  // Reads all of `path`, however large, into a new zero-terminated buffer. On success `*content` is
  // the caller's, to be released with delete[], and `length` counts its bytes without the
  // terminator; what the file holds when it is read counts, not the size it had when it was opened.
  // Failures leave both outputs as they were: ErrorWin32 4306 for an empty file, 8 when memory is
  // short, 87 for a null argument, else as Open. Independent of the file the object holds.
  static CZuError ReadWholeFile(const char* path, char** content, std::size_t& length);

  // Closes the file; without one it succeeds.
  CZuError Close();

 private:
  int m_descriptor = -1;
};
