#pragma once

#include "ZuNetwork/ZuNetworkExport.h"
#include "ZuUtils/ZuError.h"

// Starts and ends the use of sockets where a platform asks for it. This one does not, so that
// nothing here does anything, and no program needs it.
class ZUNETWORK_API CZuSockInit {
 public:
  CZuSockInit();
  ~CZuSockInit();
  CZuSockInit(const CZuSockInit&) = delete;
  CZuSockInit& operator=(const CZuSockInit&) = delete;

  CZuError Init();
  void CleanUp();

 protected:
  bool m_InitDone = false;
};
