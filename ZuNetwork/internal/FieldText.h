#pragma once

#include <string>
#include <string_view>

// Looks at texts that become part of a header, a command or a login.

// Handed to libcurl as a C string it would be cut there.
inline bool HasZeroByte(const std::string& text) { return text.find('\0') != std::string::npos; }

// A line break begins another header or command, of the text's choice.
inline bool HasLineBreak(const std::string& text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos;
}
