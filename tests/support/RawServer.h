#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// One connection of a RawServer, as its script sees it. Every wait ends when the client goes away,
// the server is to stop or twenty seconds pass; a read then returns what arrived.
class Peer {
 public:
  Peer(int descriptor, int stopDescriptor) : m_socket(descriptor), m_stop(stopDescriptor) {}

  std::string ReadUntil(const std::string& end);  // `end` is included
  std::string Read(size_t size);
  void ReadHttpRequest();               // the header, and a body as long as its Content-Length says
  bool Send(const std::string& bytes);  // false when not all of it went out
  void WaitForClose();                  // says nothing until the client closes
  void Reset();                         // the connection will end with a reset rather than in order

  const std::string& Received() const { return m_received; }  // all of it

 private:
  bool Wait(short events);
  bool Receive();

  int m_socket;
  int m_stop;
  std::string m_received;
  size_t m_used = 0;  // bytes of it that reads have returned
};

// A server of this process that follows a script, however wrong: one script for each connection in
// turn, the last one for all that follow.
class RawServer {
 public:
  using Script = std::function<void(Peer&)>;

  explicit RawServer(std::vector<Script> scripts);
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  // Reads an HTTP request, sends the bytes and closes.
  static Script Answer(const std::string& bytes);

  int Port() const { return m_port; }

  // What each connection has received, as soon as that many have ended; throws after twenty
  // seconds. A client keeps its connection until the server or the request object ends it.
  std::vector<std::string> Received(size_t connections);

 private:
  void Serve();

  std::vector<Script> m_scripts;
  int m_listener = -1;
  int m_stop = -1;
  int m_port = 0;
  std::mutex m_mutex;
  std::condition_variable m_hasEnded;
  std::vector<std::string> m_received;
  std::thread m_thread;
};
