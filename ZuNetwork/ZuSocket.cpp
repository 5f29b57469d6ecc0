#include "ZuNetwork/ZuSocket.h"

#include <netinet/tcp.h>
#include <sys/ioctl.h>

#include <cerrno>

#include "ZuNetwork/ZuSocketSelector.h"
#include "ZuNetwork/internal/SocketAddress.h"

namespace {

constexpr int kPairBacklog = 5;
constexpr char kNotValid[] = "Not a valid socket";
constexpr char kInUse[] = "Socket already in use";
constexpr char kNoTimedOut[] = "Invalid input parameter, pnTimedOut is NULL";
constexpr char kReceiveTimedOut[] = "Socket receive timed out";
constexpr char kSendTimedOut[] = "Socket send timed out";

CZuError InvalidState(const FXCodeLocation& where, const char* text) {
  return FXErrorUtil::ErrorWin32(where, kErrorInvalidState, "%s", text);
}

// What a call below returned: 0 or an errno value.
CZuError Result(const FXCodeLocation& where, int err) {
  if (err != 0) return FXErrorUtil::ErrorErrNo(where, err);
  return {};
}

// The same of a call that was given an address, which is in the message.
CZuError Result(const FXCodeLocation& where, int err, const CZuIPAddr& addr) {
  if (err == 0) return {};
  return FXErrorUtil::ErrorErrNo(where, err, "%s", ZuInternal::EndpointText(addr.m_Addr).c_str());
}

// The same of ICMP, which knows no ports.
CZuError IcmpResult(const FXCodeLocation& where, int err, const CZuIPAddr& addr) {
  if (err == 0) return {};
  return FXErrorUtil::ErrorErrNo(where, err, "[%s]", ZuInternal::AddressText(addr.m_Addr).c_str());
}

CZuError InUse(const FXCodeLocation& where, const CZuIPAddr& addr) {
  CZuError error = InvalidState(where, kInUse);
  return error.Push(where, "%s", ZuInternal::EndpointText(addr.m_Addr).c_str());
}

// The same for `count` of `len` bytes: short without a reason means that the peer closed.
CZuError StreamResult(const FXCodeLocation& where, int err, int count, int len) {
  if (err == 0 && count < len) return InvalidState(where, "Socket shutdown detected");
  return Result(where, err);
}

// Without a time-out nobody needs to be told of one.
CZuError CheckDatagram(const FXCodeLocation& where, const CZuSocketDescriptor& socket, int timeout,
                       const int* pnTimedOut) {
  if (socket.m_socket == -1) return InvalidState(where, kNotValid);
  if (timeout == 0 || pnTimedOut != nullptr) return {};
  return FXErrorUtil::ErrorWin32(where, kErrorInvalidArgument, kNoTimedOut);
}

// For outputs that may be null.
void Store(int value, int* output) {
  if (output != nullptr) *output = value;
}

int FamilyOf(const CZuIPAddr& addr) { return addr.m_Addr.addr.f.family; }

// Makes a stream socket unless one is held. Returns 0 or an errno value.
int EnsureStreamSocket(const CZuIPAddr& addr, KDSOCKET& descriptor) {
  return descriptor == -1 ? ZUNET_socket(FamilyOf(addr), &descriptor) : 0;
}

}  // namespace

CZuSocket CZuSocket::m_DummyObj;
bool CZuSocket::bEnableLoopBack = false;

CZuSocket::CZuSocket() = default;

CZuSocket::~CZuSocket() { Clear(); }

CZuSocket::CZuSocket(const CZuIPAddr& addr) : m_IPAddr(addr) {}

CZuSocket::CZuSocket(const sockaddr_in& addr) : m_IPAddr(addr) {}

CZuSocket::CZuSocket(const sockaddr_in6& addr) : m_IPAddr(addr) {}

CZuSocket& CZuSocket::operator=(const CZuIPAddr& addr) {
  m_Socket.m_socket = -1;
  m_IPAddr = addr;
  return *this;
}

CZuSocket& CZuSocket::operator=(const sockaddr_in& addr) { return *this = CZuIPAddr(addr); }

CZuSocket& CZuSocket::operator=(const sockaddr_in6& addr) { return *this = CZuIPAddr(addr); }

void CZuSocket::Clear() {
  m_Socket.m_socket = -1;
  m_IPAddr.Clear();
}

void CZuSocket::Close() {
  if (m_Socket.m_socket != -1) ZUNET_close(m_Socket.m_socket);
  Clear();
}

void CZuSocket::AttachConnectedSocket(int descriptor) {
  m_Socket.m_socket = descriptor;
  m_IPAddr.Clear();
}

void CZuSocket::AttachConnectedSocket(int descriptor, const CZuIPAddr& addr) {
  m_Socket.m_socket = descriptor;
  m_IPAddr = addr;
}

bool CZuSocket::operator==(const CZuSocket& other) const {
  return other.m_Socket.m_socket != -1 && m_Socket.m_socket == other.m_Socket.m_socket;
}

bool CZuSocket::operator<(const CZuSocket& other) const {
  return other.m_Socket.m_socket != -1 && m_Socket.m_socket < other.m_Socket.m_socket;
}

CZuError CZuSocket::Socket(const CZuIPAddr& addr) {
  if (m_Socket.m_socket != -1) return InUse(ZU_HERE, addr);
  return Result(ZU_HERE, ZUNET_socket(FamilyOf(addr), &m_Socket.m_socket), addr);
}

CZuError CZuSocket::DgramSocket(const CZuIPAddr& addr) {
  if (m_Socket.m_socket != -1) return InUse(ZU_HERE, addr);
  return Result(ZU_HERE, ZUNET_dgramsocket(FamilyOf(addr), &m_Socket.m_socket), addr);
}

CZuError CZuSocket::ICMPSocket(const CZuIPAddr& addr, CZuIPAddr::IP_FAMILY family) {
  if (m_Socket.m_socket != -1) return InUse(ZU_HERE, addr);
  m_IPAddr = addr;
  const int err =
      ZUNET_icmpsocket(family == CZuIPAddr::FAMILY_IPV6 ? AF_INET6 : AF_INET, &m_Socket.m_socket);
  return Result(ZU_HERE, err, addr);
}

CZuError CZuSocket::Bind(const CZuIPAddr& addr) {
  int err = EnsureStreamSocket(addr, m_Socket.m_socket);
  if (err == 0) err = ZUNET_bind(m_Socket.m_socket, &addr.m_Addr);
  return Result(ZU_HERE, err, addr);
}

CZuError CZuSocket::Connect(const CZuIPAddr& addr) {
  ZUNET_SockAddr peer = addr.m_Addr;
  int err = EnsureStreamSocket(addr, m_Socket.m_socket);
  if (err == 0) err = ZUNET_connect(m_Socket.m_socket, &peer);
  return Result(ZU_HERE, err, addr);
}

CZuError CZuSocket::Listen(int backlog) {
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, "Not a bound socket");
  return Result(ZU_HERE, ZUNET_listen(m_Socket.m_socket, backlog));
}

CZuError CZuSocket::Accept(CZuSocket& out) const {
  if (out.m_Socket.m_socket != -1) {
    return InvalidState(ZU_HERE, "Output socket object is already a connected socket");
  }
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, "Not a listening socket");
  KDSOCKET accepted = -1;
  ZUNET_SockAddr peer{};
  const int err = ZUNET_accept(m_Socket.m_socket, &accepted, &peer);
  if (err != 0) return FXErrorUtil::ErrorErrNo(ZU_HERE, err);
  out.AttachConnectedSocket(accepted, peer);
  return {};
}

CZuError CZuSocket::AcceptWithTimeout(CZuSocket& out, int timeout, int* pnTimedOut) const {
  if (pnTimedOut == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, kNoTimedOut);
  }
  *pnTimedOut = 0;
  if (timeout <= 0) return Accept(out);

  CZuSocketSelector selector;
  selector.SetReadSocket(*this);
  selector.SetExceptionSocket(*this);
  const timeval limit{timeout, 0};
  bool timedOut = false;
  CZuError error = selector.Select(&limit, &timedOut);
  if (Failed(error)) return error.Push(ZU_HERE, "select call failed");
  if (timedOut) {
    *pnTimedOut = 1;
    return FXErrorUtil::ErrorErrNo(
        ZU_HERE, ETIME, "no connection request received from client within the timeout %d",
        timeout);
  }
  if (!selector.GetExceptionSelected().empty()) {
    return FXErrorUtil::ErrorErrNo(ZU_HERE, EIO, "exception detected on socket %s",
                                   CZuSocketDescriptor::AsString(m_Socket.m_socket).c_str());
  }
  return Accept(out);
}

CZuError CZuSocket::CreateSocketPair(CZuSocket* first, CZuSocket* second) {
  if (first == nullptr || second == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Null parameter passed");
  }
  CZuIPAddr address;
  CZuError error = CZuIPAddr::GetByName("localhost", address, CZuIPAddr::FAMILY_ANY);
  if (Failed(error)) return error.Push(ZU_HERE);

  CZuSocket listener;
  error = listener.Bind(address);
  if (!Failed(error)) error = listener.Listen(kPairBacklog);
  if (!Failed(error)) error = listener.GetLocalAddress(address);
  if (Failed(error)) {
    listener.Close();
    return error.Push(ZU_HERE, "Couldn't create socket pair");
  }
  error = first->Connect(address);
  if (Failed(error)) {
    listener.Close();
    first->Close();
    return error.Push(ZU_HERE, "Couldn't connect socket pair");
  }
  error = listener.Accept(*second);
  listener.Close();
  if (Failed(error)) {
    first->Close();
    second->Close();
    return error.Push(ZU_HERE, "Couldn't accept socket pair");
  }
  (void)first->SetToNonBlocking();   // a pair that blocks is still a pair
  (void)second->SetToNonBlocking();  // as above
  return {};
}

CZuError CZuSocket::GetLocalAddress(CZuIPAddr& addr) const {
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, kNotValid);
  ZUNET_SockAddr local{};
  const int err = ZUNET_getsockname(m_Socket.m_socket, &local);
  if (err != 0) return FXErrorUtil::ErrorErrNo(ZU_HERE, err);
  addr = local;
  return {};
}

CZuError CZuSocket::GetPeerAddress(CZuIPAddr& addr) const {
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, kNotValid);
  ZUNET_SockAddr peer{};
  const int err = ZUNET_getpeername(m_Socket.m_socket, &peer);
  if (err != 0) return FXErrorUtil::ErrorErrNo(ZU_HERE, err);
  addr = peer;
  return {};
}

CZuString CZuSocket::GetLocalAddressString() const {
  CZuString text;
  CZuIPAddr address;
  // A failure of either leaves the text empty.
  if (!Failed(GetLocalAddress(address))) (void)address.GetAddressString(text);
  return text;
}

CZuString CZuSocket::GetPeerAddressString() const {
  CZuString text;
  CZuIPAddr address;
  // A failure of either leaves the text empty.
  if (!Failed(GetPeerAddress(address))) (void)address.GetAddressString(text);
  return text;
}

CZuError CZuSocket::GetSockOpt(int level, int optname, char* optval, int* optlen) const {
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, kNotValid);
  return Result(ZU_HERE, ZUNET_getsockopt(m_Socket.m_socket, level, optname, optval, optlen));
}

CZuError CZuSocket::SetSockOpt(int level, int optname, char* optval, int optlen) const {
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, kNotValid);
  return Result(ZU_HERE, ZUNET_setsockopt(m_Socket.m_socket, level, optname, optval, optlen));
}

CZuError CZuSocket::NagleOff() {
  int off = 1;
  return SetSockOpt(IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&off), sizeof off);
}

CZuError CZuSocket::NagleOn() {
  int off = 0;
  return SetSockOpt(IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<char*>(&off), sizeof off);
}

CZuError CZuSocket::SetToBlocking() {
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, kNotValid);
  unsigned int nonBlocking = 0;
  return Result(ZU_HERE, ZUNET_ioctl(m_Socket.m_socket, FIONBIO, &nonBlocking));
}

CZuError CZuSocket::SetToNonBlocking() {
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, kNotValid);
  unsigned int nonBlocking = 1;
  return Result(ZU_HERE, ZUNET_ioctl(m_Socket.m_socket, FIONBIO, &nonBlocking));
}

CZuError CZuSocket::Shutdown(int how) {
  if (m_Socket.m_socket == -1) return {};
  return Result(ZU_HERE, ZUNET_shutdown(m_Socket.m_socket, how));
}

CZuError CZuSocket::GetReadQueueLen(unsigned int* n) {
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, kNotValid);
  return Result(ZU_HERE, ZUNET_ioctl(m_Socket.m_socket, FIONREAD, n));
}

CZuError CZuSocket::Recv(void* buf, int len, int flags, int* received) const {
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, kNotValid);
  int count = 0;
  const int err = ZUNET_recv(m_Socket.m_socket, buf, len, &count, flags);
  Store(count, received);
  return StreamResult(ZU_HERE, err, count, len);
}

CZuError CZuSocket::Send(const void* buf, int len, int flags, int* sent) const {
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, kNotValid);
  int count = 0;
  const int err = ZUNET_send(m_Socket.m_socket, buf, len, &count, flags);
  Store(count, sent);
  return StreamResult(ZU_HERE, err, count, len);
}

CZuError CZuSocket::RecvWithTimeout(void* buf, int len, int timeout, int* pnTimedOut, int flags,
                                    int* received) const {
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, kNotValid);
  if (pnTimedOut == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, kNoTimedOut);
  }
  int count = 0;
  const int err =
      ZUNET_recvwithtimeout(m_Socket.m_socket, buf, len, &count, timeout, pnTimedOut, flags);
  Store(count, received);
  if (err == 0 && *pnTimedOut == 1) return InvalidState(ZU_HERE, kReceiveTimedOut);
  return StreamResult(ZU_HERE, err, count, len);
}

CZuError CZuSocket::SendWithTimeOut(const void* buf, int len, int timeout, int* pnTimedOut,
                                    int flags, int* sent) const {
  if (m_Socket.m_socket == -1) return InvalidState(ZU_HERE, kNotValid);
  if (pnTimedOut == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, kNoTimedOut);
  }
  int count = 0;
  const int err =
      ZUNET_sendwithtimeout(m_Socket.m_socket, buf, len, &count, timeout, pnTimedOut, flags);
  Store(count, sent);
  if (err == 0 && *pnTimedOut == 1) return InvalidState(ZU_HERE, kSendTimedOut);
  return StreamResult(ZU_HERE, err, count, len);
}

CZuError CZuSocket::SendtoICMPSocket(const void* buf, int len, int timeout, int* pnTimedOut,
                                     int flags, int* sent) {
  CZuError error = CheckDatagram(ZU_HERE, m_Socket, timeout, pnTimedOut);
  if (Failed(error)) return error;
  int count = 0;
  int timedOut = 0;
  const int err = ZUNET_sendtoicmpsocket(m_Socket.m_socket, &m_IPAddr.m_Addr, buf, len, &count,
                                         flags, timeout, &timedOut);
  Store(count, sent);
  Store(timedOut, pnTimedOut);
  if (timedOut == 1) return InvalidState(ZU_HERE, kSendTimedOut);
  return IcmpResult(ZU_HERE, err, m_IPAddr);
}

CZuError CZuSocket::RecvfromICMPSocket(const void* buf, int len, int timeout, int* pnTimedOut,
                                       int flags, int* received) {
  CZuError error = CheckDatagram(ZU_HERE, m_Socket, timeout, pnTimedOut);
  if (Failed(error)) return error;
  int count = 0;
  int timedOut = 0;
  const int err = ZUNET_recvfromicmpsocket(m_Socket.m_socket, &m_IPAddr.m_Addr, buf, len, &count,
                                           flags, timeout, &timedOut);
  Store(count, received);
  Store(timedOut, pnTimedOut);
  if (timedOut == 1) return InvalidState(ZU_HERE, kReceiveTimedOut);
  return Result(ZU_HERE, err);
}

void CZuSocket::SetFastLoopBack(bool enable) { bEnableLoopBack = enable; }
