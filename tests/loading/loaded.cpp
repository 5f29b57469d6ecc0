// Loads the library at run time, twice: 0 if the collision address is known each time although this
// program never constructed an address.

#include <dlfcn.h>

#include "support/Collision.h"

namespace {

template <class Type>
Type Find(void* library, const char* name) {
  return reinterpret_cast<Type>(dlsym(library, name));
}

int Check(const char* path) {
  void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return Complain(dlerror());
  const auto known = Find<const bool*>(library, "_ZN9CZuIPAddr13m_DummyIpInitE");
  const auto getByName =
      Find<GetByNameFunction>(library, "_ZN9CZuIPAddr9GetByNameEPKcRS_NS_9IP_FAMILYE");
  int status = 0;
  if (known == nullptr || getByName == nullptr) {
    status = Complain("The library lacks what is asked for.");
  } else if (!*known) {
    status = Complain("The collision address is not known.");
  } else {
    status = CheckRefusal(getByName);
  }
  dlclose(library);
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return Complain("Usage: loaded LIBRARY");
  const int status = Check(argv[1]);
  return status != 0 ? status : Check(argv[1]);
}
