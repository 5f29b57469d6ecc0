// Included before everything else: functions of the C library check the size of what they fill,
// unless the compiler does not optimise, which they need, or somebody has chosen already.
#if defined(__OPTIMIZE__) && !defined(_FORTIFY_SOURCE)
#define _FORTIFY_SOURCE 2
#endif
