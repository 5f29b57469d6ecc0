#pragma once

#include "ZuUtils/ZuLibrary.h"

// An OpenSSL before 1.1 leaves the locking between threads to the program, by two callbacks; later
// ones need none and lack the functions, which is then no failure. `library` brought OpenSSL along.

// Gives OpenSSL callbacks with a mutex for each of its locks.
void InstallOpenSslLocks(const CZuLibrary& library);

// Takes OpenSSL's callbacks away, whoever installed them: their code goes with this library.
void RemoveOpenSslLocks(const CZuLibrary& library);
