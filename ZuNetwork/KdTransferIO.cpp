#include "ZuNetwork/KdTransferIO.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>

#include "ZuUtils/internal/OpenFile.h"

namespace KdCURL {

namespace {

using FXErrorUtil::ErrorErrNo;

bool IsLink(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

bool IsEmpty(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0 && status.st_size == 0;
}

bool IsSameFile(const struct stat& one, const struct stat& other) {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

// The name of an open file without links; empty when it has none.
std::string NameOf(int descriptor) {
  std::string name(PATH_MAX, '\0');
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t length = readlink(link.c_str(), name.data(), name.size());
  name.resize(length > 0 ? static_cast<size_t>(length) : 0);
  struct stat named;
  struct stat opened;
  const bool isThere = stat(name.c_str(), &named) == 0 && fstat(descriptor, &opened) == 0;
  return isThere && IsSameFile(named, opened) ? name : "";
}

// Brings a new name to the disk. A folder that may be written but not read, or a file system that
// cannot do it, leaves the name to the system's own time.
int SyncFolderOf(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor == -1) return 0;
  const int err = fsync(descriptor) == 0 || errno == EINVAL ? 0 : errno;
  close(descriptor);
  return err;
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

FileSink::~FileSink() { GiveUp(); }

// Drops what is not complete; the object is then as good as new.
void FileSink::GiveUp() {
  (void)CloseFile();  // what was written counts no more
  if (m_lock != -1) close(m_lock);
  if (!m_temporaryPath.empty() && !m_isKept) unlink(m_temporaryPath.c_str());
  if (m_isPlaceholder && IsEmpty(m_path)) unlink(m_path.c_str());
  m_temporaryPath.clear();
  m_lock = -1;
  m_isKept = m_isPlaceholder = m_isCommitted = m_isDirect = false;
  m_mode = -1;
  m_writeError = 0;
}

// 0 or an errno value. The system gives the number up even when it reports a failure.
int FileSink::CloseFile() {
  const int err = m_isOwner && close(m_descriptor) != 0 ? errno : 0;
  m_isOwner = false;
  m_descriptor = -1;
  return err;
}

CZuError FileSink::Open(const std::string& path) {
  CZuError error = Locate(ZU_HERE, path);
  if (!Failed(error)) error = m_isDirect ? OpenDirectly(ZU_HERE) : OpenBeside(ZU_HERE);
  return error;
}

CZuError FileSink::OpenForResume(const std::string& path, std::int64_t& offset) {
  CZuError error = Locate(ZU_HERE, path);
  if (!Failed(error)) error = m_isDirect ? OpenDirectly(ZU_HERE) : OpenPart(ZU_HERE, offset);
  return error;
}

// Finds the file that the path leads to, and whether it is there. Links are followed by the kernel,
// which refuses those that somebody planted in a folder for everybody.
CZuError FileSink::Locate(const FXCodeLocation& where, const std::string& path) {
  if (m_isOwner) return FXErrorUtil::ErrorWin32(where, kErrorInvalidState, "File already open");
  GiveUp();
  if (path.empty()) return ErrorErrNo(where, ENOENT, "Failed to open file []");
  const bool isLink = IsLink(path);
  m_path = path;
  int found = open(path.c_str(), O_PATH | O_CLOEXEC);
  if (found == -1 && errno == ENOENT && !isLink) return {};  // a new file
  if (found == -1 && errno == ENOENT) {
    found = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
    m_isPlaceholder = found != -1;
  }
  if (found == -1) return ErrorErrNo(where, errno, "Failed to follow [%s]", path.c_str());
  struct stat status {};
  fstat(found, &status);
  m_isDirect = !S_ISREG(status.st_mode);
  m_mode = static_cast<int>(status.st_mode & 0777);
  if (isLink && !m_isDirect) m_path = NameOf(found);
  close(found);
  if (!m_path.empty()) return {};
  m_isPlaceholder = false;
  return ErrorErrNo(where, ENOENT, "Failed to follow [%s]", path.c_str());
}

CZuError FileSink::OpenDirectly(const FXCodeLocation& where) {
  m_descriptor = open(m_path.c_str(), O_WRONLY | O_CLOEXEC);
  m_isOwner = m_descriptor != -1;
  if (m_isOwner) return {};
  return ErrorErrNo(where, errno, "Failed to open file [%s]", m_path.c_str());
}

CZuError FileSink::OpenBeside(const FXCodeLocation& where) {
  std::string path = m_path;
  m_descriptor = CreateBeside(path, m_mode == -1 ? 0666 : 0600);
  m_isOwner = m_descriptor != -1;
  if (m_isOwner) {
    m_temporaryPath = path;
    return {};
  }
  CZuError error = ErrorErrNo(where, errno, "Failed to create a file beside [%s]", m_path.c_str());
  GiveUp();
  return error;
}

CZuError FileSink::OpenPart(const FXCodeLocation& where, std::int64_t& offset) {
  const std::string path = m_path + ".part";
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  m_descriptor = open(path.c_str(), kFlags, m_mode == -1 ? 0666 : 0600);
  m_isOwner = m_descriptor != -1;
  CZuError error;
  if (m_isOwner) {
    error = LockPart(where, path, offset);
  } else {
    error = ErrorErrNo(where, errno, "Failed to open file [%s]", path.c_str());
  }
  if (Failed(error)) {
    GiveUp();
  } else {
    m_temporaryPath = path;
    m_isKept = true;
  }
  return error;
}

// The lock hangs on a second descriptor, so that it outlives the closing of the file until the file
// has its name.
CZuError FileSink::LockPart(const FXCodeLocation& where, const std::string& path,
                            std::int64_t& offset) {
  m_lock = fcntl(m_descriptor, F_DUPFD_CLOEXEC, 0);
  struct stat opened {};
  struct stat named {};
  int err = m_lock == -1 || flock(m_lock, LOCK_EX | LOCK_NB) != 0 ? errno : 0;
  if (err == 0 && (fstat(m_lock, &opened) != 0 || lstat(path.c_str(), &named) != 0)) err = errno;
  if (err == 0 && !S_ISREG(opened.st_mode)) err = EEXIST;
  // Who held the lock before may have renamed the file when it was complete.
  if (err == ENOENT || (err == 0 && !IsSameFile(opened, named))) err = EWOULDBLOCK;
  if (err != 0) return ErrorErrNo(where, err, "Failed to lock file [%s]", path.c_str());
  offset = opened.st_size;
  return {};
}

CZuError FileSink::StartOver() {
  if (m_temporaryPath.empty()) return {};
  if (ftruncate(m_descriptor, 0) == 0 && lseek(m_descriptor, 0, SEEK_SET) == 0) return {};
  return ErrorErrNo(ZU_HERE, errno, "Failed to empty file [%s]", m_temporaryPath.c_str());
}

void FileSink::Use(int descriptor) {
  GiveUp();
  m_descriptor = descriptor;
  m_path = "descriptor " + std::to_string(descriptor);
}

size_t FileSink::Write(char* data, size_t size, size_t count, void* instance) {
  return static_cast<FileSink*>(instance)->WriteAll(data, size * count) ? size * count : 0;
}

bool FileSink::WriteAll(const char* data, size_t size) {
  if (m_descriptor == -1) return false;
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
  if (m_isCommitted) return {};
  if (m_descriptor == -1) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "No file is open");
  }
  CZuError error;
  if (m_writeError != 0) {
    error = ErrorErrNo(ZU_HERE, m_writeError, "Failed to write file [%s]", m_path.c_str());
  } else if (m_isOwner) {
    error = Finish(ZU_HERE);
  } else {
    return {};  // the descriptor stays in use
  }
  GiveUp();
  m_isCommitted = !Failed(error);
  return error;
}

CZuError FileSink::Finish(const FXCodeLocation& where) {
  const bool isBeside = !m_temporaryPath.empty();
  if (isBeside && m_mode != -1 && fchmod(m_descriptor, static_cast<mode_t>(m_mode)) != 0) {
    return ErrorErrNo(where, errno, "Failed to set the permissions of [%s]",
                      m_temporaryPath.c_str());
  }
  int err = isBeside && fsync(m_descriptor) != 0 ? errno : 0;
  if (err == 0) err = CloseFile();
  if (err != 0) return ErrorErrNo(where, err, "Failed to write file [%s]", m_path.c_str());
  if (!isBeside) return {};
  if (rename(m_temporaryPath.c_str(), m_path.c_str()) != 0) {
    return ErrorErrNo(where, errno, "Failed to replace file [%s]", m_path.c_str());
  }
  m_temporaryPath.clear();
  m_isPlaceholder = false;
  err = SyncFolderOf(m_path);
  if (err != 0) return ErrorErrNo(where, err, "Failed to write the folder of [%s]", m_path.c_str());
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
  if (source->m_size != -1) wanted = std::min(wanted, static_cast<size_t>(source->m_left));
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
