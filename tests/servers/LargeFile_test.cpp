#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "servers/FileRequest.h"
#include "support/FileServers.h"

namespace fs = std::filesystem;

// What the program has freed is no memory it needs.
extern "C" const char* __asan_default_options() { return "quarantine_size_mb=1"; }

namespace {

constexpr size_t kAllowance = size_t{24} << 20;  // of memory, above what a small file takes

// A file of holes with a few bytes in between; it takes no room here.
class SparseFile {
 public:
  explicit SparseFile(std::uintmax_t size) : m_size(size) {
    WriteFile(m_path, "begin");
    fs::resize_file(m_path, size);
    std::fstream file(m_path, std::ios::in | std::ios::out | std::ios::binary);
    for (const std::uintmax_t at : {size / 3, size / 2, size - 3}) {
      file.seekp(static_cast<std::streamoff>(at));
      file << "abc";
    }
  }

  const char* Path() const { return m_path.c_str(); }
  std::uintmax_t Size() const { return m_size; }

 private:
  TempDir m_folder;
  std::uintmax_t m_size;
  std::string m_path = m_folder / "sparse";
};

// Compares what comes with a file, byte by byte.
class Comparison {
 public:
  explicit Comparison(const char* path) : m_file(open(path, O_RDONLY | O_CLOEXEC)) {}
  ~Comparison() { close(m_file); }
  Comparison(const Comparison&) = delete;
  Comparison& operator=(const Comparison&) = delete;

  std::uintmax_t Equal() const { return m_equal; }  // bytes from the start

  static size_t Take(char* data, size_t size, size_t count, void* instance) {
    return static_cast<Comparison*>(instance)->Compare(data, size * count);
  }

 private:
  size_t Compare(const char* data, size_t size) {
    m_expected.resize(size);
    const ssize_t length = pread(m_file, m_expected.data(), size, static_cast<off_t>(m_equal));
    if (length != static_cast<ssize_t>(size)) return 0;
    if (std::memcmp(data, m_expected.data(), size) != 0) return 0;
    m_equal += size;
    return size;
  }

  int m_file;
  std::uintmax_t m_equal = 0;
  std::string m_expected;
};

bool HaveSameBytes(const SparseFile& source, const fs::path& copy) {
  Comparison comparison(source.Path());
  std::ifstream file(copy, std::ios::binary);
  std::string buffer(1 << 20, '\0');
  while (file.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) ||
         file.gcount() > 0) {
    const auto length = static_cast<size_t>(file.gcount());
    if (Comparison::Take(buffer.data(), 1, length, &comparison) != length) return false;
  }
  return comparison.Equal() == source.Size();
}

// The most memory this process has held since the last call.
size_t PeakMemory() {
  std::ifstream status("/proc/self/status");
  size_t kilobytes = 0;
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmHWM:", 0) == 0) kilobytes = std::stoul(line.substr(6));
  }
  std::ofstream("/proc/self/clear_refs") << "5";
  return kilobytes << 10;
}

template <typename Request>
void SendAndGet(Request& request, const char* path, const fs::path& stored,
                const SparseFile& source) {
  ASSERT_OK(request.uploadFile(source.Path(), path, source.Size(), {}));
  EXPECT_TRUE(HaveSameBytes(source, stored));
  Comparison comparison(source.Path());
  request.setWriteCallBack(&comparison, Comparison::Take);
  ASSERT_OK(request.download(path, {}));
  EXPECT_EQ(comparison.Equal(), source.Size());
}

}  // namespace

TEST(LargeFile, OverFtpItNeedsNoMoreMemoryThanASmallOne) {
  const FtpServer server;
  FtpRequest request(server.Port());
  SendAndGet(request, "file", server.Login() / "file", SparseFile(1 << 20));
  PeakMemory();
  const size_t before = PeakMemory();
  SendAndGet(request, "file", server.Login() / "file", SparseFile(std::uintmax_t{1} << 30));
  EXPECT_LT(PeakMemory(), before + kAllowance);
}

TEST(LargeFile, OverSftpItNeedsNoMoreMemoryThanASmallOne) {
  const SftpServer server;
  SftpRequest request(server.Port());
  SendAndGet(request, "~/file", server.Login() / "file", SparseFile(1 << 20));
  PeakMemory();
  const size_t before = PeakMemory();
  SendAndGet(request, "~/file", server.Login() / "file", SparseFile(std::uintmax_t{128} << 20));
  EXPECT_LT(PeakMemory(), before + kAllowance);
}
