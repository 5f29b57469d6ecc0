// Echo requests over the loopback interface, beside the same messages by hand. A raw socket there
// receives each request before its reply, so that half of what a series receives is its own; what
// other programs receive it sees too.

#include <Poco/Net/ICMPClient.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <utility>

#include "Compare.h"
#include "ZuNetwork/ZuPing.h"

// Takes out the pauses between the requests.
extern "C" __attribute__((visibility("default"))) int clock_nanosleep(clockid_t, int,
                                                                      const timespec*, timespec*) {
  return 0;
}

namespace {

constexpr int kRounds = 100;  // less than the receive buffer holds of what is left over
constexpr size_t kDataSize = 56;
constexpr size_t kMessageSize = kDataSize + sizeof(icmphdr);

void PingSeries() {
  CZuPing ping;
  ZuPingResult result;
  if (Failed(ping.ping("127.0.0.1", kDataSize, kRounds, 0, nullptr, nullptr, result, false))) {
    std::abort();
  }
  if (result.buffersSent != kRounds) std::abort();
}

std::uint16_t Checksum(const unsigned char* data, size_t length) {
  std::uint64_t sum = 0;
  for (; length > 1; length -= 2, data += 2) {
    std::uint16_t word;
    std::memcpy(&word, data, sizeof word);
    sum += word;
  }
  sum = (sum >> 16) + (sum & 0xFFFF);
  sum += sum >> 16;
  return static_cast<std::uint16_t>(~sum);
}

void SendPlain(int s, sockaddr_in& peer, std::uint16_t id, int sequence) {
  unsigned char message[kMessageSize];
  std::memset(message, 0xA5, sizeof message);
  icmphdr header{};
  header.type = ICMP_ECHO;
  header.un.echo.id = id;
  header.un.echo.sequence = static_cast<std::uint16_t>(sequence);
  std::memcpy(message, &header, sizeof header);
  header.checksum = Checksum(message, sizeof message);
  std::memcpy(message, &header, sizeof header);
  if (sendto(s, message, sizeof message, MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&peer),
             sizeof peer) != static_cast<ssize_t>(sizeof message)) {
    std::abort();
  }
}

// Whether it was a good reply to this process.
bool ReceivePlain(int s, sockaddr_in& peer, std::uint16_t id) {
  unsigned char packet[kDataSize + 1032];
  socklen_t length = sizeof peer;
  const ssize_t received =
      recvfrom(s, packet, sizeof packet, 0, reinterpret_cast<sockaddr*>(&peer), &length);
  if (received < 0) std::abort();
  const size_t start = (packet[0] & 15u) * 4;
  unsigned char* const message = packet + start;
  icmphdr header;
  std::memcpy(&header, message, sizeof header);
  if (header.type != ICMP_ECHOREPLY || header.un.echo.id != id) return false;
  if (start + kMessageSize > static_cast<size_t>(received)) return false;
  const std::uint16_t expected = std::exchange(header.checksum, std::uint16_t{0});
  std::memcpy(message, &header, sizeof header);
  return Checksum(message, kMessageSize) == expected;
}

void PingSeriesPlain() {
  const int s = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
  const int timeToLive = 128;
  if (s == -1 || setsockopt(s, IPPROTO_IP, IP_TTL, &timeToLive, sizeof timeToLive) != 0) {
    std::abort();
  }
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const auto id = static_cast<std::uint16_t>(getpid());
  long milliseconds = 0;
  for (int i = 0; i < kRounds; ++i) {
    timespec start;
    timespec end;
    clock_gettime(CLOCK_REALTIME, &start);
    SendPlain(s, peer, id, i);
    benchmark::DoNotOptimize(ReceivePlain(s, peer, id));
    clock_gettime(CLOCK_REALTIME, &end);
    milliseconds += (end.tv_sec - start.tv_sec) * 1000 + (end.tv_nsec - start.tv_nsec) / 1'000'000;
  }
  benchmark::DoNotOptimize(milliseconds);
  close(s);
}

void HundredEchoRequests(benchmark::State& state) {
  const int s = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
  if (s == -1) return state.SkipWithError("no privilege to open a raw socket");
  close(s);
  Compare(state, Ratio(1.10), Call("ping with 100 requests", PingSeries),
          Call("sendto and recvfrom by hand", PingSeriesPlain), {Call("POCO", [] {
            if (Poco::Net::ICMPClient::pingIPv4("127.0.0.1", kRounds, kDataSize) != kRounds) {
              std::abort();
            }
          })});
}
ROW(HundredEchoRequests, "Ping/HundredEchoRequests");

}  // namespace
