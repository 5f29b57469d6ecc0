#pragma once

#include <string>

// Where the body of a transfer goes; to be given to setWriteCallBack() as (&sink, Take).

struct TextSink {
  std::string text;

  static size_t Take(char* data, size_t size, size_t count, void* sink) {
    static_cast<TextSink*>(sink)->text.append(data, size * count);
    return size * count;
  }
};
