/* Loads a library at run time and gives it up: 0 if nothing of it stays in the process. */

#include <dlfcn.h>
#include <stdio.h>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  void* const library = dlopen(argv[1], RTLD_NOW);
  if (library == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    return 2;
  }
  dlclose(library);
  if (dlopen(argv[1], RTLD_NOW | RTLD_NOLOAD) == NULL) return 0;
  fprintf(stderr, "%s stays loaded\n", argv[1]);
  return 1;
}
