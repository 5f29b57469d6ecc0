#include "ZuNetwork/internal/OpenSslLocks.h"

#include <pthread.h>

#include <atomic>
#include <cstddef>

#include "ZuNetwork/internal/Lookup.h"

namespace {

constexpr int kCryptoLock = 1;
constexpr int kCryptoUnlock = 2;

using IdCallback = unsigned long (*)();
using LockCallback = void (*)(int mode, int n, const char* file, int line);
using NumLocks = int (*)();
using SetIdCallback = void (*)(IdCallback);
using SetLockingCallback = void (*)(LockCallback);

// OpenSSL names a lock by its number. The mutexes are made when they are first needed and never
// freed: OpenSSL may still use them when this library is unloaded.
using Mutex = std::atomic<pthread_mutex_t*>;

Mutex ssl_kdcsec{nullptr};                    // guards the making of a lock
std::atomic<Mutex*> ssl_kdcsec_arr{nullptr};  // one slot for each lock

pthread_mutex_t* NewMutex() {
  auto* const mutex = new pthread_mutex_t;
  pthread_mutex_init(mutex, nullptr);
  return mutex;
}

unsigned long id_cb() { return pthread_self(); }

void lock_cb(int mode, int n, const char* /*file*/, int /*line*/) {
  Mutex& slot = ssl_kdcsec_arr[n];
  if (slot == nullptr) {
    pthread_mutex_lock(ssl_kdcsec);
    if (slot == nullptr) slot = NewMutex();
    pthread_mutex_unlock(ssl_kdcsec);
  }
  if ((mode & kCryptoLock) != 0) {
    pthread_mutex_lock(slot);
  } else if ((mode & kCryptoUnlock) != 0) {
    pthread_mutex_unlock(slot);
  }
}

}  // namespace

void InstallOpenSslLocks(const CZuLibrary& library) {
  ssl_kdcsec = NewMutex();
  const auto numLocks = Lookup<NumLocks>(library, "CRYPTO_num_locks");
  if (!numLocks) return;
  ssl_kdcsec_arr = new Mutex[static_cast<std::size_t>(numLocks())]{};
  const auto setId = Lookup<SetIdCallback>(library, "CRYPTO_set_id_callback");
  if (!setId) return;
  setId(id_cb);
  const auto setLocking = Lookup<SetLockingCallback>(library, "CRYPTO_set_locking_callback");
  if (setLocking) setLocking(lock_cb);
}

void RemoveOpenSslLocks(const CZuLibrary& library) {
  const auto setId = Lookup<SetIdCallback>(library, "CRYPTO_set_id_callback");
  if (setId) setId(nullptr);
  const auto setLocking = Lookup<SetLockingCallback>(library, "CRYPTO_set_locking_callback");
  if (setLocking) setLocking(nullptr);
}
