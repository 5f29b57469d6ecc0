#include "ZuUtils/ZuLibrary.h"

#include <dlfcn.h>

namespace {

// dlerror() forgets its text once it is read, and has none for a symbol whose value is null.
const char* LoaderText() {
  const char* const text = dlerror();
  return text == nullptr ? "no reason given" : text;
}

}  // namespace

CZuLibrary::~CZuLibrary() {
  if (m_bFreeOnDestroy) (void)Free();  // nobody is left to be told
}

CZuError CZuLibrary::Load(const char* path, bool global) {
  if (path == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Null parameter passed");
  }
  void* const handle = dlopen(path, RTLD_LAZY | (global ? RTLD_GLOBAL : RTLD_LOCAL));
  if (handle == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "Failed to load [%s]: %s", path,
                                   LoaderText());
  }
  void* loaded = nullptr;
  if (m_handle.compare_exchange_strong(loaded, handle)) return {};
  dlclose(handle);  // the object counts the library once
  if (loaded == handle) return {};
  return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState,
                                 "Failed to load [%s]: another library is loaded", path);
}

CZuError CZuLibrary::GetAddress(const char* name, void*& address) const {
  address = nullptr;
  if (name == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Null parameter passed");
  }
  if (m_handle == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState,
                                   "Failed to find [%s]: no library is loaded", name);
  }
  address = Find(name);
  if (address != nullptr) return {};
  return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "Failed to find [%s]: %s", name,
                                 LoaderText());
}

void* CZuLibrary::Find(const char* name) const {
  void* const handle = m_handle.load(std::memory_order_acquire);
  return handle == nullptr ? nullptr : dlsym(handle, name);
}

CZuError CZuLibrary::Free() {
  void* const handle = m_handle.exchange(nullptr);
  if (handle == nullptr || dlclose(handle) == 0) return {};
  return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "Failed to free the library: %s",
                                 LoaderText());
}
