#pragma once

#include <string>
#include <utility>

#include "Session.h"

// Who asks, and whether the server is the one that is meant. Whatever is missing ends the program.

// Of --user: the password is what stands behind the colon, else that of ZUNET_PASSWORD, else it is
// asked for on the terminal. A key needs none.
std::pair<std::string, std::string> NameAndPassword(const SessionOptions& options);

// The file's text without its line end.
std::string ReadPassPhrase(const std::string& path);

// By the environment, else by the account.
std::string HomeFolder();

// Why a server's key was refused, and what to do.
std::string RefusedHostKey(const Url& url, const std::string& knownHosts, bool isOther);
