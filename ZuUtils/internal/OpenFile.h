#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "ZuUtils/ZuError.h"

// Opens `path` for reading. `descriptor` is then the caller's to close; a failure leaves it:
// ErrorErrNo with the path, EISDIR for a folder.
inline CZuError OpenForReading(const FXCodeLocation& where, const std::string& path,
                               int& descriptor) {
  const int opened = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status;
  int err = opened == -1 ? errno : 0;
  if (err == 0 && fstat(opened, &status) == 0 && S_ISDIR(status.st_mode)) err = EISDIR;
  if (err == 0) {
    descriptor = opened;
    return {};
  }
  if (opened != -1) close(opened);
  return FXErrorUtil::ErrorErrNo(where, err, "Failed to open file [%s]", path.c_str());
}
