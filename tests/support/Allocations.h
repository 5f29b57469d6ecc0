#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

// Replaces the global operators new and delete, also for the shared libraries: every allocation is
// counted, and those above a limit fail. Only for one source file of an executable.

namespace allocations {

// Above this nothing can be had; the sanitizers' allocators would end the program instead.
constexpr std::size_t kNoLimit = std::size_t{1} << 36;

inline std::atomic<std::size_t> gCount{0};
inline std::atomic<std::size_t> gLimit{kNoLimit};

// While it lives, allocations of more than `bytes` fail.
class Limit {
 public:
  explicit Limit(std::size_t bytes) { gLimit = bytes; }
  ~Limit() { gLimit = kNoLimit; }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;
};

inline void* Allocate(std::size_t size) {
  ++gCount;
  return size > gLimit ? nullptr : std::malloc(size > 0 ? size : 1);
}

inline void* AllocateOrThrow(std::size_t size) {
  void* const block = Allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

}  // namespace allocations

void* operator new(std::size_t size) { return allocations::AllocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocations::AllocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocations::Allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocations::Allocate(size);
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }
