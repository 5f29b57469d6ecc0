#include "ZuNetwork/ZuFdset.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "ZuNetwork/internal/FdsetResults.h"

using ZuInternal::kNoRoom;
using ZuInternal::kNoStorage;

void ZuFdset::maxsock_set(int n) { kdfdset_maxsock_set(n); }

int ZuFdset::maxsock_get() { return kdfdset_maxsock_get(); }

// The record is not cleared here: that is half of what making a set costs, and kdfdset_alloc clears
// it before the first use.
ZuFdset::ZuFdset() = default;

ZuFdset::ZuFdset(const ZuFdset& other) { CopyFrom(other); }

ZuFdset& ZuFdset::operator=(const ZuFdset& other) {
  if (this != &other) CopyFrom(other);
  return *this;
}

ZuFdset::~ZuFdset() {
  if (isInitialize) kdfdset_free(&fdset);
}

CZuError ZuFdset::init() {
  if (isInitialize) kdfdset_free(&fdset);
  isInitialize = false;
  if (kdfdset_alloc(maxsock_get(), &fdset) != 0) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorOutOfMemory, "Error allocating fdset");
  }
  isInitialize = true;
  return {};
}

void ZuFdset::zero() {
  EnsureInitialized();
  kdfdset_zero(&fdset);
}

CZuError ZuFdset::set(KDSOCKET fd) {
  if (!isInitialize) {
    CZuError error = init();
    if (Failed(error)) return error.Push(ZU_HERE);
  }
  const int result = kdfdset_set(fd, &fdset);
  if (result == 0) return {};
  if (result == kNoStorage) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState,
                                   "Bad fdset pointer passed to 'set' routine");
  }
  if (result == kNoRoom) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState,
                                   "Specified fd set is already full; Set size of %u",
                                   fdset.sock_cnt);
  }
  return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState,
                                 "Unknown error %d setting fd in fd set", result);
}

CZuError ZuFdset::clr(KDSOCKET fd) {
  if (!isInitialize) {
    CZuError error = init();
    if (Failed(error)) return error.Push(ZU_HERE);
  }
  const int result = kdfdset_clr(fd, &fdset);
  if (result == 0) return {};
  if (result == kNoStorage) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState,
                                   "Bad fdset pointer passed to 'clr' routine");
  }
  if (result == kNoRoom) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState,
                                   "Specified fd is out of bounds of this fd set; Set size of %u",
                                   fdset.sock_cnt);
  }
  return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState,
                                 "Unknown error %d clearing fd in fd set", result);
}

int ZuFdset::is_set(int fd) {
  EnsureInitialized();
  return kdfdset_isset(fd, &fdset);
}

bool ZuFdset::refresh(const ZuFdset& other) {
  if (!isInitialize || !other.isInitialize || fdset.sock_cnt != other.fdset.sock_cnt) return false;
  if (fdset.set == nullptr || other.fdset.set == nullptr) return false;
  const KDSOCKET highest = std::max(fdset.max_sock, other.fdset.max_sock);
  std::memmove(fdset.set, other.fdset.set, fdset_sz_bytes(highest + 1));  // may be the same set
  fdset.max_sock = other.fdset.max_sock;
  return true;
}

int ZuFdset::next(int first, int last) {
  EnsureInitialized();
  if (fdset.set == nullptr) return -1;
  const auto end = std::min<std::int64_t>(std::int64_t{last} + 1, fdset.sock_cnt);
  constexpr int kWordBits = 64;
  for (std::int64_t fd = first; fd < end; fd += kWordBits - fd % kWordBits) {
    const std::uint64_t word = fdset.set[fd / kWordBits] >> (fd % kWordBits);
    if (word == 0) continue;
    const std::int64_t found = fd + __builtin_ctzll(word);
    return found < end ? static_cast<int>(found) : -1;
  }
  return -1;
}

bool ZuFdset::reserve(KDSOCKET fd) {
  EnsureInitialized();
  const auto wanted = static_cast<std::uint32_t>(fd);
  if (fdset.set != nullptr && wanted < fdset.sock_cnt) return true;
  const bool grown = fdset.set != nullptr && fdset.set != fdset.__pvt_buff;
  if (grown && wanted < fdset.max_sock_cnt) {
    // Assigning a smaller set left a smaller capacity, while the heap block keeps its size, which
    // is that of the maximum, and the bits of before behind the new capacity.
    const unsigned used = fdset_sz_bytes(static_cast<int>(fdset.sock_cnt));
    const unsigned whole = fdset_sz_bytes(static_cast<int>(fdset.max_sock_cnt));
    std::memset(reinterpret_cast<char*>(fdset.set) + used, 0, whole - used);
    return true;
  }
  return kdfdset_set(fd, &fdset) == 0 && kdfdset_clr(fd, &fdset) == 0;
}

fd_set* ZuFdset::get_fdsetp() {
  EnsureInitialized();
  return kdfdset_get_fdsetp(&fdset);
}

int ZuFdset::get_maxfd() {
  EnsureInitialized();
  return kdfdset_get_maxfd(&fdset);
}

void ZuFdset::CopyFrom(const ZuFdset& other) {
  if (isInitialize) {
    if (other.isInitialize && fdset.sock_cnt >= other.fdset.sock_cnt) {
      kdfdset_copy_fdset(&fdset, &other.fdset);
      return;
    }
    kdfdset_free(&fdset);
    isInitialize = false;
  }
  if (!other.isInitialize) return;
  kdfdset_alloc(static_cast<int>(other.fdset.sock_cnt), &fdset);
  isInitialize = true;
  kdfdset_copy_fdset(&fdset, &other.fdset);
}

void ZuFdset::EnsureInitialized() {
  if (!isInitialize) (void)init();  // whatever is done next reports a set without storage
}
