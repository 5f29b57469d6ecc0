#include "ZuNetwork/ZuSocketSelector.h"

#include <algorithm>
#include <cerrno>

namespace {

// Makes `working` hold the registrations and room for the bits up to `maxFD`, which the system
// reads and writes in each of its sets, also where all high descriptors are of another kind.
bool Refresh(ZuFdset& working, const ZuFdset& saved, KDSOCKET maxFD) {
  if (!working.refresh(saved)) working = saved;
  if (working.reserve(maxFD)) return true;
  if (Failed(working.init())) return false;  // mends a set that lost its storage
  working = saved;
  return working.reserve(maxFD);
}

// By asking for each socket: a set that lost its storage, or never had room for the highest socket,
// answers neither yes nor no, which counts as yes.
ZuSocketSet SelectedOneByOne(const ZuSocketSet& registered, ZuFdset& working) {
  ZuSocketSet selected;
  for (const CZuSocket& socket : registered) {
    if (working.is_set(socket.GetDescriptor()) != 0) selected.insert(selected.end(), socket);
  }
  return selected;
}

// By walking the bits that are set: of thousands of sockets few are ready at once.
ZuSocketSet Selected(const ZuSocketSet& registered, ZuFdset& working) {
  ZuSocketSet selected;
  if (registered.empty()) return selected;
  const int last = registered.rbegin()->GetDescriptor();
  if (working.is_set(last) < 0) return SelectedOneByOne(registered, working);
  CZuSocket wanted;
  auto position = registered.begin();
  for (int fd = working.next(0, last); fd != -1; fd = working.next(fd + 1, last)) {
    if (position == registered.end() || position->GetDescriptor() != fd) {
      wanted.AttachConnectedSocket(fd);
      position = registered.find(wanted);
    }
    if (position != registered.end()) selected.insert(selected.end(), *position++);
  }
  return selected;
}

}  // namespace

CZuSocketSelector::CZuSocketSelector() { ClearAll(); }

CZuSocketSelector::~CZuSocketSelector() { ClearAll(); }

void CZuSocketSelector::SetReadSocket(const CZuSocket& socket) {
  (void)SetSocket(&m_Read, &m_SavedReadSet, socket);  // what is not registered is not waited on
}

void CZuSocketSelector::SetWriteSocket(const CZuSocket& socket) {
  (void)SetSocket(&m_Write, &m_SavedWriteSet, socket);  // as above
}

void CZuSocketSelector::SetExceptionSocket(const CZuSocket& socket) {
  (void)SetSocket(&m_Exception, &m_SavedExpSet, socket);  // as above
}

CZuError CZuSocketSelector::SetSocket(ZuSocketSet* set, ZuFdset* saved, const CZuSocket& socket) {
  const KDSOCKET descriptor = socket.GetDescriptor();
  if (descriptor == -1) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorNotASocket, "Invalid socket");
  }
  CZuError error = saved->set(descriptor);
  if (Failed(error)) return error.Push(ZU_HERE);
  set->insert(socket);
  m_MaxFD = std::max(m_MaxFD, descriptor);
  return {};
}

void CZuSocketSelector::ClearReadSocket(const CZuSocket& socket) {
  ClearSocket(&m_Read, &m_SavedReadSet, socket);
}

void CZuSocketSelector::ClearWriteSocket(const CZuSocket& socket) {
  ClearSocket(&m_Write, &m_SavedWriteSet, socket);
}

void CZuSocketSelector::ClearExceptionSocket(const CZuSocket& socket) {
  ClearSocket(&m_Exception, &m_SavedExpSet, socket);
}

void CZuSocketSelector::ClearSocket(ZuSocketSet* set, ZuFdset* saved, const CZuSocket& socket) {
  set->erase(socket);
  (void)saved->clr(socket.GetDescriptor());  // what was never registered is not there
  m_IsMaxFDValid = false;
}

void CZuSocketSelector::ClearAllReadSockets() {
  m_ReadSet.zero();
  m_SavedReadSet.zero();
  m_Read.clear();
  m_IsMaxFDValid = false;
}

void CZuSocketSelector::ClearAllWriteSockets() {
  m_WriteSet.zero();
  m_SavedWriteSet.zero();
  m_Write.clear();
  m_IsMaxFDValid = false;
}

void CZuSocketSelector::ClearAllExceptionSockets() {
  m_ExpSet.zero();
  m_SavedExpSet.zero();
  m_Exception.clear();
  m_IsMaxFDValid = false;
}

void CZuSocketSelector::ClearAll() {
  ClearAllReadSockets();
  ClearAllWriteSockets();
  ClearAllExceptionSockets();
  m_MaxFD = 0;
  m_IsMaxFDValid = true;
}

void CZuSocketSelector::FindMaxFD() {
  m_MaxFD = 0;
  for (const ZuSocketSet* set : {&m_Read, &m_Write, &m_Exception}) {
    if (!set->empty()) m_MaxFD = std::max(m_MaxFD, set->rbegin()->GetDescriptor());
  }
  m_IsMaxFDValid = true;
}

CZuError CZuSocketSelector::Select(const timeval* timeout, bool* timedOut) {
  if (!m_IsMaxFDValid) FindMaxFD();
  if (!Refresh(m_ReadSet, m_SavedReadSet, m_MaxFD) ||
      !Refresh(m_WriteSet, m_SavedWriteSet, m_MaxFD) ||
      !Refresh(m_ExpSet, m_SavedExpSet, m_MaxFD)) {
    return FXErrorUtil::ErrorErrNo(ZU_HERE, ENOMEM);
  }
  timeval limit{};  // a copy: the system counts it down
  if (timeout != nullptr) limit = *timeout;
  const int count = select(m_MaxFD + 1, m_ReadSet.get_fdsetp(), m_WriteSet.get_fdsetp(),
                           m_ExpSet.get_fdsetp(), timeout != nullptr ? &limit : nullptr);
  if (count < 0) {
    const int err = errno;
    if (err != 0) return FXErrorUtil::ErrorErrNo(ZU_HERE, err);
    return {};  // a failure without an errno counts as success and leaves *timedOut as it was
  }
  if (timedOut != nullptr) *timedOut = count == 0;
  return {};
}

ZuSocketSet CZuSocketSelector::GetReadSelected() { return Selected(m_Read, m_ReadSet); }

ZuSocketSet CZuSocketSelector::GetWriteSelected() { return Selected(m_Write, m_WriteSet); }

ZuSocketSet CZuSocketSelector::GetExceptionSelected() { return Selected(m_Exception, m_ExpSet); }
