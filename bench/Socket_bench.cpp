// Moving bytes over a connected pair, beside the same system calls in loops written by hand. One
// thread holds both ends, so that nobody waits to be scheduled.

#include <sys/select.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <vector>

#include "Compare.h"
#include "ZuNetwork/ZuSocket.h"

namespace {

constexpr int kTimeOut = 5;

class Pair {
 public:
  Pair() {
    if (Failed(CZuSocket::CreateSocketPair(&left, &right))) std::abort();
    for (CZuSocket* const end : {&left, &right}) {
      if (Failed(end->SetToBlocking()) || Failed(end->NagleOff())) std::abort();
      // Room for all that is sent before the other end takes it.
      for (const int buffer : {SO_SNDBUF, SO_RCVBUF}) {
        int size = 1 << 18;
        const auto value = reinterpret_cast<char*>(&size);
        if (Failed(end->SetSockOpt(SOL_SOCKET, buffer, value, sizeof size))) std::abort();
      }
    }
  }
  ~Pair() {
    left.Close();
    right.Close();
  }
  Pair(const Pair&) = delete;
  Pair& operator=(const Pair&) = delete;

  CZuSocket left;
  CZuSocket right;
};

void Move(const CZuSocket& from, const CZuSocket& to, std::vector<char>& data) {
  const int size = static_cast<int>(data.size());
  int count = 0;
  if (Failed(from.Send(data.data(), size, 0, &count))) std::abort();
  if (Failed(to.Recv(data.data(), size, 0, &count))) std::abort();
}

void MoveTimed(const CZuSocket& from, const CZuSocket& to, std::vector<char>& data) {
  const int size = static_cast<int>(data.size());
  int count = 0;
  int timedOut = 0;
  if (Failed(from.SendWithTimeOut(data.data(), size, kTimeOut, &timedOut, 0, &count))) std::abort();
  if (Failed(to.RecvWithTimeout(data.data(), size, kTimeOut, &timedOut, 0, &count))) std::abort();
}

// False once the connection is lost; an interrupted call is one that moved nothing.
bool Add(ssize_t moved, size_t& count) {
  if (moved > 0) count += static_cast<size_t>(moved);
  return moved > 0 || (moved < 0 && errno == EINTR);
}

void SendPlain(int s, const std::vector<char>& data) {
  size_t count = 0;
  while (count < data.size()) {
    if (!Add(send(s, data.data() + count, data.size() - count, MSG_NOSIGNAL), count)) std::abort();
  }
}

void ReceivePlain(int s, std::vector<char>& data) {
  size_t count = 0;
  while (count < data.size()) {
    if (!Add(recv(s, data.data() + count, data.size() - count, 0), count)) std::abort();
  }
}

bool IsPassed(time_t start) { return time(nullptr) - start > kTimeOut; }

bool IsReady(int s, bool toSend, timeval& wait) {
  fd_set set;
  FD_ZERO(&set);
  FD_SET(s, &set);
  return select(s + 1, toSend ? nullptr : &set, toSend ? &set : nullptr, nullptr, &wait) > 0;
}

void SendPlainTimed(int s, const std::vector<char>& data) {
  const time_t start = time(nullptr);
  timeval wait{1, 0};
  size_t count = 0;
  while (count < data.size()) {
    if (IsPassed(start)) std::abort();
    if (!IsReady(s, true, wait)) continue;
    if (!Add(send(s, data.data() + count, data.size() - count, MSG_NOSIGNAL), count)) std::abort();
  }
}

void ReceivePlainTimed(int s, std::vector<char>& data) {
  const time_t start = time(nullptr);
  size_t count = 0;
  while (count < data.size()) {
    if (IsPassed(start)) std::abort();
    timeval wait{1, 0};
    if (!IsReady(s, false, wait)) continue;
    if (!Add(recv(s, data.data() + count, data.size() - count, 0), count)) std::abort();
  }
}

void MovePlain(int from, int to, std::vector<char>& data) {
  SendPlain(from, data);
  ReceivePlain(to, data);
}

void MovePlainTimed(int from, int to, std::vector<char>& data) {
  SendPlainTimed(from, data);
  ReceivePlainTimed(to, data);
}

// There and back again.
void CompareMoves(benchmark::State& state, const char* limit, int batch, size_t size,
                  void (*move)(const CZuSocket&, const CZuSocket&, std::vector<char>&),
                  void (*movePlain)(int, int, std::vector<char>&)) {
  const Pair pair;
  const int left = pair.left.GetDescriptor();
  const int right = pair.right.GetDescriptor();
  std::vector<char> data(size);
  Compare(
      state, limit, batch,
      [&] {
        move(pair.left, pair.right, data);
        move(pair.right, pair.left, data);
      },
      [&] {
        movePlain(left, right, data);
        movePlain(right, left, data);
      });
}

void PingPong64Bytes(benchmark::State& state) {
  CompareMoves(state, "1.02", 50, 64, Move, MovePlain);
}
BENCHMARK(PingPong64Bytes)->Unit(benchmark::kMillisecond)->MinTime(3);

void PingPong64BytesWithTimeOut(benchmark::State& state) {
  CompareMoves(state, "1.03", 50, 64, MoveTimed, MovePlainTimed);
}
BENCHMARK(PingPong64BytesWithTimeOut)->Unit(benchmark::kMillisecond)->MinTime(3);

void Bulk64KiB(benchmark::State& state) {
  CompareMoves(state, "1.02", 20, size_t{1} << 16, Move, MovePlain);
}
BENCHMARK(Bulk64KiB)->Unit(benchmark::kMillisecond)->MinTime(3);

}  // namespace
