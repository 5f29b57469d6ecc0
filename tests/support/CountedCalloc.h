#pragma once

#include <dlfcn.h>

#include <cstddef>

// Replaces calloc, from which the descriptor sets have what they need beyond their own storage:
// every call is counted, and calls fail while a NoCalloc lives. Only for one source file of an
// executable.

namespace counted_calloc {

// Builtins instead of std::atomic: threads allocate before the thread sanitizer knows them.
inline std::size_t gCalls = 0;
inline bool gFails = false;

inline std::size_t Count() { return __atomic_load_n(&gCalls, __ATOMIC_RELAXED); }

class NoCalloc {
 public:
  NoCalloc() { __atomic_store_n(&gFails, true, __ATOMIC_RELAXED); }
  ~NoCalloc() { __atomic_store_n(&gFails, false, __ATOMIC_RELAXED); }
  NoCalloc(const NoCalloc&) = delete;
  NoCalloc& operator=(const NoCalloc&) = delete;
};

}  // namespace counted_calloc

extern "C" [[gnu::no_sanitize("thread")]] void* calloc(size_t count, size_t size) noexcept {
  using Calloc = void* (*)(size_t, size_t);
  static Calloc found = nullptr;  // without a guard: calls come before any main
  Calloc next = __atomic_load_n(&found, __ATOMIC_RELAXED);
  if (next == nullptr) {
    next = reinterpret_cast<Calloc>(dlsym(RTLD_NEXT, "calloc"));
    __atomic_store_n(&found, next, __ATOMIC_RELAXED);
  }
  __atomic_add_fetch(&counted_calloc::gCalls, 1, __ATOMIC_RELAXED);
  return __atomic_load_n(&counted_calloc::gFails, __ATOMIC_RELAXED) ? nullptr : next(count, size);
}
