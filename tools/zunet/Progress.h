#pragma once

#include <cstdint>

// Draws the bar of a transfer on standard error, a few times a second; `total` is 0 while it is
// unknown. Ends its line when all is done.
void DrawProgress(std::int64_t done, std::int64_t total);

// Ends the line of a bar that is not complete, before something else is printed.
void FinishProgress();
