#pragma once

#include <string>

#include "ZuUtils/ZuError.h"

namespace FXPath {

// Splits a path at its last slash: "/a/b.txt" gives "/a" and "b.txt", "/b.txt" gives "/" and
// "b.txt", "b.txt" gives an empty parent. A path without a last component (empty, or one that ends
// in a slash) fails with ErrorWin32 87 and leaves both outputs as they were.
ZUUTILS_API CZuError SplitParentPath(const std::string& path, std::string& parent,
                                     std::string& name);

}  // namespace FXPath
