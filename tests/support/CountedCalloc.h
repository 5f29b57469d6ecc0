#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cstdlib>

// Replaces calloc, from which the descriptor sets have what they need beyond their own storage:
// every call is counted, and calls fail while a NoCalloc lives. Only for one source file of an
// executable.

namespace counted_calloc {

inline std::atomic<std::size_t> gCount{0};
inline std::atomic<bool> gFails{false};

class NoCalloc {
 public:
  NoCalloc() { gFails = true; }
  ~NoCalloc() { gFails = false; }
  NoCalloc(const NoCalloc&) = delete;
  NoCalloc& operator=(const NoCalloc&) = delete;
};

}  // namespace counted_calloc

extern "C" void* calloc(size_t count, size_t size) noexcept {
  static void* (*next)(size_t, size_t) = nullptr;  // without a guard: calls come before any main
  if (next == nullptr) next = reinterpret_cast<decltype(next)>(dlsym(RTLD_NEXT, "calloc"));
  ++counted_calloc::gCount;
  return counted_calloc::gFails ? nullptr : next(count, size);
}
