// Waiting for one ready socket among many, beside select() on three prepared sets.

#include <sys/resource.h>
#include <sys/select.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

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

// A set as select() takes it, with room for all descriptors below `kRoom`.
constexpr int kRoom = 8192;
struct Bits {
  std::uint64_t words[kRoom / 64] = {};

  void Set(int descriptor) { words[descriptor / 64] |= std::uint64_t{1} << descriptor % 64; }
  bool Has(int descriptor) const { return (words[descriptor / 64] >> descriptor % 64 & 1) != 0; }
};

class PlainSelector {
 public:
  explicit PlainSelector(const ZuSocketSet& sockets) : m_sockets(sockets) {
    for (const CZuSocket& socket : sockets) m_savedRead.Set(socket.GetDescriptor());
    m_count = sockets.rbegin()->GetDescriptor() + 1;
    m_size = (static_cast<size_t>(m_count) + 63) / 64 * sizeof(std::uint64_t);
  }

  bool Select() {
    std::memcpy(&m_read, &m_savedRead, m_size);
    std::memcpy(&m_write, &m_savedWrite, m_size);
    std::memcpy(&m_exception, &m_savedException, m_size);
    timeval limit{1, 0};
    const auto set = [](Bits& bits) { return reinterpret_cast<fd_set*>(&bits); };
    return select(m_count, set(m_read), set(m_write), set(m_exception), &limit) > 0;
  }

  ZuSocketSet Selected() const {
    ZuSocketSet selected;
    for (const CZuSocket& socket : m_sockets) {
      if (m_read.Has(socket.GetDescriptor())) selected.insert(selected.end(), socket);
    }
    return selected;
  }

 private:
  const ZuSocketSet& m_sockets;
  int m_count = 0;
  size_t m_size = 0;
  Bits m_read, m_write, m_exception;
  Bits m_savedRead, m_savedWrite, m_savedException;
};

// The program may open this many descriptors and a few more.
bool HasRoomFor(rlim_t count) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  return setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= count + 100;
}

void SelectAndCollect(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  if (!HasRoomFor(count)) return state.SkipWithError("too few descriptors allowed");
  const Sockets all(count);
  CZuSocketSelector selector;
  for (const CZuSocket& socket : all.sockets) selector.SetReadSocket(socket);
  PlainSelector plain(all.sockets);
  Compare(
      state, "1.10", static_cast<int>(std::max<size_t>(1, 1000 / count)),
      [&] {
        const timeval limit{1, 0};
        bool timedOut = false;
        if (Failed(selector.Select(&limit, &timedOut)) || timedOut) std::abort();
        if (selector.GetReadSelected().size() != 1) std::abort();
      },
      [&] {
        if (!plain.Select()) std::abort();
        if (plain.Selected().size() != 1) std::abort();
      });
}
BENCHMARK(SelectAndCollect)->Arg(10)->Arg(100)->Arg(1000)->Arg(4000)->MinTime(2);

}  // namespace
