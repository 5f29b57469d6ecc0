// Asks for a password and shuns who guesses three times: guarded_server PORT PASSWORD [BLACKLIST]
// The file names hosts to be shunned from the start, one a line.
#include <ZuNetwork/ZuIPAddrBlacklist.h>
#include <ZuNetwork/ZuSocket.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int kSecondsToAnswer = 10;

// [guarded_server]
struct Guard {
  CZuIPAddrBlacklist banned;    // once and for all
  CZuIPAddrBlacklist guessers;  // after three attempts, of which a minute forgives one

  Guard() {
    guessers.SetGraceAttempts(3);
    guessers.SetExpirationTime(60);
  }

  bool IsShunned(const CZuIPAddr& address) {
    return banned.IsAddressBlacklisted(address, nullptr, nullptr) ||
           guessers.IsAddressBlacklisted(address, nullptr, nullptr);
  }
};

void Say(const CZuSocket& client, const std::string& text) {
  int timedOut = 0;
  (void)client.SendWithTimeOut(text.data(), static_cast<int>(text.size()), kSecondsToAnswer,
                               &timedOut, 0, nullptr);  // who does not listen is gone anyway
}

// A line, byte by byte: the client may send anything behind it, or nothing more.
CZuError ReadLine(const CZuSocket& client, std::string& line) {
  constexpr std::size_t kLongestLine = 100;
  while (line.size() < kLongestLine) {
    char character = 0;
    int timedOut = 0;
    CZuError error = client.RecvWithTimeout(&character, 1, kSecondsToAnswer, &timedOut, 0, nullptr);
    if (Failed(error)) return error.Push(ZU_HERE, "The client gave no password");
    if (character == '\n') break;
    line += character;
  }
  return {};
}

void Serve(const CZuSocket& client, const std::string& password, Guard& guard) {
  const CZuIPAddr& address = client.GetAddress();
  if (guard.IsShunned(address)) {
    std::printf("refused %s\n", client.GetPeerAddressString().c_str());
    return;
  }
  Say(client, "password: ");
  std::string line;
  const CZuError error = ReadLine(client, line);
  if (!Failed(error) && line == password) {
    Say(client, "welcome\n");
    return;
  }
  (void)guard.guessers.AddAddressToBlacklist(address, "wrong password");  // does not fail
  Say(client, "wrong\n");
}

CZuError Run(int port, const std::string& password, Guard& guard) {
  CZuSocket listener;
  CZuIPAddr address;
  CZuError error = address.SetAddressString("127.0.0.1");
  if (!Failed(error)) error = address.SetPortNumber(port);
  if (!Failed(error)) error = listener.Bind(address);
  if (!Failed(error)) error = listener.Listen(5);
  if (!Failed(error)) error = listener.GetLocalAddress(address);
  if (!Failed(error)) std::printf("listening on port %d\n", address.GetPortNumber());
  while (!Failed(error)) {
    std::fflush(stdout);
    CZuSocket client;
    error = listener.Accept(client);
    if (Failed(error)) break;
    Serve(client, password, guard);
    client.Close();
  }
  listener.Close();
  return error.Push(ZU_HERE);
}
// [guarded_server]

// [blacklist]
CZuError Load(CZuIPAddrBlacklist& blacklist, const char* path) {
  std::vector<CZuIPAddrBlacklistSkippedLine> skipped;
  CZuError error = blacklist.LoadBlacklistFromFile(path, skipped);
  if (Failed(error)) error.Push(ZU_HERE);
  for (const CZuIPAddrBlacklistSkippedLine& line : skipped) {
    std::fprintf(stderr, "line %lu lists nobody\n", line.m_number);
  }
  return error;
}
// [blacklist]

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fputs("usage: guarded_server PORT PASSWORD [BLACKLIST]\n", stderr);
    return 2;
  }
  Guard guard;
  CZuError error;
  if (argc == 4) error = Load(guard.banned, argv[3]);
  if (!Failed(error)) error = Run(std::atoi(argv[1]), argv[2], guard);
  std::fprintf(stderr, "%s\n", error.AsString().c_str());
  return 1;
}
