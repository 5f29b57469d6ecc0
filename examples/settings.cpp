// Reads a file of settings and prints it: settings FILE
#include <ZuUtils/ZuFile.h>

#include <cstdio>
#include <memory>

// [settings]
CZuError LoadSettings(const char* path, std::string& settings) {
  char* text = nullptr;
  std::size_t size = 0;
  CZuError error = CZuFile::ReadWholeFile(path, &text, size);
  if (Failed(error)) return error.Push(ZU_HERE, "No settings in %s", path);
  settings.assign(text, size);
  delete[] text;
  return error;
}
// [settings]

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: settings FILE\n", stderr);
    return 2;
  }
  std::string settings;
  const CZuError error = LoadSettings(argv[1], settings);
  if (Failed(error)) {
    std::fprintf(stderr, "%s\n", error.AsString().c_str());
    return 1;
  }
  std::printf("%s", settings.c_str());
  return 0;
}
