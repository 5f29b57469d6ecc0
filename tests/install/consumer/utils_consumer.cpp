// A program that needs no network: prints the error of a file that cannot be read.

#include <ZuUtils/ZuFile.h>
#include <ZuUtils/ZuString.h>

#include <iostream>

int main() {
  const CZuString path("/nowhere/at/all");
  char* content = nullptr;
  std::size_t length = 0;
  CZuError error = CZuFile::ReadWholeFile(path.c_str(), &content, length);
  if (!Failed(error)) return 1;
  std::cout << error.Push(ZU_HERE, "while trying").AsString() << "\n";
  return 0;
}
