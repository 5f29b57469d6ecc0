// Downloads a file: download http://HOST[:PORT] /PATH FILE
// [include]
#include <ZuNetwork/KdHTTPReq.h>
// [include]

#include <cstdio>

// [download]
size_t Save(char* data, size_t size, size_t count, void* file) {
  return std::fwrite(data, size, count, static_cast<std::FILE*>(file));
}

CZuError Download(const char* server, const char* path, std::FILE* file) {
  KdCURL::KdHTTPReq request(KdCURL::HTTP);
  CZuError error = request.initialize();
  if (Failed(error)) return error.Push(ZU_HERE);
  request.setURL(server);
  request.setWriteCallBack(file, Save);
  error = request.download(path, {});
  if (Failed(error)) error.Push(ZU_HERE, "No luck with %s", path);
  return error;
}
// [download]

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: download http://HOST[:PORT] /PATH FILE\n", stderr);
    return 2;
  }
  std::FILE* const file = std::fopen(argv[3], "wb");
  if (file == nullptr) {
    std::perror(argv[3]);
    return 1;
  }
  const CZuError error = Download(argv[1], argv[2], file);
  std::fclose(file);
  if (Failed(error)) std::fprintf(stderr, "%s\n", error.AsString().c_str());
  return Failed(error) ? 1 : 0;
}
