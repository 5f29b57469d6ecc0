#pragma once

#include <CLI/CLI.hpp>

// What a wrong command line is told, in one line: the word that is wrong and what may be meant.
std::string ExplainUsage(const CLI::App& app, const CLI::Error& error);
