#include <cstdio>

#include "ZuNetwork/CurlWrapper.h"

// Signs "data" with the file that is the first argument and tells how it went.
int main(int /*argc*/, char** argv) {
  setvbuf(stdout, nullptr, _IONBF, 0);
  unsigned char signature[512] = "?";
  unsigned int size = 1;
  const int result =
      CurlWrapper::gCurlWrapper.SignSHA256withRSA(argv[1], "data", 4, "secret", signature, &size);
  printf("result %d %.*s\n", result, static_cast<int>(size), signature);
}
