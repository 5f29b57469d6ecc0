/* A library to be loaded at run time: values to find, a name without an address, a dependency. */

extern int zufake_dependency(void);

int zufake_value = 4711;

int zufake_function(void) { return 42; }

int zufake_calls_dependency(void) { return zufake_dependency() + 1; }

__asm__(".globl zufake_null\n.set zufake_null, 0\n.type zufake_null, @object");
