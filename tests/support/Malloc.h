#pragma once

#include <dlfcn.h>

#include <array>
#include <cerrno>
#include <cstddef>

// Replaces malloc(3), also for the shared libraries and what the operator new takes: a thread sees
// its own allocations and can let those of one size fail. Only for one source file of an
// executable.

namespace heap {

// The calling thread's; constants at start, for the loader allocates before anything is set up.
inline thread_local std::size_t gCount = 0;
inline thread_local std::size_t gFailingSize = 0;  // 0: none fails

// Buffers that start at 1024 bytes and double: their sizes, in the order of the requests.
inline thread_local std::size_t gBufferCount = 0;
inline thread_local std::array<std::size_t, 16> gBufferSizes{};

// While it lives, allocations of exactly this size fail on this thread.
class Failing {
 public:
  explicit Failing(std::size_t size) { gFailingSize = size; }
  ~Failing() { gFailingSize = 0; }
  Failing(const Failing&) = delete;
  Failing& operator=(const Failing&) = delete;
};

}  // namespace heap

// Sanitizers are not up yet when the loader allocates.
extern "C" __attribute__((no_sanitize("address", "thread", "undefined"))) void* malloc(
    std::size_t size) noexcept {
  using Malloc = void* (*)(std::size_t);
  static Malloc next = nullptr;
  if (next == nullptr) next = reinterpret_cast<Malloc>(dlsym(RTLD_NEXT, "malloc"));
  ++heap::gCount;
  const bool isBuffer = size >= 1024 && (size & (size - 1)) == 0;
  if (isBuffer && heap::gBufferCount < heap::gBufferSizes.size()) {
    heap::gBufferSizes[heap::gBufferCount++] = size;
  }
  if (heap::gFailingSize != 0 && size == heap::gFailingSize) {
    errno = ENOMEM;
    return nullptr;
  }
  return next(size);
}
