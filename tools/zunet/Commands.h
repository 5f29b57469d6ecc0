#pragma once

#include <CLI/CLI.hpp>

#include "ZuUtils/ZuError.h"

// Exit statuses beside those of wrong usage, which CLI11 gives.
constexpr int kExitAbsent = 1;   // zunet exists: there is no such file or directory
constexpr int kExitOutside = 1;  // zunet cidr: the address is not in the block
constexpr int kExitListed = 1;   // zunet blacklist: an address is listed
constexpr int kExitFailure = 2;

// Each adds one family of subcommands, which run when the arguments are parsed.
void AddTransferCommands(CLI::App& app);
void AddSignCommand(CLI::App& app);
void AddPingCommands(CLI::App& app);
void AddStreamCommands(CLI::App& app);
void AddAddressCommands(CLI::App& app);

// Ends the program with the error's report on standard error, unless it is a success.
void ExitOnFailure(const CZuError& error);
