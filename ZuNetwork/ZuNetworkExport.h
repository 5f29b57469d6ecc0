#pragma once

/* Marks what libZuNetwork gives to its users; everything else stays inside the library, as do the
 * private functions of its classes that are marked as local. */
#ifdef __cplusplus
#define ZUNETWORK_API [[gnu::visibility("default")]]
#define ZUNETWORK_LOCAL [[gnu::visibility("hidden")]]
#else
#define ZUNETWORK_API __attribute__((visibility("default")))
#endif
