// A program of someone else: asks a server that refuses the connection, and prints the error.

#include <ZuNetwork/KdErrorItem_KdCURL.h>
#include <ZuNetwork/KdHTTPReq.h>
#include <ZuUtils/FXString.h>
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iostream>

namespace {

// A port of the loop-back interface that nobody else can open and nobody listens on.
class SilentPort {
 public:
  SilentPort() : m_descriptor(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const general = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (bind(m_descriptor, general, size) == 0 && getsockname(m_descriptor, general, &size) == 0) {
      m_number = ntohs(address.sin_port);
    }
  }
  ~SilentPort() { close(m_descriptor); }
  SilentPort(const SilentPort&) = delete;
  SilentPort& operator=(const SilentPort&) = delete;

  int Number() const { return m_number; }

 private:
  int m_descriptor;
  int m_number = 0;
};

int IgnoreTrace(void*, void*, char*, unsigned long, void*) { return 0; }

}  // namespace

int main() {
  const SilentPort port;
  if (port.Number() == 0) return 2;
  std::cout << "ZuNetwork " << VERSION << "\n";

  KdCURL::KdHTTPReq request(KdCURL::HTTP);
  CZuError error = request.initialize();
  if (!Failed(error)) error = request.setTraceCallBack(&request, IgnoreTrace);
  if (!Failed(error)) error = request.DisableProxy();
  if (!Failed(error)) error = request.SetTimeOut(10);
  if (!Failed(error)) {
    request.setURL("127.0.0.1");
    request.setPortNo(FXString::Format("%d", port.Number()));
    error = request.download("/folder/file", {});
  }
  std::cout << error.AsString() << "\n";
  return KdCURL::IsKdCURL(error, CURLE_COULDNT_CONNECT) ? 0 : 1;
}
