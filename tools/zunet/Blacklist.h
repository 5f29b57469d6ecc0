#pragma once

#include <string>

#include "ZuNetwork/ZuIPAddrBlacklist.h"

// Fills the list from a file and names every line that lists nobody on standard error. With
// `isStrict` such a line ends the program, as a file that cannot be read always does.
void LoadBlacklist(const std::string& file, bool isStrict, CZuIPAddrBlacklist& blacklist);
