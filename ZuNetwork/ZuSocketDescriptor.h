#pragma once

#include <string>

#include "ZuNetwork/ZuFdset_C.h"
#include "ZuNetwork/ZuNetworkExport.h"

// Holds a socket descriptor and nothing else; it does not own it.
class ZUNETWORK_API CZuSocketDescriptor {
 public:
  // The descriptor as decimal text.
  static std::string AsString(int descriptor);

  KDSOCKET m_socket = -1;  // -1: none
};
