/* A library with a function that nobody defines: it loads only if functions are bound lazily. */

extern int zufake_defined_nowhere(void);

int zufake_calls_nowhere(void) { return zufake_defined_nowhere(); }

int zufake_is_whole(void) { return 1; }
