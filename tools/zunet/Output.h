#pragma once

#include <string>
#include <string_view>

// Fills the standard streams that whoever started the program closed, so that no socket or file
// gets their descriptors: input is empty, and what is written to output or errors fails. Comes
// before anything that opens a descriptor.
void FillStandardStreams();

// Writes to standard output. A failure ends the program with its report; as the bytes wait in a
// buffer, one may show in FlushOutput() only.
void Print(std::string_view text);
void PrintLine(const std::string& text);

// Ends the program with the report that output failed for the reason in errno.
[[noreturn]] void ExitOnUnwritten();

// Sends what was printed on its way.
void FlushOutput();

// The text with the bytes that steer a terminal (those of control characters, and what is not
// UTF-8) written as "\x1b". For all that came from elsewhere: names of hosts, files and servers.
std::string Printable(std::string_view text);
