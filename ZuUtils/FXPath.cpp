#include "ZuUtils/FXPath.h"

#include <filesystem>

namespace FXPath {

CZuError SplitParentPath(const std::string& path, std::string& parent, std::string& name) {
  const std::filesystem::path whole(path);
  if (!whole.has_filename()) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Path [%s] names no file",
                                   path.c_str());
  }
  parent = whole.parent_path().string();
  name = whole.filename().string();
  return {};
}

}  // namespace FXPath
