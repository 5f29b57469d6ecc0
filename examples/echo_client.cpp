// Sends a text to an echo server and prints what comes back: echo_client HOST PORT TEXT
#include <ZuNetwork/ZuSocket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

// [connect]
// A name may have several addresses, and a server need not listen on the first one.
CZuError Connect(const char* host, int port, CZuSocket& socket) {
  std::vector<CZuIPAddr> addresses;
  CZuError error = CZuIPAddr::GetAllByName(host, addresses, CZuIPAddr::FAMILY_ANY);
  if (Failed(error)) return error.Push(ZU_HERE, "No address of %s", host);
  error = FXErrorUtil::ErrorErrNo(ZU_HERE, EADDRNOTAVAIL);
  for (CZuIPAddr& address : addresses) {
    error = address.SetPortNumber(port);
    if (!Failed(error)) error = socket.Connect(address);
    if (!Failed(error)) return {};
    socket.Close();  // no destructor does it
  }
  return error.Push(ZU_HERE, "No connection to %s, port %d", host, port);
}
// [connect]

// [echo_client]
CZuError Exchange(const CZuSocket& socket, const std::string& text, std::string& reply) {
  constexpr int kSeconds = 10;
  const int size = static_cast<int>(text.size());
  int timedOut = 0;
  reply.resize(text.size());
  CZuError error = socket.SendWithTimeOut(text.data(), size, kSeconds, &timedOut, 0, nullptr);
  if (!Failed(error)) {
    error = socket.RecvWithTimeout(reply.data(), size, kSeconds, &timedOut, 0, nullptr);
  }
  if (Failed(error)) error.Push(ZU_HERE, timedOut != 0 ? "The server is slow" : "No echo");
  return error;
}

CZuError Ask(const char* host, int port, const std::string& text, std::string& reply) {
  CZuSocket socket;
  CZuError error = Connect(host, port, socket);
  if (!Failed(error)) error = Exchange(socket, text, reply);
  socket.Close();
  if (Failed(error)) error.Push(ZU_HERE);
  return error;
}
// [echo_client]

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: echo_client HOST PORT TEXT\n", stderr);
    return 2;
  }
  std::string reply;
  const CZuError error = Ask(argv[1], std::atoi(argv[2]), argv[3], reply);
  if (Failed(error)) {
    std::fprintf(stderr, "%s\n", error.AsString().c_str());
    return 1;
  }
  std::printf("%s\n", reply.c_str());
  return 0;
}
