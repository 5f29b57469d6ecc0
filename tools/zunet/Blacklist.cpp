#include "Blacklist.h"

#include <cstdio>

#include "Commands.h"
#include "Output.h"

namespace {

// What is most often wrong with a line.
const char* Hint(const std::string& line) {
  constexpr char kBlanks[] = " \t";
  if (line.back() == '\r') return "; the file has the line ends of another system";
  if (line.front() == '#' || line.front() == ';') return "; there are no comments";
  if (line.find('/') != std::string::npos) return "; blocks are not taken";
  if (line.find_first_of(kBlanks) != std::string::npos) return "; a line is a name or an address";
  return "";
}

}  // namespace

void LoadBlacklist(const std::string& file, bool isStrict, CZuIPAddrBlacklist& blacklist) {
  std::vector<CZuIPAddrBlacklistSkippedLine> skipped;
  ExitOnFailure(blacklist.LoadBlacklistFromFile(file.c_str(), skipped));
  for (const CZuIPAddrBlacklistSkippedLine& line : skipped) {
    std::fprintf(stderr, "zunet: %s:%lu lists nobody: %s%s\n", Printable(file).c_str(),
                 line.m_number, Printable(line.m_reason.Message()).c_str(), Hint(line.m_text));
  }
  if (!isStrict || skipped.empty()) return;
  ExitOnFailure(FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument,
                                        "Not every line of %s could be used", file.c_str()));
}
