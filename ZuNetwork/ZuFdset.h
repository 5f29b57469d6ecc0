#pragma once

#include "ZuNetwork/ZuFdset_C.h"
#include "ZuUtils/ZuError.h"

// A set of socket descriptors for select(2) that is not bounded by FD_SETSIZE: owns a record of
// ZuFdset_C.h, which says how it grows and what its storage is. It holds nothing until it is first
// used, and then may grow to the maximum that maxsock_set() fixed by then.
//
// Distinct objects may be used on distinct threads; one object by one thread at a time.
class ZUNETWORK_API ZuFdset {
 public:
  // The maximum, in descriptors, of sets that are first used from now on; see kdfdset_maxsock_set.
  static void maxsock_set(int n);
  static int maxsock_get();

  ZuFdset();

  // A copy may hold as many descriptors as the original can hold now, at least 8192; assigning to a
  // set that is large enough keeps its own storage and maximum. Where memory is short the result
  // has no storage, which only init() mends.
  ZuFdset(const ZuFdset& other);
  ZuFdset& operator=(const ZuFdset& other);
  ~ZuFdset();

  // Makes this an empty set of the present maximum; what it held is released. Does not fail.
  CZuError init();

  // Removes every descriptor; the capacity stays.
  void zero();

  // Adds or removes a descriptor. Failures are ErrorWin32 774:
  //   "Specified fd set is already full; Set size of %u"              set: no room for it
  //   "Specified fd is out of bounds of this fd set; Set size of %u"  clr: beyond the maximum
  //   "Bad fdset pointer passed to 'set' routine" (or 'clr')          the storage was lost before
  // The size is the present capacity. Growth that finds no memory loses the set and its storage.
  CZuError set(KDSOCKET fd);
  CZuError clr(KDSOCKET fd);

  // Does what assignment does where both sets have the same capacity, and copies only the part of
  // the storage in which either has a descriptor. False, and nothing done, where the capacities
  // differ or one of them has no storage.
  bool refresh(const ZuFdset& other);

  // 1 or 0; -1 when `fd` is negative or at or above the maximum, -2 when the storage was lost.
  int is_set(int fd);

  // The lowest descriptor from `first` (0 or above) to `last` that is in the set, -1 when there is
  // none.
  int next(int first, int last);

  // Makes the storage hold the bit of `fd` and changes no bit. select() reads and writes the bits
  // of all descriptors up to the highest one that it is told of, so that each of its three sets
  // needs the room, whatever it holds. False when `fd` is beyond the maximum or memory is short.
  bool reserve(KDSOCKET fd);

  // The storage for select(), valid until the set grows, is assigned to or destroyed; null when it
  // was lost.
  fd_set* get_fdsetp();

  // The highest descriptor that was added and not removed, -1 when there is none.
  int get_maxfd();

 protected:
  kdfdset fdset;
  bool isInitialize = false;  // the record means nothing before

 private:
  ZUNETWORK_LOCAL void CopyFrom(const ZuFdset& other);
  ZUNETWORK_LOCAL void EnsureInitialized();
};
