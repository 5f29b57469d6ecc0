/* A library to be loaded at run time: values to find, a name without an address, a dependency, and
   a function whose lookup takes as long as the one who looks it up wants. */

#include <stdatomic.h>
#include <threads.h>
#include <time.h>

extern int zufake_dependency(void);

int zufake_value = 4711;

int zufake_function(void) { return 42; }

int zufake_calls_dependency(void) { return zufake_dependency() + 1; }

__asm__(".globl zufake_null\n.set zufake_null, 0\n.type zufake_null, @object");

atomic_int zufake_lookup_began = 0;
atomic_int zufake_lookup_may_end = 0;

/* The loader calls this to learn the address of zufake_slow. */
static int (*find_slow(void))(void) {
  const struct timespec millisecond = {0, 1000000};
  zufake_lookup_began = 1;
  for (int i = 0; zufake_lookup_may_end == 0 && i < 10000; ++i) thrd_sleep(&millisecond, 0);
  return zufake_function;
}

int zufake_slow(void) __attribute__((ifunc("find_slow")));
