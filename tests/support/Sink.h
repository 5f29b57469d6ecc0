#pragma once

#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

// Where the body of a transfer goes; to be given to setWriteCallBack() as (&sink, Take).

struct TextSink {
  std::string text;

  static size_t Take(char* data, size_t size, size_t count, void* sink) {
    static_cast<TextSink*>(sink)->text.append(data, size * count);
    return size * count;
  }
};

class FileSink {
 public:
  explicit FileSink(const std::filesystem::path& path) : m_file(fopen(path.c_str(), "wbe")) {
    if (m_file == nullptr) throw std::system_error(errno, std::generic_category(), path.string());
  }
  ~FileSink() { Close(); }
  FileSink(const FileSink&) = delete;
  FileSink& operator=(const FileSink&) = delete;

  void Close() {
    if (m_file != nullptr) fclose(m_file);
    m_file = nullptr;
  }

  static size_t Take(char* data, size_t size, size_t count, void* sink) {
    return fwrite(data, 1, size * count, static_cast<FileSink*>(sink)->m_file);
  }

 private:
  FILE* m_file;
};
