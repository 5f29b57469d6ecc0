// Downloads a file from a server that asks who wants it:
//   secure_download HOST[:PORT] /PATH FILE USER PASSWORD [CA-BUNDLE]
#include <ZuNetwork/KdHTTPReq.h>
#include <ZuNetwork/KdTransferIO.h>

#include <cstdio>

namespace {

// [secure_download]
struct Login {
  const char* user;
  const char* password;
  const char* authorities;  // whose certificates are believed
};

int DropTrace(void*, void*, char*, unsigned long, void*) { return 0; }

CZuError Configure(KdCURL::KdHTTPReq& request, const char* host, const Login& login) {
  CZuError error = request.initialize();  // before everything else
  if (!Failed(error)) error = request.setTraceCallBack(&request, DropTrace);
  if (!Failed(error)) error = request.setSecured(true, login.authorities);
  if (!Failed(error)) error = request.setCredentials(login.user, login.password);
  if (!Failed(error)) error = request.SetTimeOut(30);
  request.setURL(host);  // "https://" is added
  return error;
}

CZuError Download(const char* host, const Login& login, const char* path, const char* target) {
  KdCURL::KdHTTPReq request(KdCURL::HTTPS);
  KdCURL::FileSink sink;  // the file is there when all of it is
  CZuError error = Configure(request, host, login);
  if (!Failed(error)) error = sink.Open(target);
  request.setWriteCallBack(&sink, KdCURL::FileSink::Write);  // for one request
  if (!Failed(error)) error = request.download(path, {{"Accept", "text/csv"}});
  if (!Failed(error)) error = sink.Commit();
  if (Failed(error)) error.Push(ZU_HERE);
  return error;
}
// [secure_download]

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6 && argc != 7) {
    std::fputs("usage: secure_download HOST[:PORT] /PATH FILE USER PASSWORD [CA-BUNDLE]\n", stderr);
    return 2;
  }
  const char* const authorities = argc == 7 ? argv[6] : "/etc/ssl/certs/ca-certificates.crt";
  KdCURL::KdProtocolReq::initializeCurlLibrary();  // once, before threads use requests
  const CZuError error = Download(argv[1], {argv[4], argv[5], authorities}, argv[2], argv[3]);
  if (Failed(error)) std::fprintf(stderr, "%s\n", error.AsString().c_str());
  return Failed(error) ? 1 : 0;
}
