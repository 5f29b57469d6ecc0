/* What the library of library.c depends on. */

int zufake_dependency(void) { return 7; }
