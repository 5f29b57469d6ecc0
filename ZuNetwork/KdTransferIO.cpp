#include "ZuNetwork/KdTransferIO.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "ZuNetwork/internal/OpenFile.h"

namespace KdCURL {

namespace {

namespace fs = std::filesystem;
using FXErrorUtil::ErrorErrNo;

// Where symbolic links lead, even to a name that does not exist yet.
std::string FollowLinks(const std::string& path, std::error_code& failure) {
  constexpr int kMostLinks = 40;
  fs::path target = path;
  for (int links = 0; fs::is_symlink(target, failure); ++links) {
    if (links == kMostLinks)
      failure = std::make_error_code(std::errc::too_many_symbolic_link_levels);
    if (!failure) target = target.parent_path() / fs::read_symlink(target, failure);
    if (failure) return {};
  }
  failure.clear();  // what is absent is no link
  return target;
}

bool IsRegularOrAbsent(const std::string& path) {
  std::error_code failure;
  return !fs::exists(path, failure) || fs::is_regular_file(path, failure);
}

// A new file beside `path`, which becomes its name. The system takes the umask off `mode`; a
// program with threads cannot ask for it.
int CreateBeside(std::string& path, mode_t mode) {
  static std::atomic<unsigned> counter{0};
  const std::string prefix = path + "." + std::to_string(getpid()) + "-";
  int descriptor = -1;
  do {
    path = prefix + std::to_string(counter++);
    descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  } while (descriptor == -1 && errno == EEXIST);
  return descriptor;
}

// Files of /proc report 0 bytes and hold some.
std::int64_t SizeOf(int descriptor) {
  struct stat status;
  if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return -1;
  char byte = 0;
  const bool isHidden = status.st_size == 0 && pread(descriptor, &byte, 1, 0) > 0;
  return isHidden ? -1 : status.st_size;
}

}  // namespace

FileSink::~FileSink() {
  if (m_isOwner) close(m_descriptor);
  if (!m_temporaryPath.empty() && !m_isKept) unlink(m_temporaryPath.c_str());
}

CZuError FileSink::Open(const std::string& path) {
  CZuError error = Locate(path);
  if (!Failed(error)) error = IsRegularOrAbsent(m_path) ? OpenBeside() : OpenDirectly();
  if (Failed(error)) error.Push(ZU_HERE);
  return error;
}

CZuError FileSink::Locate(const std::string& path) {
  if (m_descriptor != -1) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "File already open");
  }
  if (path.empty()) return ErrorErrNo(ZU_HERE, ENOENT, "Failed to open file []");
  std::error_code failure;
  m_path = FollowLinks(path, failure);
  if (failure) {
    return ErrorErrNo(ZU_HERE, failure.value(), "Failed to follow [%s]", path.c_str());
  }
  m_isKept = false;
  return {};
}

CZuError FileSink::OpenDirectly() {
  m_descriptor = open(m_path.c_str(), O_WRONLY | O_CLOEXEC);
  if (m_descriptor == -1) {
    return ErrorErrNo(ZU_HERE, errno, "Failed to open file [%s]", m_path.c_str());
  }
  m_isOwner = true;
  return {};
}

CZuError FileSink::OpenBeside() {
  struct stat status;
  const bool isReplaced = stat(m_path.c_str(), &status) == 0;
  std::string path = m_path;
  m_descriptor = CreateBeside(path, isReplaced ? 0600 : 0666);
  if (m_descriptor == -1) {
    return ErrorErrNo(ZU_HERE, errno, "Failed to create a file beside [%s]", m_path.c_str());
  }
  m_isOwner = true;
  m_temporaryPath = path;
  if (!isReplaced || fchmod(m_descriptor, status.st_mode & 07777) == 0) return {};
  return ErrorErrNo(ZU_HERE, errno, "Failed to set the permissions of [%s]", path.c_str());
}

CZuError FileSink::OpenForResume(const std::string& path, std::int64_t& offset) {
  CZuError error = Locate(path);
  if (!Failed(error)) {
    error = IsRegularOrAbsent(m_path) ? OpenPart(offset) : OpenDirectly();
  }
  if (Failed(error)) error.Push(ZU_HERE);
  return error;
}

CZuError FileSink::OpenPart(std::int64_t& offset) {
  const std::string path = m_path + ".part";
  struct stat part;
  m_descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  m_isOwner = m_descriptor != -1;
  if (!m_isOwner || fstat(m_descriptor, &part) != 0) {
    return ErrorErrNo(ZU_HERE, errno, "Failed to open file [%s]", path.c_str());
  }
  m_isKept = true;
  m_temporaryPath = path;
  struct stat replaced;
  if (stat(m_path.c_str(), &replaced) == 0 && fchmod(m_descriptor, replaced.st_mode & 07777) != 0) {
    return ErrorErrNo(ZU_HERE, errno, "Failed to set the permissions of [%s]", path.c_str());
  }
  offset = part.st_size;
  return {};
}

void FileSink::Use(int descriptor) {
  m_descriptor = descriptor;
  m_path = "descriptor " + std::to_string(descriptor);
}

size_t FileSink::Write(char* data, size_t size, size_t count, void* instance) {
  return static_cast<FileSink*>(instance)->WriteAll(data, size * count) ? size * count : 0;
}

bool FileSink::WriteAll(const char* data, size_t size) {
  while (size > 0) {
    const ssize_t count = write(m_descriptor, data, size);
    if (count >= 0) {
      data += count;
      size -= static_cast<size_t>(count);
    } else if (errno != EINTR) {
      m_writeError = errno;
      return false;
    }
  }
  return true;
}

CZuError FileSink::Commit() {
  if (m_writeError != 0) {
    return ErrorErrNo(ZU_HERE, m_writeError, "Failed to write file [%s]", m_path.c_str());
  }
  if (!m_isOwner) return {};
  m_isOwner = false;
  const int descriptor = m_descriptor;
  m_descriptor = -1;
  if (close(descriptor) != 0) {
    return ErrorErrNo(ZU_HERE, errno, "Failed to write file [%s]", m_path.c_str());
  }
  if (m_temporaryPath.empty()) return {};
  if (rename(m_temporaryPath.c_str(), m_path.c_str()) != 0) {
    return ErrorErrNo(ZU_HERE, errno, "Failed to replace file [%s]", m_path.c_str());
  }
  m_temporaryPath.clear();
  return {};
}

size_t StringSink::Write(char* data, size_t size, size_t count, void* instance) {
  auto* const sink = static_cast<StringSink*>(instance);
  const size_t length = size * count;
  sink->m_isOverLimit = length > sink->m_limit - sink->m_text.size();
  if (sink->m_isOverLimit) return 0;
  sink->m_text.append(data, length);
  return length;
}

FileSource::~FileSource() { Close(); }

CZuError FileSource::Open(const std::string& path, std::int64_t offset) {
  Close();
  CZuError error = OpenForReading(ZU_HERE, path, m_descriptor);
  if (Failed(error) || offset == 0 || lseek(m_descriptor, offset, SEEK_SET) != -1) return error;
  const int err = errno;
  Close();
  return ErrorErrNo(ZU_HERE, err, "Failed to open file [%s]", path.c_str());
}

CZuError FileSource::OpenSized(const std::string& path, std::int64_t& size) {
  CZuError error = Open(path);
  if (Failed(error)) return error.Push(ZU_HERE);
  m_size = SizeOf(m_descriptor);
  m_left = m_size;
  size = m_size;
  return {};
}

void FileSource::Close() {
  if (m_descriptor != -1) close(m_descriptor);
  m_descriptor = -1;
  m_size = -1;
  m_readError = 0;
}

size_t FileSource::Read(char* buffer, size_t size, size_t count, void* instance) {
  auto* const source = static_cast<FileSource*>(instance);
  size_t wanted = size * count;
  if (source->m_size != -1) wanted = std::min<std::uint64_t>(wanted, source->m_left);
  if (wanted == 0) return 0;
  const ssize_t length = source->ReadOnce(buffer, wanted);
  if (length == -1) return CURL_READFUNC_ABORT;
  source->m_left -= length;
  return static_cast<size_t>(length);
}

ssize_t FileSource::ReadOnce(char* buffer, size_t size) {
  ssize_t length = 0;
  do {
    length = read(m_descriptor, buffer, size);
  } while (length == -1 && errno == EINTR);
  if (length == -1) m_readError = errno;
  if (length != 0 || m_size == -1) return length;
  m_readError = ENODATA;
  return -1;
}

int FileSource::Seek(void* instance, curl_off_t offset, int origin) {
  auto* const source = static_cast<FileSource*>(instance);
  if (origin != SEEK_SET || lseek(source->m_descriptor, offset, SEEK_SET) == -1) {
    return CURL_SEEKFUNC_CANTSEEK;
  }
  if (source->m_size != -1) source->m_left = std::max<std::int64_t>(0, source->m_size - offset);
  return CURL_SEEKFUNC_OK;
}

size_t MemorySource::Read(char* buffer, size_t size, size_t count, void* instance) {
  auto* const source = static_cast<MemorySource*>(instance);
  const size_t length = std::min(size * count, source->m_size);
  if (length > 0) std::memcpy(buffer, source->m_data, length);
  source->m_data += length;
  source->m_size -= length;
  return length;
}

}  // namespace KdCURL
