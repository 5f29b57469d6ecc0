#pragma once

#include "ZuNetwork/ZuIPAddr.h"
#include "ZuNetwork/ZuNetworkExport.h"
#include "ZuNetwork/ZuSocketDescriptor.h"
#include "ZuNetwork/ZuSocket_C.h"
#include "ZuUtils/ZuError.h"
#include "ZuUtils/ZuString.h"

// A socket descriptor with an address, as a value: copies share the descriptor, and only Close()
// closes it, neither the destructor nor an assignment. Whoever holds the last copy has to.
//
// Failures: what the system refuses is ErrorErrNo with its errno, and with the address where the
// call has one ("127.0.0.1:80: Connection refused"); what the object finds itself is
// ErrorWin32 774, "Not a valid socket" for an empty object unless said otherwise. A time-out is an
// ErrorWin32 774 too, and told apart by the flag; so is "Socket shutdown detected", when the peer
// closed before everything had come or gone.
//
// Time-outs are whole seconds; 0 and below wait without limit. ZuSocket_C.h says what they bound: a
// blocking socket may send longer, a peek waits for a peer that closed early.
//
// Threads: const functions may run on one object at the same time as far as the system calls may.
// Everything that gives the object another descriptor or address needs it alone.
class ZUNETWORK_API CZuSocket {
 public:
  CZuSocket();  // empty: no descriptor, cleared address
  ~CZuSocket();
  CZuSocket(const CZuSocket& other) = default;
  CZuSocket& operator=(const CZuSocket& other) = default;

  // No descriptor, and this address. A descriptor held before is let go, not closed.
  CZuSocket(const CZuIPAddr& addr);     // NOLINT(google-explicit-constructor)
  CZuSocket(const sockaddr_in& addr);   // NOLINT(google-explicit-constructor)
  CZuSocket(const sockaddr_in6& addr);  // NOLINT(google-explicit-constructor)
  CZuSocket& operator=(const CZuIPAddr& addr);
  CZuSocket& operator=(const sockaddr_in& addr);
  CZuSocket& operator=(const sockaddr_in6& addr);

  // Empties the object; a descriptor is let go, not closed.
  void Clear();

  // Closes the descriptor, if any, and empties the object. See ZUNET_setclosecb.
  void Close();

  // Takes over a descriptor, with a cleared address or this one.
  void AttachConnectedSocket(int descriptor);
  void AttachConnectedSocket(int descriptor, const CZuIPAddr& addr);

  KDSOCKET GetDescriptor() const { return m_Socket.m_socket; }  // -1: none
  const CZuIPAddr& GetAddress() const { return m_IPAddr; }

  // By descriptor; no object equals an empty one or comes before it.
  bool operator==(const CZuSocket& other) const;
  bool operator<(const CZuSocket& other) const;

  // ---- Making and connecting ----

  // Make a stream, UDP or raw ICMP socket in an object that holds none, else "Socket already in
  // use". The first two take the family of `addr` alone. ICMPSocket keeps `addr` as the target,
  // also when it fails, and is IPv6 for FAMILY_IPV6 and IPv4 for everything else; it needs
  // CAP_NET_RAW.
  CZuError Socket(const CZuIPAddr& addr);
  CZuError DgramSocket(const CZuIPAddr& addr);
  CZuError ICMPSocket(const CZuIPAddr& addr, CZuIPAddr::IP_FAMILY family);

  // Bind or connect the socket held; an empty object makes a stream socket of the address's family
  // first, which it keeps also when the call fails. The address is not kept. An interrupted connect
  // goes on.
  CZuError Bind(const CZuIPAddr& addr);
  CZuError Connect(const CZuIPAddr& addr);

  // "Not a bound socket" for an empty object. See ZUNET_setlistencb.
  CZuError Listen(int backlog);

  // Waits for a connection and puts it into `out`, with the peer's address. "Output socket object
  // is already a connected socket" when `out` holds a descriptor, "Not a listening socket" when
  // this one holds none.
  CZuError Accept(CZuSocket& out) const;

  // The same within `timeout` seconds. `*pnTimedOut` is 1 when that passed and 0 otherwise.
  //   ErrorWin32 87       "Invalid input parameter, pnTimedOut is NULL"
  //   ErrorErrNo ETIME    "no connection request received from client within the timeout %d"
  //   ErrorErrNo EIO      "exception detected on socket %s"
  // or the failure of the wait, with "select call failed", or of Accept. A client that leaves
  // between the wait and the accept makes a blocking listener wait for the next one.
  CZuError AcceptWithTimeout(CZuSocket& out, int timeout, int* pnTimedOut) const;

  // Connects two objects over the loopback interface, both stream sockets and non-blocking. Fails
  // with "Couldn't create socket pair" (or connect, or accept) on top of the reason. Both objects
  // are untouched when the listener could not be made, and closed by later failures. ErrorWin32 87
  // "Null parameter passed" for a null pointer.
  static CZuError CreateSocketPair(CZuSocket* first, CZuSocket* second);

  // ---- State ----

  // The argument is written on success only; the texts are empty after a failure.
  CZuError GetLocalAddress(CZuIPAddr& addr) const;
  CZuError GetPeerAddress(CZuIPAddr& addr) const;
  CZuString GetLocalAddressString() const;
  CZuString GetPeerAddressString() const;

  // getsockopt(2) and setsockopt(2); `*optlen` is the size of `optval`, and then of the value.
  CZuError GetSockOpt(int level, int optname, char* optval, int* optlen) const;
  CZuError SetSockOpt(int level, int optname, char* optval, int optlen) const;

  // Whether small packets wait for more to send (TCP_NODELAY).
  CZuError NagleOff();
  CZuError NagleOn();

  CZuError SetToBlocking();
  CZuError SetToNonBlocking();

  // shutdown(2); an empty object succeeds.
  CZuError Shutdown(int how);

  // The bytes that can be read at once.
  CZuError GetReadQueueLen(unsigned int* n);

  // ---- Moving data ----

  // Move all of `len` bytes. The count that was reached is stored, unless the pointer is null, also
  // when they fail on a valid socket; `flags` are those of recv(2) and send(2).
  CZuError Recv(void* buf, int len, int flags, int* received) const;
  CZuError Send(const void* buf, int len, int flags, int* sent) const;

  // The same within `timeout` seconds: "Socket receive timed out" ("Socket send timed out") with
  // *pnTimedOut 1, which is 0 otherwise. ErrorWin32 87 "Invalid input parameter, pnTimedOut is
  // NULL", whatever the time-out.
  CZuError RecvWithTimeout(void* buf, int len, int timeout, int* pnTimedOut, int flags,
                           int* received) const;
  CZuError SendWithTimeOut(const void* buf, int len, int timeout, int* pnTimedOut, int flags,
                           int* sent) const;

  // Move one datagram to (from) the object's address, with the same time-out; the sender's address
  // is the object's then. A short datagram is no failure. A null `pnTimedOut` is refused with a
  // time-out only.
  CZuError SendtoICMPSocket(const void* buf, int len, int timeout, int* pnTimedOut, int flags,
                            int* sent);
  CZuError RecvfromICMPSocket(const void* buf, int len, int timeout, int* pnTimedOut, int flags,
                              int* received);

  // An empty object, for where a reference to one is needed; leave it as it is.
  static CZuSocket m_DummyObj;

  // Kept for programs that set it; nothing reads it on this platform.
  static void SetFastLoopBack(bool enable);
  static bool bEnableLoopBack;

 protected:
  CZuSocketDescriptor m_Socket;
  CZuIPAddr m_IPAddr;
};
