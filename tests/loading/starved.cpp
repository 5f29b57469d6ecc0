// Loads the library with memory that is short at one allocation after the other: 0 if it is there
// each time and works once memory is back. `starved LIBRARY new` lets the operator new fail,
// `starved LIBRARY malloc` malloc too, whereupon the loader itself may refuse the library. Whether
// there is a libcurl is told by a third argument, `with` or `without`.

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>

#include "support/Collision.h"

namespace {

constexpr int kNothingFailed = 2;
constexpr int kMostAllocations = 20000;

// The number of the allocation to fail, from now; 0: none.
long gFailingNew = 0;
long gFailingMalloc = 0;

bool Fails(long& countdown) { return countdown > 0 && --countdown == 0; }

template <class Type>
Type Find(void* library, const char* name) {
  return reinterpret_cast<Type>(dlsym(library, name));
}

int CheckThatItWorks(void* library, bool hasCurl) {
  const auto init = Find<bool (*)(void*)>(library, "_ZN11CurlWrapper4InitEv");
  auto* const wrapper = Find<void*>(library, "_ZN11CurlWrapper12gCurlWrapperE");
  const auto construct = Find<void (*)(void*)>(library, "_ZN9CZuIPAddrC1Ev");
  const auto getByName =
      Find<GetByNameFunction>(library, "_ZN9CZuIPAddr9GetByNameEPKcRS_NS_9IP_FAMILYE");
  if (!init || wrapper == nullptr || !construct || !getByName) {
    return Complain("The library lacks what is asked for.");
  }
  if (init(wrapper) != hasCurl) return Complain("libcurl is not found as it should be.");
  alignas(CZuIPAddr) unsigned char memory[sizeof(CZuIPAddr)] = {};
  construct(memory);
  return CheckRefusal(getByName);
}

// In a process of its own: loads the library while the allocation with this number fails.
int LoadWithFault(const char* path, bool hasCurl, long& countdown, long number) {
  countdown = number;
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  const bool hasFailed = countdown == 0;
  countdown = 0;
  if (library == nullptr && &countdown == &gFailingMalloc) return 0;  // the loader refused
  if (library == nullptr) return Complain(dlerror());
  const int status = CheckThatItWorks(library, hasCurl);
  if (status != 0) return status;
  return hasFailed ? 0 : kNothingFailed;
}

}  // namespace

void* operator new(std::size_t size) {
  void* const block = Fails(gFailingNew) ? nullptr : std::malloc(size > 0 ? size : 1);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }

#ifdef STARVE_MALLOC
extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* malloc(std::size_t size) noexcept {
  if (!Fails(gFailingMalloc)) return __libc_malloc(size);
  errno = ENOMEM;
  return nullptr;
}
#endif

int main(int argc, char** argv) {
  if (argc != 4) return Complain("Usage: starved LIBRARY new|malloc with|without");
  const bool hasCurl = std::strcmp(argv[3], "with") == 0;
  long& countdown = std::strcmp(argv[2], "new") == 0 ? gFailingNew : gFailingMalloc;
  for (long number = 1; number < kMostAllocations; ++number) {
    const pid_t child = fork();
    if (child == 0) _exit(LoadWithFault(argv[1], hasCurl, countdown, number));
    int status = -1;
    if (child == -1 || waitpid(child, &status, 0) != child) return Complain("No process.");
    if (WIFEXITED(status) && WEXITSTATUS(status) == kNothingFailed) {
      return number > 1 ? 0 : Complain("Nothing was allocated.");
    }
    if (status != 0) {
      std::fprintf(stderr, "Allocation %ld: status 0x%x\n", number, static_cast<unsigned>(status));
      return 1;
    }
  }
  return Complain("It never ends.");
}
