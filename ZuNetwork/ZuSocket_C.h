#pragma once

#include <netdb.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/select.h>
#include <sys/socket.h>

#include "ZuNetwork/ZuFdset_C.h"
#include "ZuNetwork/ZuNetworkExport.h"

/* Sockets and addresses as plain functions, for C and C++: a thin layer over the system calls that
 * treats IPv4 and IPv6 alike, goes on after interrupts, moves whole buffers and knows time-outs.
 *
 * Results: 0 or the errno value of the failed call, unless a function says otherwise. The functions
 * that ask the resolver return its codes (EAI_*, negative; see getaddrinfo(3)). Outputs that a
 * failure does not mention are left as they were. Pointers must not be null unless allowed.
 *
 * Threads: every function may be called from several threads as far as the system call may, but for
 * ZUNET_getservbyname() and ZUNET_getservbyport(). The hooks and the family preference are the
 * process's: set them at start-up. */

#ifdef __cplusplus
extern "C" {
#endif

/* An address with its port, as the system takes it: port and IPv4 address in network byte order.
 * The family says which view holds: AF_INET is `v4` (16 bytes), everything else `v6` (28 bytes). */
typedef struct ZUNET_SockAddr {
  union {
    struct {
      uint16_t family;
    } f;
    struct sockaddr_in v4;
    struct sockaddr_in6 v6;
  } addr;
} ZUNET_SockAddr;

/* The addresses of a host; released with ZUNET_freehostent(). */
typedef struct ZUNET_HostEnt {
  int32_t addr_count;
  ZUNET_SockAddr* addr_list;
} ZUNET_HostEnt;

/* The result for a text or name that stands for 127.0.53.53: the address that name servers give
 * out for a private name which collides with a public top-level domain (ICANN's name-collision
 * mechanism). The number is that of EAI_NONAME. */
enum { ZUNET_NAME_COLLISION = -2 };

/* ---- Process-wide settings ---- */

/* Installs what is called with the descriptor before every listen (close); null removes it. */
ZUNETWORK_API void ZUNET_setlistencb(void (*cb)(KDSOCKET));
ZUNETWORK_API void ZUNET_setclosecb(void (*cb)(KDSOCKET));

/* The family (AF_INET, AF_INET6) for callers that ask for none. The first call counts, also with
 * 0; later ones are ignored. Until then it is 0, any family. */
ZUNETWORK_API void ZUNET_SetFamilyPreference(int nFamily);
ZUNETWORK_API int ZUNET_GetFamilyPreference(void);

/* ---- Making, naming and closing sockets ---- */

/* Stream, UDP and raw ICMP sockets (protocol 1 for either family; needs CAP_NET_RAW). The
 * descriptor, or -1, is stored in `*OutSock`. */
ZUNETWORK_API int ZUNET_socket(int nFamily, KDSOCKET* OutSock);
ZUNETWORK_API int ZUNET_dgramsocket(int nFamily, KDSOCKET* OutSock);
ZUNETWORK_API int ZUNET_icmpsocket(int nFamily, KDSOCKET* OutSock);

ZUNETWORK_API int ZUNET_bind(KDSOCKET Sock, const ZUNET_SockAddr* SockAddr);
ZUNETWORK_API int ZUNET_listen(KDSOCKET Sock, int backlog);

/* An interrupted connect is repeated until it is decided. */
ZUNETWORK_API int ZUNET_connect(KDSOCKET Sock, ZUNET_SockAddr* SockAddr);

/* Waits for a connection, whatever interrupts it. `*Accepted` is the new descriptor, or -1 when
 * accept(2) failed; it is unwritten when the listener has no address. `*SockAddr` is the peer's
 * address, of which a failure may leave the listener's. */
ZUNETWORK_API int ZUNET_accept(KDSOCKET Listening, KDSOCKET* Accepted, ZUNET_SockAddr* SockAddr);

/* Calls the close hook, then closes. What close(2) reports is dropped: the descriptor is gone. */
ZUNETWORK_API void ZUNET_close(KDSOCKET Sock);
ZUNETWORK_API int ZUNET_shutdown(KDSOCKET s, int how);

ZUNETWORK_API int ZUNET_getsockname(KDSOCKET Sock, ZUNET_SockAddr* SockAddr);
ZUNETWORK_API int ZUNET_getpeername(KDSOCKET Sock, ZUNET_SockAddr* SockAddr);

/* ---- Options ---- */

/* `*optlen` is the size of `optval`, and afterwards that of the value. */
ZUNETWORK_API int ZUNET_getsockopt(KDSOCKET s, int level, int optname, char* optval, int* optlen);
ZUNETWORK_API int ZUNET_setsockopt(KDSOCKET s, int level, int optname, const char* optval,
                                   int optlen);
ZUNETWORK_API int ZUNET_ioctl(KDSOCKET s, int cmd, unsigned int* arg);

/* Sets the idle time before the first keep-alive probe and the time between probes, in seconds
 * (tcp(7)). The caller switches SO_KEEPALIVE on. The interval is not set when the first fails. */
ZUNETWORK_API int ZUNET_settcpkeepaliveoptions(KDSOCKET s, unsigned long ulTcpKeepAliveTimeout,
                                               unsigned long ulTcpKeepAliveInterval);

/* ---- Waiting, sending and receiving ---- */

/* select(2), repeated while it is interrupted. `*timeout` is counted down by the system to what is
 * left of it, although it is passed as constant. `pRetCount` may be null; otherwise the number of
 * ready descriptors is stored on success. */
ZUNETWORK_API int ZUNET_select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                               const struct timeval* timeout, int* pRetCount);

/* Receive (send) `len` bytes. The count that was reached is stored in every case. It is short after
 * a failure, or with result 0 when the peer closed. With MSG_PEEK the receiver peeks again and
 * again until one peek returns all of `len`, which for a peer that never sends as much is for ever.
 * A closed peer is EPIPE to a sender, never a signal. */
ZUNETWORK_API int ZUNET_recv(KDSOCKET s, void* _buf, int len, int* recvlen, int flags);
ZUNETWORK_API int ZUNET_send(KDSOCKET s, const void* _buf, int len, int* sentlen, int flags);

/* The same within `timeoutsecs` whole seconds (below 1: no limit), counted by time(2): the limit is
 * passed when the clock shows more than that. This is no failure: 0 with *timedout 1, which is 0
 * otherwise. A descriptor that a set cannot hold (see kdfdset_maxsock_set) returns 0 at once with a
 * short count. Waiting is bounded, the transfer after it is not: on a blocking socket a send of
 * more than the system takes at once may pass the limit. A sender that has waited for a second in
 * all waits no more: until the limit it asks the system again and again, which uses a whole CPU. */
ZUNETWORK_API int ZUNET_recvwithtimeout(KDSOCKET s, void* _buf, int len, int* recvlen,
                                        int timeoutsecs, int* timedout, int flags);
ZUNETWORK_API int ZUNET_sendwithtimeout(KDSOCKET s, const void* _buf, int len, int* sentlen,
                                        int timeoutsecs, int* timedout, int flags);

/* Move one datagram to (from) `SockAddr`, with the time-out of the functions above; its size is
 * stored on success and 0 otherwise. Receiving writes into `_buf`, although that is declared as
 * constant, and overwrites `SockAddr` with the sender; it must hold an address of the
 * socket's family before. An interrupt after the wait is reported as EINTR. */
ZUNETWORK_API int ZUNET_sendtoicmpsocket(KDSOCKET s, ZUNET_SockAddr* SockAddr, const void* _buf,
                                         int len, int* sentlen, int flags, int timeoutsecs,
                                         int* timedout);
ZUNETWORK_API int ZUNET_recvfromicmpsocket(KDSOCKET s, ZUNET_SockAddr* SockAddr, const void* _buf,
                                           int len, int* recvlen, int flags, int timeoutsecs,
                                           int* timedout);

/* ---- Names and addresses ---- */

/* The C library's calls. `*pEnt` is theirs and overwritten by the next such call on any thread;
 * null after a failure, for which they often give no reason: that is ENOENT. `port` is in network
 * byte order. `Proto` may be null for any protocol. */
ZUNETWORK_API int ZUNET_getservbyname(const char* Name, const char* Proto, struct servent** pEnt);
ZUNETWORK_API int ZUNET_getservbyport(int port, const char* Proto, struct servent** pEnt);

ZUNETWORK_API int ZUNET_gethostname(char* HostName, int len);

/* Write the numeric text of an address (its port is not part of it), or the name that a reverse
 * lookup finds. The text is empty after a failure, which for the first is a resolver's code and for
 * the second an errno value: ENOENT where the system gives no reason. */
ZUNETWORK_API int ZUNET_ip2str(const ZUNET_SockAddr* SockAddr, char* IpStr, size_t IpStrLen);
ZUNETWORK_API int ZUNET_ip2name(const ZUNET_SockAddr* SockAddr, char* szHostName,
                                size_t nHostNameLen);

/* Reads a numeric address of either family; the port becomes 0. For IPv4 only the first 16 bytes of
 * `SockAddr` are written. Returns 0, a resolver's code, EAI_FAMILY when neither family came out
 * (nothing is written then), or ZUNET_NAME_COLLISION, with the address written. */
ZUNETWORK_API int ZUNET_str2ip(const char* IpStr, ZUNET_SockAddr* SockAddr);

/* Resolves a name to all its addresses, in the resolver's order, with port 0. `nFamily` 0 stands
 * for the family preference. Returns 0; a resolver's code; ENOMEM; or ZUNET_NAME_COLLISION. After
 * the last, `addr_list` holds memory to be released, but `addr_count` was not set. */
ZUNETWORK_API int ZUNET_name2ip(const char* szHostName, ZUNET_HostEnt* HostEnt, int nFamily);
ZUNETWORK_API void ZUNET_freehostent(ZUNET_HostEnt* HostEnt);

/* 1 when both addresses have the same family and the same first `bits` bits, else 0; all bits when
 * `bits` is below 1 or above 31 (IPv4) or 127 (IPv6). Scope and flow information never count, ports
 * do when `cmp_ports` is not 0. One and the same pointer is 1, null and another is 0. */
ZUNETWORK_API int ZUNET_addrequal(ZUNET_SockAddr* addr1, ZUNET_SockAddr* addr2, int bits,
                                  int cmp_ports);

/* The port in host byte order, of which the low 16 bits count. */
ZUNETWORK_API void ZUNET_setport(ZUNET_SockAddr* addr, int port);
ZUNETWORK_API int ZUNET_getport(const ZUNET_SockAddr* addr);

#ifdef __cplusplus
}
#endif
