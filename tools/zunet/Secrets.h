#pragma once

#include <string>
#include <string_view>

// Passwords, keys and tokens do not belong on a screen, into a log or into the list of processes.

// A line of text without its secrets: the values of headers, parameters and commands that carry
// passwords, keys, tokens or cookies, and what names a user in a URL.
std::string Redacted(std::string_view line);

// Blanks the secrets among the arguments, which ps shows to everyone; whoever needs them takes a
// copy before.
void HideSecrets(int argc, char** argv);

// Asks on the terminal, which shows nothing of what is typed. Without a terminal, or when a signal
// ends it, it ends the program.
std::string AskForPassword(const std::string& user);
