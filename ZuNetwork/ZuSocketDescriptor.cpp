#include "ZuNetwork/ZuSocketDescriptor.h"

#include "ZuUtils/FXString.h"

std::string CZuSocketDescriptor::AsString(int descriptor) {
  return FXString::Format("%d", descriptor);
}
