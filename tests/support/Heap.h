#pragma once

#include <dlfcn.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

// Replaces malloc, calloc and the operators new and delete, also for the shared libraries: calls
// are counted, and a test can let them fail. Only for one source file of an executable.
//
// The loader allocates before a sanitizer's run-time library is set up, hence nothing that it
// reaches is instrumented, and the numbers are plain ones with atomic access.

namespace heap {

// The operators take their memory from malloc, which is counted as well.
enum Function : unsigned { kMalloc = 1, kCalloc = 2, kNew = 4 };

#define ZUTEST_UNSANITIZED __attribute__((no_sanitize("address", "thread", "undefined")))

// One number for each function.
struct Numbers {
  std::size_t numbers[3] = {};

  ZUTEST_UNSANITIZED std::size_t& Of(Function function) { return numbers[function >> 1]; }
  ZUTEST_UNSANITIZED std::size_t Sum(unsigned functions) const {
    std::size_t sum = 0;
    for (const Function function : {kMalloc, kCalloc, kNew}) {
      if ((functions & function) != 0) {
        sum += __atomic_load_n(&numbers[function >> 1], __ATOMIC_RELAXED);
      }
    }
    return sum;
  }
};

inline Numbers gCalls;
inline Numbers gFailures;
inline std::ptrdiff_t gAlive = 0;  // what the operators gave and did not get back

// Which calls fail: those of the functions that ask for so many bytes, once `spared` of them have
// had their memory.
struct Rule {
  unsigned functions = 0;
  std::size_t least = 0;
  std::size_t most = SIZE_MAX;
  std::size_t spared = 0;
};

inline Rule gRule;

// Is told what malloc is asked for.
inline void (*gWatch)(std::size_t size) = nullptr;

// Until now, of all the functions that are added up.
inline std::size_t Calls(unsigned functions) { return gCalls.Sum(functions); }
inline std::size_t Failures(unsigned functions) { return gFailures.Sum(functions); }
inline std::ptrdiff_t Alive() { return __atomic_load_n(&gAlive, __ATOMIC_RELAXED); }

// While it lives, calls of `functions` (added up) that ask for `least` to `most` bytes fail, but
// for the first `spared` ones. One at a time.
class Failing {
 public:
  explicit Failing(unsigned functions, std::size_t least = 0, std::size_t most = SIZE_MAX,
                   std::size_t spared = 0) {
    gRule.least = least;
    gRule.most = most;
    gRule.spared = spared;
    __atomic_store_n(&gRule.functions, functions, __ATOMIC_RELEASE);
  }
  ~Failing() { __atomic_store_n(&gRule.functions, 0u, __ATOMIC_RELEASE); }
  Failing(const Failing&) = delete;
  Failing& operator=(const Failing&) = delete;
};

// Counts the call; whether it fails.
ZUTEST_UNSANITIZED inline bool Take(Function function, std::size_t size) {
  // More can never be had; the sanitizers' allocators would end the program instead.
  constexpr std::size_t kLimit = std::size_t{1} << 36;
  __atomic_add_fetch(&gCalls.Of(function), 1, __ATOMIC_RELAXED);
  const unsigned functions = __atomic_load_n(&gRule.functions, __ATOMIC_ACQUIRE);
  bool fails = function == kNew && size > kLimit;
  if ((functions & function) != 0 && size >= gRule.least && size <= gRule.most) {
    if (gRule.spared == 0) fails = true;
    if (!fails) --gRule.spared;
  }
  if (fails) __atomic_add_fetch(&gFailures.Of(function), 1, __ATOMIC_RELAXED);
  return fails;
}

inline void* New(std::size_t size) {
  void* const block = Take(kNew, size) ? nullptr : std::malloc(size > 0 ? size : 1);
  if (block != nullptr) __atomic_add_fetch(&gAlive, 1, __ATOMIC_RELAXED);
  return block;
}

inline void* NewOrThrow(std::size_t size) {
  void* const block = New(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

inline void Delete(void* block) {
  if (block != nullptr) __atomic_sub_fetch(&gAlive, 1, __ATOMIC_RELAXED);
  std::free(block);
}

}  // namespace heap

extern "C" ZUTEST_UNSANITIZED void* malloc(std::size_t size) noexcept {
  static void* next = nullptr;
  if (next == nullptr) next = dlsym(RTLD_NEXT, "malloc");
  if (heap::gWatch != nullptr) heap::gWatch(size);
  if (!heap::Take(heap::kMalloc, size)) return reinterpret_cast<void* (*)(std::size_t)>(next)(size);
  errno = ENOMEM;
  return nullptr;
}

extern "C" ZUTEST_UNSANITIZED void* calloc(std::size_t count, std::size_t size) noexcept {
  static void* next = nullptr;
  if (next == nullptr) next = dlsym(RTLD_NEXT, "calloc");
  if (!heap::Take(heap::kCalloc, count * size)) {
    return reinterpret_cast<void* (*)(std::size_t, std::size_t)>(next)(count, size);
  }
  errno = ENOMEM;
  return nullptr;
}

void* operator new(std::size_t size) { return heap::NewOrThrow(size); }
void* operator new[](std::size_t size) { return heap::NewOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return heap::New(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return heap::New(size); }
void operator delete(void* block) noexcept { heap::Delete(block); }
void operator delete[](void* block) noexcept { heap::Delete(block); }
void operator delete(void* block, std::size_t) noexcept { heap::Delete(block); }
void operator delete[](void* block, std::size_t) noexcept { heap::Delete(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { heap::Delete(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { heap::Delete(block); }
