// Uses the library in an initialiser of its own, which in a program with static libraries may run
// before those of the library: libcurl is loaded once all the same.
#include <ZuNetwork/CurlWrapper.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstring>

namespace {

int gLoads = 0;

const char* const gVersion = CurlWrapper::gCurlWrapper.Curl_version();

}  // namespace

extern "C" void* dlopen(const char* name, int flags) noexcept {  // in place of the system's
  if (name != nullptr && std::strcmp(name, "libcurl.so") == 0) ++gLoads;
  using Function = void* (*)(const char*, int);
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, "dlopen"))(name, flags);
}

int main() {
  if (std::strncmp(gVersion, "libcurl/", 8) != 0) std::puts(gVersion);
  if (gLoads != 1) std::printf("loaded %d times\n", gLoads);
  std::puts("in time");
  return 0;
}
