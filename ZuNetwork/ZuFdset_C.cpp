#include "ZuNetwork/ZuFdset_C.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "ZuNetwork/internal/FdsetResults.h"

using ZuInternal::kNoRoom;
using ZuInternal::kNoStorage;

namespace {

constexpr std::uint32_t kWordBits = 64;

std::atomic<int> __max_sock_count{KDFDSET_INTERNAL_SOCKETS};

bool HasStorage(const kdfdset* s) { return s != nullptr && s->set != nullptr; }

bool IsOnHeap(const kdfdset& s) { return s.set != s.__pvt_buff; }

unsigned BytesFor(std::uint32_t sockets) { return fdset_sz_bytes(static_cast<int>(sockets)); }

std::uint64_t BitOf(std::uint32_t fd) { return std::uint64_t{1} << (fd % kWordBits); }

// Replaces the internal storage by cleared heap storage for the maximum. The new pointer is stored
// before it is tested, so that a failure costs the set: callers that go on after it are told -2.
bool Grow(kdfdset& s) {
  if (IsOnHeap(s) || s.sock_cnt >= s.max_sock_cnt) return false;
  s.set = static_cast<std::uint64_t*>(std::calloc(1, BytesFor(s.max_sock_cnt)));
  if (s.set == nullptr) return false;
  s.sock_cnt = s.max_sock_cnt;
  return true;
}

// The highest descriptor below `end` whose bit is set, or -1. `end` lies within the storage.
KDSOCKET HighestBelow(const std::uint64_t* words, std::uint32_t end) {
  std::uint32_t index = end / kWordBits;
  std::uint64_t word = words[index] & (BitOf(end) - 1);
  while (word == 0 && index > 0) word = words[--index];
  if (word == 0) return -1;
  const auto bit = kWordBits - 1 - static_cast<std::uint32_t>(__builtin_clzll(word));
  return static_cast<KDSOCKET>(index * kWordBits + bit);
}

}  // namespace

void kdfdset_maxsock_set(int n) { __max_sock_count.store(n, std::memory_order_relaxed); }

int kdfdset_maxsock_get(void) { return __max_sock_count.load(std::memory_order_relaxed); }

unsigned fdset_sz_bytes(int socks) {
  return ((static_cast<unsigned>(socks) + kWordBits - 1) / 8) & ~7u;
}

int kdfdset_alloc(int max_sock_cnt, kdfdset* s) {
  if (s == nullptr) return -1;
  std::memset(s, 0, sizeof *s);
  s->set = s->__pvt_buff;
  s->sock_cnt = KDFDSET_INTERNAL_SOCKETS;
  s->max_sock_cnt = KDFDSET_INTERNAL_SOCKETS;
  if (max_sock_cnt > KDFDSET_INTERNAL_SOCKETS) {
    s->max_sock_cnt = static_cast<std::uint32_t>(max_sock_cnt);
  }
  s->max_sock = -1;
  return 0;
}

void kdfdset_free(kdfdset* s) {
  if (s == nullptr) return;
  if (IsOnHeap(*s)) std::free(s->set);
  s->set = nullptr;
  s->sock_cnt = 0;
  s->max_sock = -1;
}

void kdfdset_zero(kdfdset* s) {
  if (!HasStorage(s)) return;
  std::memset(s->set, 0, BytesFor(s->sock_cnt));
  s->max_sock = -1;
}

int kdfdset_set(KDSOCKET fd, kdfdset* s) {
  if (!HasStorage(s)) return kNoStorage;
  const auto number = static_cast<std::uint32_t>(fd);  // a negative descriptor is too large
  if (number >= s->sock_cnt) {
    if (!Grow(*s)) return kNoRoom;
    std::memcpy(s->set, s->__pvt_buff, sizeof s->__pvt_buff);
    if (number >= s->sock_cnt) return kNoRoom;
  }
  s->set[number / kWordBits] |= BitOf(number);
  if (s->max_sock < fd) s->max_sock = fd;
  return 0;
}

int kdfdset_isset(KDSOCKET fd, kdfdset* s) {
  if (!HasStorage(s)) return kNoStorage;
  const auto number = static_cast<std::uint32_t>(fd);
  if (number >= s->max_sock_cnt) return kNoRoom;
  if (number >= s->sock_cnt) return 0;
  return (s->set[number / kWordBits] & BitOf(number)) != 0 ? 1 : 0;
}

int kdfdset_clr(KDSOCKET fd, kdfdset* s) {
  if (!HasStorage(s)) return kNoStorage;
  const auto number = static_cast<std::uint32_t>(fd);
  if (number >= s->max_sock_cnt) return kNoRoom;
  if (number >= s->sock_cnt) return 0;
  s->set[number / kWordBits] &= ~BitOf(number);
  if (fd == s->max_sock) s->max_sock = HighestBelow(s->set, number);
  return 0;
}

fd_set* kdfdset_get_fdsetp(kdfdset* s) {
  return s == nullptr ? nullptr : reinterpret_cast<fd_set*>(s->set);
}

KDSOCKET kdfdset_get_maxfd(kdfdset* s) { return s == nullptr ? -1 : s->max_sock; }

int kdfdset_copy_fdset(kdfdset* dst, const kdfdset* src) {
  if (!HasStorage(src) || !HasStorage(dst)) return -1;
  if (src->sock_cnt > dst->max_sock_cnt) return -1;
  if (src->sock_cnt > dst->sock_cnt && !Grow(*dst)) return -1;
  std::memmove(dst->set, src->set, BytesFor(src->sock_cnt));  // they may be the same record
  dst->max_sock = src->max_sock;
  dst->sock_cnt = src->sock_cnt;
  return 0;
}
