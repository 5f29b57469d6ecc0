// What a program pays that loads libcurl by itself.
#include <dlfcn.h>

int main() { return dlopen("libcurl.so", RTLD_LAZY) == nullptr; }
