#pragma once

#include <atomic>

#include "ZuUtils/ZuError.h"

// A shared library that is loaded at run time. Not copyable. Load and the lookups may be called
// from several threads at once, and so may Load and Free. Nothing may look up or use an address
// while the library is freed: a lookup takes no lock, since it is on the way of every call into the
// library.
class ZUUTILS_API CZuLibrary {
 public:
  // `freeOnDestroy`: the destructor frees the library.
  explicit CZuLibrary(bool freeOnDestroy) : m_bFreeOnDestroy(freeOnDestroy) {}
  ~CZuLibrary();
  CZuLibrary(const CZuLibrary&) = delete;
  CZuLibrary& operator=(const CZuLibrary&) = delete;

  // Loads the library by path or, without a slash, by the search rules of dlopen(3), with its
  // functions bound when they are first called. `global` makes its symbols visible to libraries
  // loaded later. Loading the same library again changes nothing. ErrorWin32 774 carries the
  // loader's own text, also when this object holds another library, which it then keeps;
  // ErrorWin32 87 for a null path.
  CZuError Load(const char* path, bool global);

  // Looks `name` up in the library and in what it depends on. ErrorWin32 774 when it is missing or
  // nothing is loaded, 87 for a null name; `address` is then null.
  CZuError GetAddress(const char* name, void*& address) const;

  // The same for those who need no reason: null when it is missing. `name` must not be null.
  void* Find(const char* name) const;

  // Gives up what Load took; without it, nothing happens.
  CZuError Free();

 protected:
  std::atomic<void*> m_handle{nullptr};
  bool m_bFreeOnDestroy;
};
