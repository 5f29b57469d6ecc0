// Passes every line of a client on to all others: chat_server PORT (0 for any)
#include <ZuNetwork/ZuSocketSelector.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>

namespace {

constexpr std::size_t kLongestLine = 4096;

// [chat_server]
class ChatServer {
 public:
  CZuError Open(int port) {
    CZuIPAddr address;
    CZuError error = address.SetAddressString("127.0.0.1");
    if (!Failed(error)) error = address.SetPortNumber(port);
    if (!Failed(error)) error = m_listener.Bind(address);
    if (!Failed(error)) error = m_listener.Listen(16);
    if (!Failed(error)) error = m_listener.SetToNonBlocking();
    if (!Failed(error)) error = m_listener.GetLocalAddress(address);
    if (Failed(error)) return error.Push(ZU_HERE, "No chat on port %d", port);
    m_selector.SetReadSocket(m_listener);
    std::printf("listening on port %d\n", address.GetPortNumber());
    std::fflush(stdout);
    return {};
  }

  // Ends with the first failure that is not a client's.
  CZuError Run() {
    while (true) {
      CZuError error = m_selector.Select(nullptr, nullptr);
      if (FXErrorUtil::IsErrNo(error, EINTR)) continue;
      if (Failed(error)) return error.Push(ZU_HERE);
      for (const CZuSocket& ready : m_selector.GetReadSelected()) {
        if (ready == m_listener) {
          Welcome();
        } else if (m_lines.count(ready) != 0) {  // it may have been dropped meanwhile
          Hear(ready);
        }
      }
    }
  }

 private:
  void Welcome() {
    CZuSocket client;
    CZuError error = m_listener.Accept(client);
    if (Failed(error)) return;  // it left again
    error = client.SetToNonBlocking();
    if (Failed(error)) {
      client.Close();
      return;
    }
    m_lines[client];
    m_selector.SetReadSocket(client);
    Tell(client, NameOf(client) + " has come\n");
  }

  void Hear(const CZuSocket& client) {
    char buffer[1024];
    int count = 0;
    const CZuError error = client.Recv(buffer, sizeof buffer, 0, &count);
    std::string line = std::move(m_lines[client]);
    line.append(buffer, static_cast<std::size_t>(count));
    for (std::size_t end; (end = line.find('\n')) != std::string::npos; line.erase(0, end + 1)) {
      Tell(client, NameOf(client) + ": " + line.substr(0, end + 1));
    }
    const bool isOpen = !Failed(error) || FXErrorUtil::IsErrNo(error, EAGAIN);
    if (!isOpen || line.size() > kLongestLine) {
      Drop(client);
    } else if (const auto entry = m_lines.find(client); entry != m_lines.end()) {
      entry->second = std::move(line);  // unless what was told made it leave
    }
  }

  // To all but one. Who does not take it at once is dropped: nobody waits for the slowest.
  void Tell(const CZuSocket& from, const std::string& text) {
    ZuSocketSet slow;
    for (const auto& [client, line] : m_lines) {
      if (client == from) continue;
      const int size = static_cast<int>(text.size());
      if (Failed(client.Send(text.data(), size, 0, nullptr))) slow.insert(client);
    }
    for (const CZuSocket& client : slow) Drop(client);
  }

  void Drop(const CZuSocket& client) {
    CZuSocket socket = client;
    if (m_lines.erase(socket) == 0) return;  // while the others were told of somebody else
    m_selector.ClearReadSocket(socket);
    Tell(socket, NameOf(socket) + " has left\n");
    socket.Close();
  }

  static std::string NameOf(const CZuSocket& client) {
    return "guest " + std::to_string(client.GetAddress().GetPortNumber());
  }

  CZuSocket m_listener;
  CZuSocketSelector m_selector;
  std::map<CZuSocket, std::string> m_lines;  // of each client, what has come of the next
};
// [chat_server]

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: chat_server PORT\n", stderr);
    return 2;
  }
  ChatServer server;
  CZuError error = server.Open(std::atoi(argv[1]));
  if (!Failed(error)) error = server.Run();
  std::fprintf(stderr, "%s\n", error.AsString().c_str());
  return 1;
}
