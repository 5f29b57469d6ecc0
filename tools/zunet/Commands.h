#pragma once

#include <CLI/CLI.hpp>

#include "ZuUtils/ZuError.h"

// Exit statuses beside those of wrong usage, which CLI11 gives, and of signals (see Signals.h).
constexpr int kExitAbsent = 1;   // zunet exists: there is no such file or directory
constexpr int kExitOutside = 1;  // zunet cidr: the address is not in the block
constexpr int kExitListed = 1;   // zunet blacklist: an address is listed
constexpr int kExitFailure = 2;

// Set by -v, which every command takes: a failure is told with the list of places that it passed,
// a transfer is traced.
extern bool gIsVerbose;

// Each adds one family of subcommands, which run when the arguments are parsed.
void AddTransferCommands(CLI::App& app);
void AddSignCommand(CLI::App& app);
void AddPingCommands(CLI::App& app);
void AddStreamCommands(CLI::App& app);
void AddAddressCommands(CLI::App& app);

// Refuses what is no whole number from `low` to `high`, in words that name the range and the unit,
// such as " seconds".
CLI::Validator WholeNumber(long long low, long long high, const std::string& unit);

// Ends the program with one line on standard error, unless the error is a success: what failed, on
// what, why and what to try. The advice is for what the caller knows; otherwise the error's code
// gives it.
void ExitOnFailure(const CZuError& error, const char* advice = nullptr);
