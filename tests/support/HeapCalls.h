#pragma once

#include <dlfcn.h>

#include <cstddef>

// Replaces malloc and calloc, also for the shared libraries: calls are counted and callocs can be
// made to fail. Only for one source file of an executable.
//
// The loader allocates before a sanitizer's run-time library is set up, hence nothing here is
// instrumented.

namespace heap {

inline std::size_t gCalls = 0;
inline std::size_t gFailures = 0;
inline bool gIsCallocFailing = false;

#define ZUTEST_UNSANITIZED __attribute__((no_sanitize("address", "thread", "undefined")))

// The calls of either function until now.
ZUTEST_UNSANITIZED inline std::size_t Calls() { return __atomic_load_n(&gCalls, __ATOMIC_RELAXED); }

// The callocs that failed on purpose until now.
ZUTEST_UNSANITIZED inline std::size_t Failures() {
  return __atomic_load_n(&gFailures, __ATOMIC_RELAXED);
}

// While it lives, every calloc fails.
class CallocFails {
 public:
  CallocFails() { __atomic_store_n(&gIsCallocFailing, true, __ATOMIC_RELAXED); }
  ~CallocFails() { __atomic_store_n(&gIsCallocFailing, false, __ATOMIC_RELAXED); }
  CallocFails(const CallocFails&) = delete;
  CallocFails& operator=(const CallocFails&) = delete;
};

}  // namespace heap

extern "C" ZUTEST_UNSANITIZED void* malloc(std::size_t size) noexcept {
  static void* next = nullptr;
  if (next == nullptr) next = dlsym(RTLD_NEXT, "malloc");
  __atomic_add_fetch(&heap::gCalls, 1, __ATOMIC_RELAXED);
  return reinterpret_cast<void* (*)(std::size_t)>(next)(size);
}

extern "C" ZUTEST_UNSANITIZED void* calloc(std::size_t count, std::size_t size) noexcept {
  static void* next = nullptr;
  if (next == nullptr) next = dlsym(RTLD_NEXT, "calloc");
  __atomic_add_fetch(&heap::gCalls, 1, __ATOMIC_RELAXED);
  if (__atomic_load_n(&heap::gIsCallocFailing, __ATOMIC_RELAXED)) {
    __atomic_add_fetch(&heap::gFailures, 1, __ATOMIC_RELAXED);
    return nullptr;
  }
  return reinterpret_cast<void* (*)(std::size_t, std::size_t)>(next)(count, size);
}
