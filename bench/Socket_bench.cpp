// Moving bytes over a connected pair, beside the same system calls in loops written by hand. One
// thread holds both ends, so that nobody waits to be scheduled.

#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio.hpp>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "Compare.h"
#include "Pair.h"

namespace {

constexpr int kTimeOut = 5;

// Each of the following has Send and Receive of a whole buffer over one end of a pair.

class Ours {
 public:
  explicit Ours(const CZuSocket& end) : m_socket(end) {}

  void Send(const char* data, size_t size) {
    if (Failed(m_socket.Send(data, static_cast<int>(size), 0, nullptr))) std::abort();
  }
  void Receive(char* data, size_t size) {
    if (Failed(m_socket.Recv(data, static_cast<int>(size), 0, nullptr))) std::abort();
  }

 private:
  CZuSocket m_socket;
};

class OursTimed {
 public:
  explicit OursTimed(const CZuSocket& end) : m_socket(end) {}

  void Send(const char* data, size_t size) {
    int timedOut = 0;
    if (Failed(m_socket.SendWithTimeOut(data, static_cast<int>(size), kTimeOut, &timedOut, 0,
                                        nullptr))) {
      std::abort();
    }
  }
  void Receive(char* data, size_t size) {
    int timedOut = 0;
    if (Failed(m_socket.RecvWithTimeout(data, static_cast<int>(size), kTimeOut, &timedOut, 0,
                                        nullptr))) {
      std::abort();
    }
  }

 private:
  CZuSocket m_socket;
};

// False once the connection is lost; an interrupted call is one that moved nothing.
bool Add(ssize_t moved, size_t& count) {
  if (moved > 0) count += static_cast<size_t>(moved);
  return moved > 0 || (moved < 0 && errno == EINTR);
}

class Plain {
 public:
  explicit Plain(const CZuSocket& end) : m_socket(end.GetDescriptor()) {}

  void Send(const char* data, size_t size) {
    for (size_t count = 0; count < size;) {
      if (!Add(send(m_socket, data + count, size - count, MSG_NOSIGNAL), count)) std::abort();
    }
  }
  void Receive(char* data, size_t size) {
    for (size_t count = 0; count < size;) {
      if (!Add(recv(m_socket, data + count, size - count, 0), count)) std::abort();
    }
  }

 private:
  int m_socket;
};

// The steps of a timed call: the clock, a set with room for 8,192 descriptors, a wait, one call.
class PlainTimed {
 public:
  explicit PlainTimed(const CZuSocket& end) : m_socket(end.GetDescriptor()) {}

  void Send(const char* data, size_t size) {
    const time_t start = time(nullptr);
    timeval wait{1, 0};
    for (size_t count = 0; count < size;) {
      if (time(nullptr) - start > kTimeOut) std::abort();
      if (!IsReady(true, wait)) continue;
      if (!Add(send(m_socket, data + count, size - count, MSG_NOSIGNAL), count)) std::abort();
    }
  }
  void Receive(char* data, size_t size) {
    const time_t start = time(nullptr);
    for (size_t count = 0; count < size;) {
      if (time(nullptr) - start > kTimeOut) std::abort();
      timeval wait{1, 0};
      if (!IsReady(false, wait)) continue;
      if (!Add(recv(m_socket, data + count, size - count, 0), count)) std::abort();
    }
  }

 private:
  bool IsReady(bool toSend, timeval& wait) const {
    fd_set sets[8192 / FD_SETSIZE] = {};
    FD_SET(m_socket, &sets[0]);
    return select(m_socket + 1, toSend ? nullptr : sets, toSend ? sets : nullptr, nullptr, &wait) >
           0;
  }

  int m_socket;
};

// The system's own time-out of a receiving call.
class SystemTimed : public Plain {
 public:
  explicit SystemTimed(const CZuSocket& end) : Plain(end) {
    const timeval limit{kTimeOut, 0};
    if (setsockopt(end.GetDescriptor(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
      std::abort();
    }
  }
};

class Poco {
 public:
  explicit Poco(const CZuSocket& end)
      : m_socket(new ::Poco::Net::StreamSocketImpl(dup(end.GetDescriptor()))) {}

  void Send(const char* data, size_t size) {
    if (m_socket.sendBytes(data, static_cast<int>(size)) != static_cast<int>(size)) std::abort();
  }
  void Receive(char* data, size_t size) {
    for (size_t count = 0; count < size;) {
      const int length = m_socket.receiveBytes(data + count, static_cast<int>(size - count));
      if (length <= 0) std::abort();
      count += static_cast<size_t>(length);
    }
  }

 protected:
  ::Poco::Net::StreamSocket m_socket;
};

class PocoTimed : public Poco {
 public:
  explicit PocoTimed(const CZuSocket& end) : Poco(end) {
    m_socket.setReceiveTimeout(::Poco::Timespan(kTimeOut, 0));
  }
};

class Asio {
 public:
  explicit Asio(const CZuSocket& end)
      : m_socket(m_context, asio::ip::tcp::v4(), dup(end.GetDescriptor())) {}

  void Send(const char* data, size_t size) { asio::write(m_socket, asio::buffer(data, size)); }
  void Receive(char* data, size_t size) { asio::read(m_socket, asio::buffer(data, size)); }

 protected:
  asio::io_context m_context{1};
  asio::ip::tcp::socket m_socket;
};

class AsioTimed : public Asio {
 public:
  using Asio::Asio;

  void Receive(char* data, size_t size) {
    bool isDone = false;
    asio::async_read(m_socket, asio::buffer(data, size),
                     [&isDone](const asio::error_code& error, size_t) { isDone = !error; });
    m_context.restart();
    m_context.run_for(std::chrono::seconds(kTimeOut));
    if (!isDone) std::abort();
  }
};

// Each with a pair of its own: some change what the system knows of theirs.
template <typename End>
Timed ThereAndBack(const char* name, size_t size) {
  struct Ends {
    Pair pair;
    End left{pair.left};
    End right{pair.right};
  };
  return Call(name, [ends = std::make_shared<Ends>(), data = std::vector<char>(size)]() mutable {
    ends->left.Send(data.data(), data.size());
    ends->right.Receive(data.data(), data.size());
    ends->right.Send(data.data(), data.size());
    ends->left.Receive(data.data(), data.size());
  });
}

// What is received was sent in one piece before.
template <typename End>
Timed ReceiveParts(const char* name, size_t count, size_t size) {
  struct Ends {
    Pair pair;
    Plain left{pair.left};
    End right{pair.right};
  };
  return Call(name, [ends = std::make_shared<Ends>(), data = std::vector<char>(count * size),
                     size]() mutable {
    ends->left.Send(data.data(), data.size());
    for (size_t at = 0; at < data.size(); at += size) {
      ends->right.Receive(data.data() + at, size);
    }
  });
}

void ThereAndBackOf(benchmark::State& state, size_t size) {
  Compare(state, Ratio(1.02), ThereAndBack<Ours>("Send and Recv", size),
          ThereAndBack<Plain>("send and recv", size),
          {ThereAndBack<Poco>("POCO", size), ThereAndBack<Asio>("Asio", size)});
}
ROW_OF(ThereAndBackOf, "Sockets/ThereAndBack64Bytes", size_t{64});
ROW_OF(ThereAndBackOf, "Sockets/ThereAndBack64KiB", size_t{1} << 16);

void ThereAndBackWithTimeOut(benchmark::State& state) {
  Compare(state, Ratio(1.03), ThereAndBack<OursTimed>("SendWithTimeOut and RecvWithTimeout", 64),
          ThereAndBack<PlainTimed>("their steps by hand", 64));
}
ROW(ThereAndBackWithTimeOut, "Sockets/ThereAndBack64BytesTimed");

void ReceiveWithTimeOut(benchmark::State& state) {
  constexpr size_t kCount = 512;
  constexpr size_t kSize = 64;
  Compare(state, Ratio(1.02), ReceiveParts<OursTimed>("512 times RecvWithTimeout", kCount, kSize),
          ReceiveParts<PlainTimed>("its steps by hand", kCount, kSize),
          {ReceiveParts<SystemTimed>("SO_RCVTIMEO", kCount, kSize),
           ReceiveParts<PocoTimed>("POCO", kCount, kSize),
           ReceiveParts<AsioTimed>("Asio", kCount, kSize)});
}
ROW(ReceiveWithTimeOut, "Sockets/Receive64BytesTimed");

}  // namespace
