#include "fakes/FakeCurl.h"

// The thread functions of an OpenSSL before 1.1, found through libcurl.so as the real ones are.

extern "C" {

FakeCurl* fake_curl();
int CRYPTO_num_locks();
void CRYPTO_set_id_callback(unsigned long (*id)());
void CRYPTO_set_locking_callback(void (*lock)(int, int, const char*, int));
}

namespace {

void Record(const char* function, const char* argument) {
  FakeCurl& fake = *fake_curl();
  if (fake.announceCrypto) std::fprintf(stderr, "%s%s\n", function, argument);
  const std::lock_guard<std::recursive_mutex> lock(fake.mutex);
  fake.calls.push_back(std::string(function) + argument);
}

}  // namespace

int CRYPTO_num_locks() {
  Record("CRYPTO_num_locks", "");
  return fake_curl()->crypto.numLocks;
}

void CRYPTO_set_id_callback(unsigned long (*id)()) {
  Record("CRYPTO_set_id_callback", id ? " function" : " null");
  fake_curl()->crypto.id = id;
}

void CRYPTO_set_locking_callback(void (*lock)(int, int, const char*, int)) {
  Record("CRYPTO_set_locking_callback", lock ? " function" : " null");
  fake_curl()->crypto.lock = lock;
}
