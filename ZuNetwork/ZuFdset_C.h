#pragma once

#include <stdint.h>
#include <sys/select.h>

#include "ZuNetwork/ZuNetworkExport.h"

/* A set of socket descriptors for select(2) that is not bounded by FD_SETSIZE, for C and C++.
 *
 * Bits lie as in the platform's fd_set (descriptor d is bit d % 64 of word d / 64), so that the
 * storage is handed to select() as it is, with the highest descriptor plus one as the count. The
 * FD_* macros must not be used on it: they may end the program above descriptor 1023.
 *
 * The storage is inside the record for 8192 descriptors. The first descriptor above moves it to
 * the heap, once, with room for the maximum that the record was given.
 *
 * A record may not be copied by assignment, since it points into itself: see kdfdset_copy_fdset().
 * It belongs to one thread at a time. Nothing here sets errno on purpose. */

#ifdef __cplusplus
extern "C" {
#endif

/* A socket descriptor; -1 means none. */
typedef int32_t KDSOCKET;

/* What a record holds without heap memory, and the least maximum it can be given. */
enum { KDFDSET_INTERNAL_SOCKETS = 8192 };

typedef struct kdfdset {
  uint64_t* set;                                      /* live storage, null when freed or lost */
  uint64_t __pvt_buff[KDFDSET_INTERNAL_SOCKETS / 64]; /* storage until the set grows */
  uint32_t sock_cnt;                                  /* capacity in descriptors */
  uint32_t max_sock_cnt;                              /* the capacity that it may grow to */
  uint32_t sock_cnt_bytes;                            /* always 0 */
  KDSOCKET max_sock;                                  /* highest descriptor in it, -1 when empty */
} kdfdset;

/* The maximum that sets made from now on may grow to, in descriptors; 8192 at first. Sets that
 * exist keep theirs. May be called from any thread. */
ZUNETWORK_API void kdfdset_maxsock_set(int n);
ZUNETWORK_API int kdfdset_maxsock_get(void);

/* The bytes that `socks` descriptors take: whole 64-bit words. */
ZUNETWORK_API unsigned fdset_sz_bytes(int socks);

/* Makes `s` an empty set that may grow to `max_sock_cnt` descriptors (below 8192: to 8192).
 * Whatever it held is overwritten, not released. Returns 0, or -1 for a null `s`. */
ZUNETWORK_API int kdfdset_alloc(int max_sock_cnt, kdfdset* s);

/* Releases the storage. The record holds nothing until kdfdset_alloc() makes it a set again. */
ZUNETWORK_API void kdfdset_free(kdfdset* s);

/* Removes every descriptor; the capacity stays. */
ZUNETWORK_API void kdfdset_zero(kdfdset* s);

/* Adds `fd`. Returns 0, or
 *   -1  no room: `fd` is negative or at or above the maximum, the set has grown before, or memory
 *       is short. In the last case the set and its storage are lost: every later call is -2.
 *   -2  `s` is null or has no storage. */
ZUNETWORK_API int kdfdset_set(KDSOCKET fd, kdfdset* s);

/* Returns 1 if `fd` is in the set and 0 if not; -1 when it is negative or at or above the maximum,
 * -2 when `s` is null or has no storage. */
ZUNETWORK_API int kdfdset_isset(KDSOCKET fd, kdfdset* s);

/* Removes `fd`, which need not be in the set. Returns 0; -1 and -2 as kdfdset_isset(). */
ZUNETWORK_API int kdfdset_clr(KDSOCKET fd, kdfdset* s);

/* The live storage, as select() takes it; null when `s` is null or has none. It is the set's, and
 * valid until the set grows or is freed. select() reads and writes every bit up to the count that
 * it is given, whatever the capacity: see ZuFdset::reserve. */
ZUNETWORK_API fd_set* kdfdset_get_fdsetp(kdfdset* s);

/* The highest descriptor that was added and not removed, -1 when there is none or `s` is null. What
 * select() removed still counts. */
ZUNETWORK_API KDSOCKET kdfdset_get_maxfd(kdfdset* s);

/* Makes `dst` hold what `src` holds, growing it if it must. Returns 0, or -1 when one of them is
 * null or has no storage, when `dst` may not grow far enough or has grown before, or when memory is
 * short, which loses the storage of `dst`. A `dst` of larger capacity takes over the smaller one of
 * `src` but keeps its heap block, with what lies beyond; such a set does not grow again. */
ZUNETWORK_API int kdfdset_copy_fdset(kdfdset* dst, const kdfdset* src);

#ifdef __cplusplus
}
#endif
