#pragma once

#include "ZuUtils/ZuLibrary.h"

// The function of that name in a library that is loaded at run time, or in one that it brought
// along; null when there is none. `Function` is a pointer to a function.
template <typename Function>
Function Lookup(const CZuLibrary& library, const char* name) {
  return reinterpret_cast<Function>(library.Find(name));
}
