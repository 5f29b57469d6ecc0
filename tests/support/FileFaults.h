#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "support/SystemFunction.h"

// Faults of the system below a CZuFile and those who read a whole file by it. Only for one source
// file of an executable.

enum class FileFault {
  kNone,
  kSize,   // of a file that is open: its size cannot be had (ENXIO)
  kRead,   // reading fails (ENXIO)
  kEmpty,  // reading finds the end at once
};

namespace file_faults {

inline SystemFunction<int(int, struct stat*)> gStat{"fstat"};
inline SystemFunction<ssize_t(int, void*, size_t)> gRead{"read"};
inline SystemFunction<int(int)> gClose{"close"};

inline int CloseAndFail(int descriptor) {
  gClose.Real(descriptor);
  errno = EIO;
  return -1;
}

}  // namespace file_faults

// While it lives, the fault is there; with `closingFails` close() closes and fails with EIO.
class FileFaults {
 public:
  explicit FileFaults(FileFault fault, bool closingFails = false) {
    using namespace file_faults;
    constexpr int kBehindOpen = 2;  // opening asks whether the file is a folder
    if (fault == FileFault::kSize) m_fault.emplace(gStat, ENXIO, kBehindOpen);
    if (fault == FileFault::kRead) m_fault.emplace(gRead, ENXIO);
    if (fault == FileFault::kEmpty) m_fault.emplace(gRead, 0);
    if (closingFails) m_close.emplace(gClose, CloseAndFail);
  }

  bool HasHappened() const { return m_fault && m_fault->HasHappened(); }

 private:
  std::optional<Fault> m_fault;
  std::optional<Replacement<int(int)>> m_close;
};

extern "C" {

int fstat(int descriptor, struct stat* status) noexcept {
  return file_faults::gStat(descriptor, status);
}

ssize_t read(int descriptor, void* data, size_t size) {
  return file_faults::gRead(descriptor, data, size);
}

int close(int descriptor) { return file_faults::gClose(descriptor); }
}
