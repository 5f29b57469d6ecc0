#pragma once

/* Marks what libZuNetwork gives to its users; everything else stays inside the library. */
#ifdef __cplusplus
#define ZUNETWORK_API [[gnu::visibility("default")]]
#else
#define ZUNETWORK_API __attribute__((visibility("default")))
#endif
