#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <system_error>
#include <thread>
#include <vector>

#include "ZuNetwork/ZuPing.h"
#include "support/PeerNetwork.h"

// A peer that answers echo requests as a test wants it to.

using Bytes = std::vector<unsigned char>;

inline constexpr std::size_t kIpHeader = 20;

inline kdicmp HeaderOf(const Bytes& message) {
  kdicmp header{};
  std::memcpy(&header, message.data(), sizeof header);
  return header;
}

inline void SetHeader(Bytes& message, const kdicmp& header) {
  std::memcpy(message.data(), &header, sizeof header);
}

// Written apart from the product's: the sum of the words in network order.
inline std::uint16_t Checksum(const Bytes& message) {
  std::uint32_t sum = 0;
  for (std::size_t i = 0; i < message.size(); ++i) {
    sum += static_cast<std::uint32_t>(message[i]) << (i % 2 == 0 ? 8 : 0);
    sum = (sum & 0xFFFF) + (sum >> 16);
  }
  return htons(static_cast<std::uint16_t>(~sum));
}

inline Bytes WithChecksum(Bytes message) {
  kdicmp header = HeaderOf(message);
  header.checksum = 0;
  SetHeader(message, header);
  header.checksum = Checksum(message);
  SetHeader(message, header);
  return message;
}

inline Bytes Reply(const Bytes& request) {
  Bytes reply = request;
  reply[0] = 0;
  return WithChecksum(reply);
}

struct Answer {
  Bytes message;  // empty: none
  const char* from = PeerNetwork::kPeer;
  Bytes ipOptions = {};
  int timeToLive = 64;
};

// Takes every echo request that comes to the peer, whose system answers none any more.
class Responder {
 public:
  // Is given the requests so far, the one to be answered last, as ICMP messages.
  using Answering = std::function<std::vector<Answer>(const std::vector<Bytes>& requests)>;

  Responder(const PeerNetwork& network, Answering answering) : m_answering(std::move(answering)) {
    network.InPeer([this] {
      PeerNetwork::SetSystemValue("ipv4/icmp_echo_ignore_all", "1");
      m_socket = OpenSocket();
      if (pipe(m_end) != 0) throw std::runtime_error("no pipe");
    });
    m_thread = std::thread([this, &network] {
      network.EnterPeer();
      Run();
    });
  }

  ~Responder() {
    Stop();
    for (const int descriptor : {m_socket, m_end[0], m_end[1]}) close(descriptor);
  }
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;

  // What came, with its IP header. Nothing is answered any more.
  const std::vector<Bytes>& Stop() {
    if (m_thread.joinable()) {
      EXPECT_EQ(write(m_end[1], "", 1), 1);
      m_thread.join();
    }
    return m_packets;
  }

 private:
  static int OpenSocket() {
    const int descriptor = socket(AF_INET, SOCK_RAW, IPPROTO_ICMP);
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "raw socket");
    return descriptor;
  }

  void Run() {
    while (true) {
      pollfd waited[] = {{m_socket, POLLIN, 0}, {m_end[0], POLLIN, 0}};
      if (poll(waited, 2, -1) < 1 || waited[1].revents != 0) return;
      Take();
    }
  }

  void Take() {
    Bytes packet(65'536);
    sockaddr_in sender{};
    socklen_t length = sizeof sender;
    const ssize_t size = recvfrom(m_socket, packet.data(), packet.size(), 0,
                                  reinterpret_cast<sockaddr*>(&sender), &length);
    if (size < 0) return;
    packet.resize(static_cast<std::size_t>(size));
    m_packets.push_back(packet);
    m_requests.emplace_back(packet.begin() + kIpHeader, packet.end());
    for (const Answer& answer : m_answering(m_requests)) Send(answer, sender);
  }

  static void Send(const Answer& answer, const sockaddr_in& to) {
    if (answer.message.empty()) return;
    const int descriptor = OpenSocket();
    sockaddr_in from{};
    from.sin_family = AF_INET;
    inet_pton(AF_INET, answer.from, &from.sin_addr);
    EXPECT_EQ(bind(descriptor, reinterpret_cast<sockaddr*>(&from), sizeof from), 0);
    EXPECT_EQ(setsockopt(descriptor, IPPROTO_IP, IP_TTL, &answer.timeToLive, sizeof(int)), 0);
    EXPECT_EQ(setsockopt(descriptor, IPPROTO_IP, IP_OPTIONS, answer.ipOptions.data(),
                         static_cast<socklen_t>(answer.ipOptions.size())),
              0);
    EXPECT_EQ(sendto(descriptor, answer.message.data(), answer.message.size(), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(answer.message.size()));
    close(descriptor);
  }

  Answering m_answering;
  int m_socket = -1;
  int m_end[2] = {-1, -1};
  std::vector<Bytes> m_packets;
  std::vector<Bytes> m_requests;
  std::thread m_thread;
};

inline std::vector<Answer> AnswerWell(const std::vector<Bytes>& requests) {
  return {{Reply(requests.back())}};
}

inline std::vector<Answer> AnswerNothing(const std::vector<Bytes>& /*requests*/) { return {}; }
