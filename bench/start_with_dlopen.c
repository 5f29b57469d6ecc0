/* What a program pays that loads libcurl by itself. */
#include <dlfcn.h>
#include <stddef.h>

int main(void) { return dlopen("libcurl.so", RTLD_LAZY) == NULL; }
