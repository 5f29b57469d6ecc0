#include "OutputFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <vector>

namespace {

namespace fs = std::filesystem;
using FXErrorUtil::ErrorErrNo;

// The permissions that a new file would get, or those of the file to be replaced.
mode_t PermissionsFor(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) == 0) return status.st_mode & 07777;
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

OutputFile::~OutputFile() {
  if (m_descriptor > STDERR_FILENO) close(m_descriptor);
  if (!m_temporary.empty()) unlink(m_temporary.c_str());
}

CZuError OutputFile::Open(const std::string& path) {
  if (path.empty()) {
    m_path = "standard output";
    m_descriptor = STDOUT_FILENO;
    return {};
  }
  std::error_code ignored;  // a path that cannot be resolved is taken as it stands
  m_path = fs::is_symlink(path, ignored) ? fs::weakly_canonical(path, ignored).string() : path;
  if (m_path.empty()) m_path = path;
  if (!fs::exists(m_path, ignored) || fs::is_regular_file(m_path, ignored)) return OpenBeside();
  m_descriptor = open(m_path.c_str(), O_WRONLY | O_CLOEXEC);
  if (m_descriptor == -1) return ErrorErrNo(ZU_HERE, errno, "Cannot write %s", m_path.c_str());
  return {};
}

CZuError OutputFile::OpenBeside() {
  std::string name = m_path + ".XXXXXX";
  m_descriptor = mkostemp(name.data(), O_CLOEXEC);
  if (m_descriptor == -1) {
    return ErrorErrNo(ZU_HERE, errno, "Cannot create a file beside %s", m_path.c_str());
  }
  m_temporary = name;
  if (fchmod(m_descriptor, PermissionsFor(m_path)) == 0) return {};
  return ErrorErrNo(ZU_HERE, errno, "Cannot set the permissions of %s", name.c_str());
}

bool OutputFile::Write(const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t count = write(m_descriptor, data, size);
    if (count >= 0) {
      data += count;
      size -= static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      m_writeError = errno;
      return false;
    }
  }
  return true;
}

CZuError OutputFile::Commit() {
  if (m_writeError != 0) {
    return ErrorErrNo(ZU_HERE, m_writeError, "Cannot write %s", m_path.c_str());
  }
  if (m_descriptor == STDOUT_FILENO) return {};
  const int descriptor = m_descriptor;
  m_descriptor = -1;
  if (close(descriptor) != 0) return ErrorErrNo(ZU_HERE, errno, "Cannot write %s", m_path.c_str());
  if (m_temporary.empty()) return {};
  if (rename(m_temporary.c_str(), m_path.c_str()) != 0) {
    return ErrorErrNo(ZU_HERE, errno, "Cannot replace %s", m_path.c_str());
  }
  m_temporary.clear();
  return {};
}
