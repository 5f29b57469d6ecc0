#pragma once

// Marks what libZuUtils gives to its users; everything else stays inside the library, as do the
// private functions of its classes that are marked as local.
#define ZUUTILS_API [[gnu::visibility("default")]]
#define ZUUTILS_LOCAL [[gnu::visibility("hidden")]]
