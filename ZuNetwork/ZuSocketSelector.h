#pragma once

#include <set>

#include "ZuNetwork/ZuFdset.h"
#include "ZuNetwork/ZuNetworkExport.h"
#include "ZuNetwork/ZuSocket.h"
#include "ZuUtils/ZuError.h"

// Sockets by ascending descriptor, each descriptor once.
using ZuSocketSet = std::set<CZuSocket>;

// Waits until one of the registered sockets is readable, writable or has an exceptional condition.
// Registrations last until they are cleared; they hold copies of the sockets, which the program has
// to keep open. Descriptors may be as high as ZuFdset::maxsock_get() allowed when the selector was
// made. One thread at a time.
class ZUNETWORK_API CZuSocketSelector {
 public:
  CZuSocketSelector();
  ~CZuSocketSelector();
  CZuSocketSelector(const CZuSocketSelector&) = delete;
  CZuSocketSelector& operator=(const CZuSocketSelector&) = delete;

  // Register a socket; of several with one descriptor the first stays. A socket that is empty or
  // beyond the maximum is not registered, and nothing is said.
  void SetReadSocket(const CZuSocket& socket);
  void SetWriteSocket(const CZuSocket& socket);
  void SetExceptionSocket(const CZuSocket& socket);

  void ClearReadSocket(const CZuSocket& socket);
  void ClearWriteSocket(const CZuSocket& socket);
  void ClearExceptionSocket(const CZuSocket& socket);

  void ClearAllReadSockets();
  void ClearAllWriteSockets();
  void ClearAllExceptionSockets();
  void ClearAll();

  // Waits at most `*timeout`, which is not changed; null waits without limit. On success
  // `*timedOut`, unless null, says that nothing became ready. A failure is ErrorErrNo with the
  // system's reason, EINTR included, or ENOMEM when there is no memory for the working sets.
  CZuError Select(const timeval* timeout, bool* timedOut);

  // The registered sockets that the last Select found ready; none before the first. After a Select
  // that failed they mean nothing.
  ZuSocketSet GetReadSelected();
  ZuSocketSet GetWriteSelected();
  ZuSocketSet GetExceptionSelected();

 protected:
  CZuError SetSocket(ZuSocketSet* set, ZuFdset* saved, const CZuSocket& socket);
  void ClearSocket(ZuSocketSet* set, ZuFdset* saved, const CZuSocket& socket);

  ZuSocketSet m_Read;
  ZuSocketSet m_Write;
  ZuSocketSet m_Exception;
  ZuFdset m_ReadSet;  // what is handed to the system, and what it made of it
  ZuFdset m_WriteSet;
  ZuFdset m_ExpSet;
  ZuFdset m_SavedReadSet;  // what is registered
  ZuFdset m_SavedWriteSet;
  ZuFdset m_SavedExpSet;
  KDSOCKET m_MaxFD = 0;
  bool m_IsMaxFDValid = true;  // false after a removal, until the next Select

 private:
  ZUNETWORK_LOCAL void FindMaxFD();
};
