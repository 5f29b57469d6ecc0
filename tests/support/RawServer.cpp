#include "support/RawServer.h"

#include <arpa/inet.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace {

constexpr int kWaitMilliseconds = 20000;

size_t ContentLength(const std::string& header) {
  constexpr char kName[] = "\r\nContent-Length:";
  constexpr size_t kLength = sizeof kName - 1;
  for (size_t line = header.find("\r\n"); line != std::string::npos;
       line = header.find("\r\n", line + 1)) {
    if (strncasecmp(header.c_str() + line, kName, kLength) == 0) {
      return strtoul(header.c_str() + line + kLength, nullptr, 10);
    }
  }
  return 0;
}

}  // namespace

bool Peer::Wait(short events) {
  pollfd waited[] = {{m_socket, events, 0}, {m_stop, POLLIN, 0}};
  return poll(waited, 2, kWaitMilliseconds) > 0 && waited[1].revents == 0;
}

bool Peer::Receive() {
  if (!Wait(POLLIN)) return false;
  char buffer[65536];
  const ssize_t size = recv(m_socket, buffer, sizeof buffer, 0);
  if (size > 0) m_received.append(buffer, static_cast<size_t>(size));
  return size > 0;
}

std::string Peer::ReadUntil(const std::string& end) {
  size_t position = std::string::npos;
  while ((position = m_received.find(end, m_used)) == std::string::npos && Receive()) {
  }
  return Read(position == std::string::npos ? m_received.size() - m_used
                                            : position + end.size() - m_used);
}

std::string Peer::Read(size_t size) {
  while (m_received.size() - m_used < size && Receive()) {
  }
  std::string bytes = m_received.substr(m_used, size);
  m_used += bytes.size();
  return bytes;
}

void Peer::ReadHttpRequest() { Read(ContentLength(ReadUntil("\r\n\r\n"))); }

bool Peer::Send(const std::string& bytes) {
  size_t sent = 0;
  while (sent < bytes.size() && Wait(POLLOUT)) {
    const ssize_t size =
        send(m_socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (size > 0) sent += static_cast<size_t>(size);
    if (size < 0 && errno != EAGAIN) break;
  }
  return sent == bytes.size();
}

void Peer::WaitForClose() {
  while (Receive()) {
  }
}

void Peer::Reset() {
  const linger now{1, 0};
  setsockopt(m_socket, SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

RawServer::RawServer(std::vector<Script> scripts) : m_scripts(std::move(scripts)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  m_stop = eventfd(0, EFD_CLOEXEC);
  if (bind(m_listener, generic, size) != 0 || listen(m_listener, SOMAXCONN) != 0 ||
      getsockname(m_listener, generic, &size) != 0 || m_stop < 0) {
    throw std::system_error(errno, std::generic_category(), "RawServer");
  }
  m_port = ntohs(address.sin_port);
  m_thread = std::thread([this] { Serve(); });
}

RawServer::~RawServer() {
  const std::uint64_t one = 1;
  (void)!write(m_stop, &one, sizeof one);
  m_thread.join();
  close(m_listener);
  close(m_stop);
}

void RawServer::Serve() {
  for (size_t connection = 0;; ++connection) {
    pollfd waited[] = {{m_listener, POLLIN, 0}, {m_stop, POLLIN, 0}};
    if (poll(waited, 2, -1) < 0 || waited[1].revents != 0) return;
    const int descriptor = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0) continue;
    Peer peer(descriptor, m_stop);
    m_scripts.at(std::min(connection, m_scripts.size() - 1))(peer);
    {
      const std::lock_guard<std::mutex> lock(m_mutex);
      m_received.push_back(peer.Received());
    }
    m_hasEnded.notify_all();
    close(descriptor);
  }
}

RawServer::Script RawServer::Answer(const std::string& bytes) {
  return [bytes](Peer& peer) {
    peer.ReadHttpRequest();
    peer.Send(bytes);
  };
}

std::vector<std::string> RawServer::Received(size_t connections) {
  std::unique_lock<std::mutex> lock(m_mutex);
  if (!m_hasEnded.wait_for(lock, std::chrono::milliseconds(kWaitMilliseconds),
                           [&] { return m_received.size() >= connections; })) {
    throw std::runtime_error("RawServer: too few connections");
  }
  return m_received;
}
