/* Tells what the library did before main(): read the address of a name collision, load libcurl. */
#define _GNU_SOURCE
#include <ZuNetwork/ZuSocket_C.h>
#include <dlfcn.h>
#include <netdb.h>
#include <stdio.h>
#include <string.h>

static int gLookups = 0;

/* In place of the system's. A lookup that fails is no harm: the library tries again later. */
int getaddrinfo(const char* name, const char* service, const struct addrinfo* hints,
                struct addrinfo** result) {
  (void)service;
  (void)hints;
  (void)result;
  if (name != NULL && strcmp(name, "127.0.53.53") == 0) ++gLookups;
  return EAI_FAIL;
}

int main(void) {
  const int lookups = gLookups;
  ZUNET_SockAddr address;
  (void)ZUNET_str2ip("127.0.0.1", &address); /* so that the library is needed */
  if (lookups == 0) puts("the address of a name collision was not read");
  if (dlopen("libcurl.so", RTLD_LAZY | RTLD_NOLOAD) == NULL) puts("libcurl was not loaded");
  puts("in time");
  return 0;
}
