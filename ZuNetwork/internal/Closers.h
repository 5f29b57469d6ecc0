#pragma once

#include <cstdio>
#include <cstdlib>

// Deleters for std::unique_ptr of what C functions hand out.

namespace ZuInternal {

struct CloseFile {
  void operator()(FILE* file) const { std::fclose(file); }
};

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};

}  // namespace ZuInternal
