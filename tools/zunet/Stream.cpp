#include <limits.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <memory>

#include "Blacklist.h"
#include "Commands.h"
#include "Output.h"
#include "Signals.h"
#include "ZuNetwork/ZuSocketSelector.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr int kBacklog = 5;
constexpr int kLargestPort = 65'535;
constexpr long kMicroseconds = 1'000'000;  // in a second

// What was read and is not written yet. It is filled again when all of it is gone.
class Buffer {
 public:
  bool IsEmpty() const { return m_start == m_end; }
  char* Room() { return m_bytes.data(); }
  int RoomSize() const { return static_cast<int>(m_bytes.size()); }
  void Fill(int count) {
    m_start = 0;
    m_end = count;
  }
  const char* Data() const { return m_bytes.data() + m_start; }
  int Size() const { return m_end - m_start; }
  void Drop(int count) { m_start += count; }

 private:
  std::array<char, 131'072> m_bytes;
  int m_start = 0;
  int m_end = 0;
};

bool WouldBlock(const CZuError& error) { return FXErrorUtil::IsErrNo(error, EAGAIN); }

// A regular file takes anything at once. Of what else is ready to be written to, a pipe is only
// known to take so much without blocking.
int OutputPortion() {
  struct stat status;
  const bool isFile = fstat(STDOUT_FILENO, &status) == 0 && S_ISREG(status.st_mode);
  return isFile ? INT_MAX : PIPE_BUF;
}

// Carries standard input to a connected socket and the socket to standard output, both at a time.
// The end of the input closes the socket for sending; the peer's end is waited for, and as it may
// still listen, so is the end of the input. When the connection fails, what has arrived is printed.
// A signal ends it at once, but for what has arrived and can be printed without waiting.
class Exchange {
 public:
  explicit Exchange(const CZuSocket& socket) : m_socket(socket), m_outputPortion(OutputPortion()) {
    m_input.AttachConnectedSocket(STDIN_FILENO);
    m_output.AttachConnectedSocket(STDOUT_FILENO);
    m_signals.AttachConnectedSocket(SignalDescriptor());
  }

  CZuError Run() {
    CZuError error = m_socket.SetToNonBlocking();
    while (!Failed(error) && !IsOver()) {
      Register();
      error = m_selector.Select(nullptr, nullptr);
      if (NotedSignal() != 0) return PrintRest();
      if (FXErrorUtil::IsErrNo(error, EINTR)) {
        error = CZuError();
      } else if (!Failed(error)) {
        error = Move();
      }
    }
    if (!Failed(error)) error = m_failure;
    if (Failed(error)) error.Push(ZU_HERE);
    return error;
  }

 private:
  bool IsOver() const { return IsSendingOver() && m_hasPeerEnded && m_fromPeer.IsEmpty(); }

  bool IsSendingOver() const {
    return Failed(m_failure) || (m_hasInputEnded && m_toPeer.IsEmpty());
  }

  // Each buffer is either filled or emptied; sides that could do neither are not waited for.
  void Register() {
    m_selector.ClearAll();
    m_selector.SetReadSocket(m_signals);
    if (!IsSendingOver()) {
      if (m_toPeer.IsEmpty()) {
        m_selector.SetReadSocket(m_input);
      } else {
        m_selector.SetWriteSocket(m_socket);
      }
    }
    if (!m_fromPeer.IsEmpty()) {
      m_selector.SetWriteSocket(m_output);
    } else if (!m_hasPeerEnded) {
      m_selector.SetReadSocket(m_socket);
    }
  }

  CZuError Move() {
    const ZuSocketSet readable = m_selector.GetReadSelected();
    const ZuSocketSet writable = m_selector.GetWriteSelected();
    CZuError error;
    if (readable.count(m_input) != 0) error = ReadInput();
    if (writable.count(m_socket) != 0) SendToPeer();
    if (readable.count(m_socket) != 0) ReceiveFromPeer();
    if (!Failed(error) && writable.count(m_output) != 0) error = WriteOutput();
    return error;
  }

  CZuError ReadInput() {
    const ssize_t count =
        read(STDIN_FILENO, m_toPeer.Room(), static_cast<std::size_t>(m_toPeer.RoomSize()));
    if (count < 0) return UnlessAgain(ZU_HERE, "Failed to read standard input");
    m_toPeer.Fill(static_cast<int>(count));
    if (count > 0) return {};
    m_hasInputEnded = true;
    (void)m_socket.Shutdown(SHUT_WR);  // of a connection that is gone the receiver is told
    return {};
  }

  void SendToPeer() {
    int sent = 0;
    CZuError error = m_socket.Send(m_toPeer.Data(), m_toPeer.Size(), 0, &sent);
    m_toPeer.Drop(sent);
    if (!Failed(error) || WouldBlock(error)) return;
    m_failure = error.Push(ZU_HERE, "Failed to send to the peer");
  }

  void ReceiveFromPeer() {
    int received = 0;
    CZuError error = m_socket.Recv(m_fromPeer.Room(), m_fromPeer.RoomSize(), 0, &received);
    m_fromPeer.Fill(received);
    if (!Failed(error) || WouldBlock(error)) return;
    m_hasPeerEnded = true;
    if (FXErrorUtil::IsWin32(error, kErrorInvalidState)) return;  // an orderly end
    m_failure = error.Push(ZU_HERE, "Failed to receive from the peer");
  }

  CZuError WriteOutput() {
    const int portion = std::min(m_fromPeer.Size(), m_outputPortion);
    const ssize_t count =
        write(STDOUT_FILENO, m_fromPeer.Data(), static_cast<std::size_t>(portion));
    if (count < 0) return UnlessAgain(ZU_HERE, "Failed to write standard output");
    m_fromPeer.Drop(static_cast<int>(count));
    return {};
  }

  CZuError PrintRest() {
    CZuError error;
    pollfd output{STDOUT_FILENO, POLLOUT, 0};
    while (!Failed(error) && !m_fromPeer.IsEmpty() && poll(&output, 1, 0) == 1) {
      error = WriteOutput();
    }
    return error;
  }

  static CZuError UnlessAgain(const FXCodeLocation& where, const char* message) {
    if (errno == EAGAIN || errno == EINTR) return {};
    return FXErrorUtil::ErrorErrNo(where, errno, "%s", message);
  }

  CZuSocket m_socket;
  CZuSocket m_input;
  CZuSocket m_output;
  CZuSocket m_signals;
  CZuSocketSelector m_selector;
  Buffer m_toPeer;
  Buffer m_fromPeer;
  int m_outputPortion;
  bool m_hasInputEnded = false;
  bool m_hasPeerEnded = false;
  CZuError m_failure;  // of the connection
};

// ---- Connections ----

CZuError Connect(const std::string& host, int port, CZuSocket& socket) {
  std::vector<CZuIPAddr> addresses;
  CZuError error = CZuIPAddr::GetAllByName(host.c_str(), addresses, CZuIPAddr::FAMILY_ANY);
  if (Failed(error)) return error.Push(ZU_HERE, "Failed to resolve %s", host.c_str());
  error = FXErrorUtil::ErrorErrNo(ZU_HERE, EADDRNOTAVAIL);
  for (CZuIPAddr& address : addresses) {
    error = address.SetPortNumber(port);
    if (!Failed(error)) error = socket.Connect(address);
    if (!Failed(error)) return {};
    socket.Close();
  }
  return error.Push(ZU_HERE, "Failed to connect to %s, port %d", host.c_str(), port);
}

CZuError SetFlag(const CZuSocket& socket, int level, int option, int value) {
  return socket.SetSockOpt(level, option, reinterpret_cast<char*>(&value), sizeof value);
}

CZuError Listen(const char* text, int port, CZuSocket& listener) {
  CZuIPAddr address;
  CZuError error = address.SetAddressString(text);
  if (!Failed(error)) error = address.SetPortNumber(port);
  if (!Failed(error)) error = listener.Socket(address);
  if (!Failed(error)) error = SetFlag(listener, SOL_SOCKET, SO_REUSEADDR, 1);
  if (!Failed(error) && address.m_Addr.addr.f.family == AF_INET6) {
    error = SetFlag(listener, IPPROTO_IPV6, IPV6_V6ONLY, 0);
  }
  if (!Failed(error)) error = listener.Bind(address);
  if (!Failed(error)) error = listener.Listen(kBacklog);
  if (!Failed(error)) error = listener.GetLocalAddress(address);
  if (Failed(error)) {
    listener.Close();
    return error.Push(ZU_HERE, "Failed to listen on port %d", port);
  }
  std::fprintf(stderr, "zunet: listening on port %d\n", address.GetPortNumber());
  return {};
}

// On all addresses, of both families where the system has them.
CZuError ListenEverywhere(int port, CZuSocket& listener) {
  CZuError error = Listen("::", port, listener);
  if (FXErrorUtil::IsErrNo(error, EAFNOSUPPORT)) error = Listen("0.0.0.0", port, listener);
  return error;
}

// A listener for both families sees IPv4 peers as IPv6 addresses.
CZuIPAddr WithoutMapping(const CZuIPAddr& address) {
  const sockaddr_in6& mapped = address.m_Addr.addr.v6;
  if (mapped.sin6_family != AF_INET6 || !IN6_IS_ADDR_V4MAPPED(&mapped.sin6_addr)) return address;
  sockaddr_in plain{};
  plain.sin_family = AF_INET;
  plain.sin_port = mapped.sin6_port;
  plain.sin_addr.s_addr = mapped.sin6_addr.s6_addr32[3];
  return plain;
}

// Waits for a peer that is not blacklisted; the others are turned away. A signal ends the program.
class Door {
 public:
  // 0 seconds are no limit.
  Door(const CZuSocket& listener, CZuIPAddrBlacklist& blacklist, int limitSecs)
      : m_listener(listener),
        m_blacklist(blacklist),
        m_limitSecs(limitSecs),
        m_end(Clock::now() + std::chrono::seconds(limitSecs)) {
    m_signals.AttachConnectedSocket(SignalDescriptor());
    m_selector.SetReadSocket(m_signals);
    m_selector.SetReadSocket(m_listener);
  }

  CZuError Wait(CZuSocket& peer) {
    // A client that leaves before it is accepted must not make the accept wait.
    CZuError error = m_listener.SetToNonBlocking();
    while (!Failed(error)) {
      error = AwaitClient();
      ExitOnSignal();
      if (!Failed(error)) error = m_listener.Accept(peer);
      if (!Failed(error) && IsWelcome(peer.GetAddress())) return {};
      for (const int passing : {EAGAIN, ECONNABORTED, EINTR}) {
        if (FXErrorUtil::IsErrNo(error, passing)) error = CZuError();
      }
      if (!Failed(error)) peer.Close();
    }
    return error.Push(ZU_HERE);
  }

 private:
  CZuError AwaitClient() {
    if (m_limitSecs < 1) return m_selector.Select(nullptr, nullptr);
    const auto left = std::chrono::ceil<std::chrono::microseconds>(m_end - Clock::now()).count();
    const timeval wait{left / kMicroseconds, left % kMicroseconds};
    bool isTimedOut = left <= 0;
    CZuError error;
    if (!isTimedOut) error = m_selector.Select(&wait, &isTimedOut);
    if (Failed(error) || !isTimedOut) return error;
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "nobody%s came within %d s",
                                   m_hasRefused ? " but blacklisted peers" : "", m_limitSecs);
  }

  bool IsWelcome(const CZuIPAddr& mapped) {
    const CZuIPAddr address = WithoutMapping(mapped);
    const bool isWelcome = !m_blacklist.IsAddressBlacklisted(address, nullptr, nullptr);
    CZuString text;
    (void)address.GetAddressString(text);  // without a text the line says less
    std::fprintf(stderr, "zunet: %s %s\n", isWelcome ? "connected with" : "refused blacklisted",
                 text.c_str());
    m_hasRefused = m_hasRefused || !isWelcome;
    return isWelcome;
  }

  CZuSocket m_listener;
  CZuSocket m_signals;
  CZuSocketSelector m_selector;
  CZuIPAddrBlacklist& m_blacklist;
  bool m_hasRefused = false;
  int m_limitSecs;
  Clock::time_point m_end;
};

// ---- Commands ----

struct Arguments {
  std::string host;
  int port = 0;
  int limitSecs = 0;
  std::string blacklist;
  bool isStrict = false;
};

void ExchangeWith(CZuSocket& socket) {
  signal(SIGPIPE, SIG_IGN);  // an output that nobody reads any more is a failed write
  const auto exchange = std::make_unique<Exchange>(socket);
  const CZuError error = exchange->Run();
  socket.Close();
  ExitOnFailure(error);
  ExitOnSignal();
}

void RunConnect(const Arguments& arguments) {
  CZuSocket socket;
  ExitOnFailure(Connect(arguments.host, arguments.port, socket));
  NoteSignals();  // until here one has nothing to tidy and ends the program as usual
  ExchangeWith(socket);
}

void RunListen(const Arguments& arguments) {
  NoteSignals();
  CZuIPAddrBlacklist blacklist;
  if (!arguments.blacklist.empty()) {
    LoadBlacklist(arguments.blacklist, arguments.isStrict, blacklist);
  }
  CZuSocket listener;
  ExitOnFailure(ListenEverywhere(arguments.port, listener));
  CZuSocket peer;
  const CZuError error = Door(listener, blacklist, arguments.limitSecs).Wait(peer);
  listener.Close();  // one peer only
  ExitOnFailure(error);
  ExchangeWith(peer);
}

}  // namespace

void AddStreamCommands(CLI::App& app) {
  const auto arguments = std::make_shared<Arguments>();

  CLI::App* command = app.add_subcommand(
      "listen", "Wait for a TCP peer; send it standard input and print what it sends");
  command->add_option("PORT", arguments->port, "0 for one that is free")
      ->required()
      ->check(WholeNumber(0, kLargestPort, ""));
  command->add_option("--timeout", arguments->limitSecs, "Wait for the peer so many seconds")
      ->check(WholeNumber(1, 1'000'000, " seconds"));
  CLI::Option* const blacklist =
      command->add_option("--blacklist", arguments->blacklist,
                          "Refuse the hosts in this file, one name or address a line");
  command->add_flag("--strict", arguments->isStrict, "Fail when a line of that file lists nobody")
      ->needs(blacklist);
  command->callback([arguments] { RunListen(*arguments); });

  command = app.add_subcommand(
      "connect", "Connect to a TCP peer; send it standard input and print what it sends");
  command->add_option("HOST", arguments->host)->required();
  command->add_option("PORT", arguments->port)->required()->check(WholeNumber(1, kLargestPort, ""));
  command->callback([arguments] { RunConnect(*arguments); });
}
