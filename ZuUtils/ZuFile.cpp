#include "ZuUtils/ZuFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "ZuUtils/internal/OpenFile.h"

namespace {

CZuError SizeOf(int descriptor, std::size_t& size) {
  struct stat status;
  if (fstat(descriptor, &status) != 0) {
    return FXErrorUtil::ErrorErrNo(ZU_HERE, errno, "Failed to get the size of the file");
  }
  size = static_cast<std::size_t>(status.st_size);
  return {};
}

struct Buffer {
  std::unique_ptr<char[]> bytes;
  std::size_t capacity = 0;
  std::size_t length = 0;
};

CZuError Grow(Buffer& buffer, std::size_t capacity) {
  std::unique_ptr<char[]> larger(new (std::nothrow) char[capacity]);
  if (!larger) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorNotEnoughMemory, "No memory for %zu bytes",
                                   capacity);
  }
  if (buffer.length > 0) std::memcpy(larger.get(), buffer.bytes.get(), buffer.length);
  buffer.bytes = std::move(larger);
  buffer.capacity = capacity;
  return {};
}

// Reads to the end of the file and leaves room for the terminator. The size is a first guess only:
// files grow and shrink, and those of /proc report 0.
CZuError ReadToEnd(int descriptor, std::size_t size, Buffer& buffer) {
  constexpr std::size_t kSmallest = 4096;
  CZuError error = Grow(buffer, size + kSmallest);
  while (!Failed(error)) {
    const ssize_t count =
        read(descriptor, buffer.bytes.get() + buffer.length, buffer.capacity - buffer.length - 1);
    if (count == 0) return {};
    if (count > 0) {
      buffer.length += static_cast<std::size_t>(count);
      if (buffer.length + 1 == buffer.capacity) error = Grow(buffer, 2 * buffer.capacity);
    } else if (errno != EINTR) {
      return FXErrorUtil::ErrorErrNo(ZU_HERE, errno);
    }
  }
  return error.Push(ZU_HERE);
}

}  // namespace

CZuFile::~CZuFile() {
  (void)Close();  // nobody is left to be told
}

CZuError CZuFile::Open(const char* path, int /*mode*/, int /*share*/) {
  if (m_descriptor != -1) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "File already open");
  }
  if (path == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Null parameter passed");
  }
  return OpenForReading(ZU_HERE, path, m_descriptor);
}

CZuError CZuFile::Size(unsigned long long& size) {
  if (m_descriptor == -1) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "File not open");
  }
  std::size_t bytes = 0;
  CZuError error = SizeOf(m_descriptor, bytes);
  if (Failed(error)) return error.Push(ZU_HERE);
  size = bytes;
  return {};
}

CZuError CZuFile::ReadWholeFile(const char* path, char** content, std::size_t& length) {
  if (content == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Null parameter passed");
  }
  CZuFile file;
  std::size_t size = 0;
  Buffer buffer;
  CZuError error = file.Open(path, 0, 0);
  if (!Failed(error)) error = SizeOf(file.m_descriptor, size);
  if (!Failed(error)) error = ReadToEnd(file.m_descriptor, size, buffer);
  if (Failed(error)) return error.Push(ZU_HERE, "Failed to read file [%s]", path ? path : "");
  if (buffer.length == 0) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorEmpty, "File [%s] is empty", path);
  }
  buffer.bytes[buffer.length] = '\0';
  length = buffer.length;
  *content = buffer.bytes.release();
  return {};
}

CZuError CZuFile::Close() {
  if (m_descriptor == -1) return {};
  const int descriptor = m_descriptor;
  m_descriptor = -1;  // the system gives the number up even when it reports a failure
  if (close(descriptor) != 0) {
    return FXErrorUtil::ErrorErrNo(ZU_HERE, errno, "Failed to close file");
  }
  return {};
}
