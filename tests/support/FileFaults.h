#pragma once

#include <cerrno>

#include "ZuUtils/ZuFile.h"
#include "support/SystemFunction.h"

// Replaces close() and what CZuFile offers to those who read a whole file, which fail as they are
// told. Only for one source file of an executable.

namespace file_faults {

enum class Fault { kNone, kSize, kRead, kEmpty, kNoBuffer };

inline Fault gFault = Fault::kNone;  // Size or ReadWholeFile fail with ENXIO; or what is read
inline bool gClosingFails = false;   // close() closes, and fails with EIO

inline void Reset() {
  gFault = Fault::kNone;
  gClosingFails = false;
}

inline SystemFunction<CZuError(CZuFile*, unsigned long long&)> gSize{"_ZN7CZuFile4SizeERy"};
inline SystemFunction<CZuError(const char*, char**, std::size_t&)> gReadWholeFile{
    "_ZN7CZuFile13ReadWholeFileEPKcPPcRm"};
inline SystemFunction<int(int)> gClose{"close"};

}  // namespace file_faults

CZuError CZuFile::Size(unsigned long long& size) {
  using namespace file_faults;
  if (gFault == Fault::kSize) return FXErrorUtil::ErrorErrNo(ZU_HERE, ENXIO);
  return gSize.Real(this, size);
}

CZuError CZuFile::ReadWholeFile(const char* path, char** content, std::size_t& length) {
  using namespace file_faults;
  if (gFault == Fault::kRead) return FXErrorUtil::ErrorErrNo(ZU_HERE, ENXIO);
  if (gFault == Fault::kEmpty) return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorEmpty);
  if (gFault == Fault::kNoBuffer) return {};
  return gReadWholeFile.Real(path, content, length);
}

extern "C" int close(int descriptor) {
  const int result = file_faults::gClose.Real(descriptor);
  if (!file_faults::gClosingFails) return result;
  errno = EIO;
  return -1;
}
