#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <string>

#include "ZuNetwork/CurlWrapper.h"

namespace {

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

}  // namespace

// Signs "data", or the file that is the second argument, with the key file that is the first one
// and tells how it went, and of files that were left open.
int main(int argc, char** argv) {
  setvbuf(stdout, nullptr, _IONBF, 0);
  if (argc > 2) {
    std::string text = "?";
    const std::ptrdiff_t before = OpenDescriptors();
    const CZuError error =
        CurlWrapper::gCurlWrapper.SignFileSHA256withRSA(argv[1], argv[2], "secret", text);
    std::printf("%08X %s %s\n", static_cast<unsigned>(error.m_hrErrorCode), error.Message().c_str(),
                text.c_str());
    const std::ptrdiff_t left = OpenDescriptors() - before;
    if (left != 0) std::printf("left open %td\n", left);
    return 0;
  }
  unsigned char signature[512] = "?";
  unsigned int size = 1;
  const std::ptrdiff_t before = OpenDescriptors();
  const int result =
      CurlWrapper::gCurlWrapper.SignSHA256withRSA(argv[1], "data", 4, "secret", signature, &size);
  printf("result %d %.*s\n", result, static_cast<int>(size), signature);
  const std::ptrdiff_t left = OpenDescriptors() - before;
  if (left != 0) std::printf("left open %td\n", left);
}
