#include "Output.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "Commands.h"

namespace {

// How many bytes at the start of the text are one character beyond ASCII that may be shown; 0 when
// they are none.
std::size_t LengthOfCharacter(std::string_view text) {
  const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  std::size_t length = 0;
  if (first >= 0xC2 && first <= 0xDF) length = 2;
  if (first >= 0xE0 && first <= 0xEF) length = 3;
  if (first >= 0xF0 && first <= 0xF4) length = 4;
  if (length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  const bool isControl = first == 0xC2 && byte(1) < 0xA0;
  return isControl ? 0 : length;
}

}  // namespace

void FillStandardStreams() {
  // Opened for reading alone: a write to standard output must fail, not vanish.
  int descriptor = open("/dev/null", O_RDONLY);
  while (descriptor >= 0 && descriptor <= STDERR_FILENO) descriptor = dup(descriptor);
  if (descriptor > STDERR_FILENO) close(descriptor);
}

void ExitOnUnwritten() {
  const int err = errno;
  __fpurge(stdout);  // else exit() would try once more
  ExitOnFailure(FXErrorUtil::ErrorErrNo(ZU_HERE, err, "Failed to write standard output"));
  throw CLI::RuntimeError(kExitFailure);
}

void Print(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) ExitOnUnwritten();
}

void PrintLine(const std::string& text) { Print(text + "\n"); }

void FlushOutput() {
  errno = EIO;  // of what failed before only the fact is known
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) ExitOnUnwritten();
}

std::string Printable(std::string_view text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string printable;
  while (!text.empty()) {
    const auto byte = static_cast<unsigned char>(text.front());
    const bool isAscii = byte >= 0x20 && byte < 0x7F;
    const std::size_t length = isAscii ? 1 : LengthOfCharacter(text);
    if (length == 0)
      printable.append("\\x").append(1, kDigits[byte >> 4]).append(1, kDigits[byte & 15]);
    printable += text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return printable;
}
