#pragma once

// Marks what libzu gives to its users; everything else stays inside the library.
#define ZU_API [[gnu::visibility("default")]]
