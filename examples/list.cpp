// Lists a folder of a web server: list http://HOST[:PORT] /FOLDER/ PAGE-FILE
#include <ZuNetwork/KdHTTPReq.h>
#include <ZuNetwork/KdTransferIO.h>

#include <cstdio>

namespace {

// [list]
CZuError List(KdCURL::KdHTTPReq& request, const char* folder, const char* file,
              std::vector<KdCURL::FileDirInfo>& entries) {
  KdCURL::FileSink page;
  CZuError error = page.Open(file);
  request.setLenientListing(true);
  request.setWriteCallBack(&page, KdCURL::FileSink::Write);
  if (!Failed(error)) error = request.getFilesAndDirsInfoInFile(folder);
  if (!Failed(error)) error = page.Commit();
  if (!Failed(error)) error = request.collectFilesAndDir(file, &entries, folder);
  if (Failed(error)) error.Push(ZU_HERE);
  return error;
}
// [list]

int DropTrace(void*, void*, char*, unsigned long, void*) { return 0; }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: list http://HOST[:PORT] /FOLDER/ PAGE-FILE\n", stderr);
    return 2;
  }
  KdCURL::KdHTTPReq request(KdCURL::HTTP);
  std::vector<KdCURL::FileDirInfo> entries;
  CZuError error = request.initialize();
  if (!Failed(error)) error = request.setTraceCallBack(&request, DropTrace);
  request.setURL(argv[1]);
  if (!Failed(error)) error = List(request, argv[2], argv[3], entries);
  if (Failed(error)) {
    std::fprintf(stderr, "%s\n", error.AsString().c_str());
    return 1;
  }
  for (const KdCURL::FileDirInfo& entry : entries) {
    std::printf("%s%s\n", entry.name.c_str(), entry.isFile ? "" : "/");
  }
  return 0;
}
