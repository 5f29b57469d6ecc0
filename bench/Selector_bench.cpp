// Waiting for one ready socket among many, beside select() on one prepared set, and the ways of
// waiting that do not look at every socket.

#include <Poco/Net/PollSet.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Net/StreamSocketImpl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <asio.hpp>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <vector>

#include "Compare.h"
#include "ZuNetwork/ZuSocketSelector.h"

namespace {

// Idle datagram sockets, but for the last one, which holds a datagram from itself.
class Sockets {
 public:
  explicit Sockets(size_t count) {
    CZuIPAddr loopback;
    if (Failed(loopback.SetAddressString("127.0.0.1"))) std::abort();
    while (sockets.size() < count) {
      CZuSocket socket;
      if (Failed(socket.DgramSocket(loopback))) std::abort();
      sockets.insert(socket);
    }
    CZuSocket last = *sockets.rbegin();
    if (Failed(last.Bind(loopback)) || Failed(last.GetLocalAddress(loopback))) std::abort();
    if (Failed(last.Connect(loopback)) || Failed(last.Send("x", 1, 0, nullptr))) std::abort();
  }
  ~Sockets() {
    for (CZuSocket socket : sockets) socket.Close();
  }
  Sockets(const Sockets&) = delete;
  Sockets& operator=(const Sockets&) = delete;

  ZuSocketSet sockets;
};

// Each of the following has Wait, which gives the number of sockets that are ready.

class Ours {
 public:
  explicit Ours(const Sockets& all) {
    for (const CZuSocket& socket : all.sockets) m_selector.SetReadSocket(socket);
  }

  size_t Wait() {
    const timeval limit{1, 0};
    bool timedOut = false;
    if (Failed(m_selector.Select(&limit, &timedOut)) || timedOut) std::abort();
    return m_selector.GetReadSelected().size();
  }

 private:
  CZuSocketSelector m_selector;
};

// The bits of a set, and the numbers of those that are left.
class Select {
 public:
  explicit Select(const Sockets& all) {
    m_count = all.sockets.rbegin()->GetDescriptor() + 1;
    m_saved.resize(static_cast<size_t>(m_count) / 64 + 1);
    for (const CZuSocket& socket : all.sockets) {
      const auto descriptor = static_cast<size_t>(socket.GetDescriptor());
      m_saved[descriptor / 64] |= std::uint64_t{1} << descriptor % 64;
    }
    m_working = m_saved;
  }

  size_t Wait() {
    std::memcpy(m_working.data(), m_saved.data(), m_saved.size() * sizeof m_saved[0]);
    timeval limit{1, 0};
    if (select(m_count, reinterpret_cast<fd_set*>(m_working.data()), nullptr, nullptr, &limit) <
        1) {
      std::abort();
    }
    m_ready.clear();
    for (size_t i = 0; i < m_working.size(); ++i) {
      for (std::uint64_t word = m_working[i]; word != 0; word &= word - 1) {
        m_ready.push_back(static_cast<int>(64 * i) + __builtin_ctzll(word));
      }
    }
    return m_ready.size();
  }

 private:
  int m_count = 0;
  std::vector<std::uint64_t> m_saved;
  std::vector<std::uint64_t> m_working;
  std::vector<int> m_ready;
};

class Poll {
 public:
  explicit Poll(const Sockets& all) {
    for (const CZuSocket& socket : all.sockets) {
      m_polled.push_back({socket.GetDescriptor(), POLLIN, 0});
    }
  }

  size_t Wait() {
    if (poll(m_polled.data(), m_polled.size(), 1000) < 1) std::abort();
    size_t ready = 0;
    for (const pollfd& polled : m_polled) ready += polled.revents != 0 ? 1 : 0;
    return ready;
  }

 private:
  std::vector<pollfd> m_polled;
};

class Epoll {
 public:
  explicit Epoll(const Sockets& all) {
    for (const CZuSocket& socket : all.sockets) {
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.fd = socket.GetDescriptor();
      if (epoll_ctl(m_epoll, EPOLL_CTL_ADD, event.data.fd, &event) != 0) std::abort();
    }
  }
  ~Epoll() { close(m_epoll); }
  Epoll(const Epoll&) = delete;
  Epoll& operator=(const Epoll&) = delete;

  size_t Wait() {
    epoll_event events[16];
    return static_cast<size_t>(epoll_wait(m_epoll, events, 16, 1000));
  }

 private:
  int m_epoll = epoll_create1(EPOLL_CLOEXEC);
};

class Poco {
 public:
  explicit Poco(const Sockets& all) {
    for (const CZuSocket& socket : all.sockets) {
      m_set.add(
          ::Poco::Net::StreamSocket(new ::Poco::Net::StreamSocketImpl(dup(socket.GetDescriptor()))),
          ::Poco::Net::PollSet::POLL_READ);
    }
  }

  size_t Wait() { return m_set.poll(::Poco::Timespan(1, 0)).size(); }

 private:
  ::Poco::Net::PollSet m_set;
};

// Waits again for the one that was ready, as a program would that served it.
class Asio {
 public:
  explicit Asio(const Sockets& all) {
    for (const CZuSocket& socket : all.sockets) {
      m_sockets.emplace_back(m_context, asio::ip::udp::v4(), dup(socket.GetDescriptor()));
      WaitFor(m_sockets.back());
    }
  }

  size_t Wait() { return m_context.run_one(); }

 private:
  void WaitFor(asio::ip::udp::socket& socket) {
    socket.async_wait(asio::ip::udp::socket::wait_read, [this, &socket](const asio::error_code& e) {
      if (!e) WaitFor(socket);
    });
  }

  asio::io_context m_context{1};
  std::list<asio::ip::udp::socket> m_sockets;
};

template <typename Waiter>
Timed WaitForOne(const char* name, const Sockets& all) {
  return Call(name, [waiter = std::make_shared<Waiter>(all)] {
    if (waiter->Wait() != 1) std::abort();
  });
}

// The program may open this many descriptors for each of the three that need their own.
bool HasRoomFor(rlim_t count) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  return setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= 3 * count + 100;
}

void SelectAndCollect(benchmark::State& state, size_t count, double limit) {
  if (!HasRoomFor(count)) return state.SkipWithError("too few descriptors allowed");
  const Sockets all(count);
  Compare(state, Ratio(limit), WaitForOne<Ours>("Select and GetReadSelected", all),
          WaitForOne<Select>("select on one set", all),
          {WaitForOne<Poll>("poll", all), WaitForOne<Epoll>("epoll", all),
           WaitForOne<Poco>("POCO", all), WaitForOne<Asio>("Asio", all)});
}
ROW_OF(SelectAndCollect, "Selector/OneReadyOf10", 10, 1.12);
ROW_OF(SelectAndCollect, "Selector/OneReadyOf100", 100, 1.03);
ROW_OF(SelectAndCollect, "Selector/OneReadyOf1000", 1000, 1.01);
ROW_OF(SelectAndCollect, "Selector/OneReadyOf4000", 4000, 1.02);

}  // namespace
