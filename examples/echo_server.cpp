// Sends back what it receives, to one client after the other: echo_server PORT (0 for any)
#include <ZuNetwork/ZuSocket.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

// [echo_server]
CZuError Open(int port, CZuSocket& listener) {
  CZuIPAddr address;
  CZuError error = address.SetAddressString("127.0.0.1");
  if (!Failed(error)) error = address.SetPortNumber(port);
  if (!Failed(error)) error = listener.Bind(address);
  if (!Failed(error)) error = listener.Listen(5);
  if (!Failed(error)) error = listener.GetLocalAddress(address);
  if (Failed(error)) return error.Push(ZU_HERE, "No server on port %d", port);
  std::printf("listening on port %d\n", address.GetPortNumber());
  std::fflush(stdout);
  return {};
}

// Until the client closes, which is an error of the first receive. What has come by the time its
// first byte is there is received with it.
CZuError Echo(CZuSocket& client) {
  constexpr int kSeconds = 60;
  char buffer[4096];
  while (true) {
    int timedOut = 0;
    unsigned waiting = 0;
    int size = 1;
    CZuError error = client.RecvWithTimeout(buffer, size, kSeconds, &timedOut, 0, nullptr);
    if (!Failed(error)) error = client.GetReadQueueLen(&waiting);
    if (!Failed(error)) {
      const int more = static_cast<int>(std::min<unsigned>(waiting, sizeof buffer - 1));
      error = client.Recv(buffer + size, more, 0, nullptr);
      size += more;
    }
    if (!Failed(error)) {
      error = client.SendWithTimeOut(buffer, size, kSeconds, &timedOut, 0, nullptr);
    }
    if (Failed(error)) return error;
  }
}
// [echo_server]

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: echo_server PORT\n", stderr);
    return 2;
  }
  CZuSocket listener;
  CZuError error = Open(std::atoi(argv[1]), listener);
  while (!Failed(error)) {
    CZuSocket client;
    error = listener.Accept(client);
    if (Failed(error)) break;
    (void)Echo(client);  // it ends with an error: the client is gone, or silent for too long
    client.Close();
  }
  std::fprintf(stderr, "%s\n", error.AsString().c_str());
  listener.Close();
  return 1;
}
