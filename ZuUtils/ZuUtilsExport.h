#pragma once

// Marks what libZuUtils gives to its users; everything else stays inside the library.
#define ZUUTILS_API [[gnu::visibility("default")]]
