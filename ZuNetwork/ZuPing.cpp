#include "ZuNetwork/ZuPing.h"

#include <netinet/in.h>
#include <netinet/ip_icmp.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <new>
#include <utility>

#include "ZuNetwork/internal/SocketAddress.h"
#include "ZuUtils/FXProcess.h"
#include "ZuUtils/ZuSleep.h"

static_assert(sizeof(kdicmp) == 8);
static_assert(sizeof(kdIPhdr) == 20);

namespace {

constexpr std::uint8_t kEchoRequest = ICMP_ECHO;
constexpr std::uint8_t kEchoReply = ICMP_ECHOREPLY;
constexpr int kTimeToLive = 128;
constexpr int kMillisecondsBetweenRequests = 1000;

// Room for the message's own header, and in replies for an IP header and what else a gateway adds.
constexpr std::uint32_t kSendOverhead = sizeof(kdicmp);
constexpr std::uint32_t kReceiveOverhead = 1032;

constexpr std::size_t kShortestIpHeader = sizeof(kdIPhdr);
constexpr unsigned kLargestPayload = 65'535 - kShortestIpHeader - sizeof(kdicmp);

constexpr unsigned char kFill = 0xA5;

constexpr char kNoBuffers[] = "Ping buffers are not prepared";
constexpr char kNoIpV6[] = "IPV6 is not supported currently";

// Milliseconds since 1970; 0 for a stamp that was never set.
double Milliseconds(CTimeStamp time) {
  const std::int64_t ticks = time.GetTicks();
  if (ticks == 0) return 0.0;
  const std::int64_t seconds = (ticks - CTimeStamp::kUnixEpochTicks) / CTimeStamp::kTicksPerSecond;
  const auto rest = static_cast<double>(ticks % CTimeStamp::kTicksPerSecond);
  return static_cast<double>(seconds) * 1000.0 + rest * 100.0 / 1'000'000.0;
}

// Where `end` comes before `start` (a request that was not sent in time has none at all), the
// negative difference becomes a number near 2^64, as the callback has always been told it.
std::uint64_t Elapsed(CTimeStamp start, CTimeStamp end) {
  return static_cast<std::uint64_t>(
      static_cast<std::int64_t>(Milliseconds(end) - Milliseconds(start)));
}

// Null when memory is short or the size is beyond what a packet's length can be.
std::unique_ptr<unsigned char[]> AllocatePacket(std::uint64_t size) {
  if (size > std::numeric_limits<std::uint32_t>::max()) return nullptr;
  return std::unique_ptr<unsigned char[]>(new (std::nothrow) unsigned char[size]);
}

// What the socket takes as a length or a time.
int AsInt(std::uint32_t value) {
  return static_cast<int>(std::min<std::uint32_t>(value, std::numeric_limits<int>::max()));
}

std::uint16_t InternetChecksum(const unsigned char* data, std::size_t length) {
  std::uint64_t sum = 0;
  for (; length > 1; length -= 2, data += 2) {
    std::uint16_t word;
    std::memcpy(&word, data, sizeof word);
    sum += word;
  }
  if (length == 1) sum += *data;
  sum = (sum >> 16) + (sum & 0xFFFF);
  sum += sum >> 16;
  return static_cast<std::uint16_t>(~sum);
}

void WriteHeader(unsigned char* message, const kdicmp& header) {
  std::memcpy(message, &header, sizeof header);
}

kdicmp ReadHeader(const unsigned char* message) {
  kdicmp header;
  std::memcpy(&header, message, sizeof header);
  return header;
}

std::size_t IpHeaderLength(const unsigned char* packet) {
  return (packet[offsetof(kdIPhdr, vihl)] & std::size_t{15}) * 4;
}

// Judges an echo reply with `expected` bytes, whose checksum field it clears.
KD_PING_STATE JudgeReply(unsigned char* message, std::size_t length, std::size_t expected) {
  if (expected > length) return ZUPING_STATE_DATALOSS;
  kdicmp header = ReadHeader(message);
  const std::uint16_t checksum = std::exchange(header.checksum, std::uint16_t{0});
  WriteHeader(message, header);
  return InternetChecksum(message, expected) == checksum ? ZUPING_STATE_SUCCESS
                                                         : ZUPING_STATE_BADCHECKSUM;
}

// ---- Own replies ----

// The time that a wait may take, however often it is interrupted. 0 seconds: without limit.
class Wait {
 public:
  explicit Wait(std::uint32_t seconds)
      : m_isLimited(seconds != 0), m_end(Clock::now() + std::chrono::seconds(seconds)) {}

  // Returns 0 when the descriptor can be read, ETIMEDOUT, or an errno value.
  int UntilReadable(int descriptor) const {
    pollfd waited{descriptor, POLLIN, 0};
    int left = m_isLimited ? MillisecondsLeft() : -1;
    while (left != 0) {
      const int ready = poll(&waited, 1, left);
      if (ready > 0) return 0;
      if (ready < 0 && errno != EINTR) return errno;
      if (m_isLimited) left = MillisecondsLeft();
    }
    return ETIMEDOUT;
  }

 private:
  using Clock = std::chrono::steady_clock;

  int MillisecondsLeft() const {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(m_end - Clock::now()).count();
    return static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
  }

  bool m_isLimited;
  Clock::time_point m_end;
};

// A packet as it was received: an IP header and an ICMP message behind it.
struct Packet {
  unsigned char* message = nullptr;
  std::size_t length = 0;  // of the message
  kdicmp header{};
};

// False for what is no ICMP message, or none with a whole header.
bool Dissect(unsigned char* bytes, std::size_t length, Packet& packet) {
  if (length < kShortestIpHeader || bytes[offsetof(kdIPhdr, protocol)] != IPPROTO_ICMP) {
    return false;
  }
  const std::size_t start = IpHeaderLength(bytes);
  if (start < kShortestIpHeader || start + sizeof(kdicmp) > length) return false;
  packet = {bytes + start, length - start, ReadHeader(bytes + start)};
  return true;
}

// The request on its way: what a reply, or the quotation of an error, must repeat.
struct Request {
  const unsigned char* message;
  std::size_t length;
  const CZuIPAddr& target;
};

bool HasSameNumbers(const kdicmp& left, const kdicmp& right) {
  return left.id == right.id && left.seq == right.seq;
}

// Judges the packet if it is the reply to the request. The data of one that is whole is compared as
// well: another ping of this process has the same id.
bool IsReplyTo(const Request& request, const Packet& packet, const CZuIPAddr& sender,
               KD_PING_STATE& state) {
  if (packet.header.type != kEchoReply || !(sender == request.target)) return false;
  if (!HasSameNumbers(packet.header, ReadHeader(request.message))) return false;
  const KD_PING_STATE judged = JudgeReply(packet.message, packet.length, request.length);
  if (judged == ZUPING_STATE_SUCCESS &&
      std::memcmp(packet.message + sizeof(kdicmp), request.message + sizeof(kdicmp),
                  request.length - sizeof(kdicmp)) != 0) {
    return false;
  }
  state = judged;
  return true;
}

bool IsErrorAbout(const Request& request, const Packet& packet) {
  switch (packet.header.type) {
    case ICMP_DEST_UNREACH:
    case ICMP_TIME_EXCEEDED:
    case ICMP_PARAMETERPROB:
      break;
    default:
      return false;  // a redirect or a source quench: the request may well arrive
  }
  Packet quoted;
  unsigned char* const quotation = packet.message + sizeof(kdicmp);
  if (!Dissect(quotation, packet.length - sizeof(kdicmp), quoted)) return false;
  in_addr destination;
  std::memcpy(&destination, quotation + offsetof(kdIPhdr, iacst), sizeof destination);
  return quoted.header.type == kEchoRequest &&
         HasSameNumbers(quoted.header, ReadHeader(request.message)) &&
         destination.s_addr == request.target.m_Addr.addr.v4.sin_addr.s_addr;
}

// Whether the packet ends the wait for the request; what it says is put into the response.
bool IsAnswer(const Request& request, const Packet& packet, const CZuIPAddr& sender,
              ZuPingResponse& response) {
  if (IsReplyTo(request, packet, sender, response.currentPingState)) return true;
  if (!IsErrorAbout(request, packet)) return false;
  response.currentPingState = ZUPING_STATE_ICMPERROR;
  response.errorSender = ZuInternal::AddressText(sender.m_Addr);
  response.errorType = packet.header.type;
  response.errorCode = packet.header.code;
  return true;
}

// Makes the data of one series differ from that of every other one.
void MakeUnique(unsigned char* data, std::size_t size, const void* owner) {
  const std::int64_t now = std::chrono::steady_clock::now().time_since_epoch().count();
  const auto unique = static_cast<std::uint64_t>(now) ^
                      (std::uint64_t{reinterpret_cast<std::uintptr_t>(owner)} << 16);
  std::memcpy(data, &unique, std::min(size, sizeof unique));
}

// Keeps out of the socket's queue what no own reply can be, above all the requests that a raw
// socket hears on the loopback interface: a large one leaves no room for its reply. The judgement
// does without, so a refusal is no failure.
void FilterTypes(CZuSocket& socket) {
  constexpr std::uint32_t kWanted = 1u << kEchoReply | 1u << ICMP_DEST_UNREACH |
                                    1u << ICMP_TIME_EXCEEDED | 1u << ICMP_PARAMETERPROB;
  constexpr int kIcmpFilter = 1;  // ICMP_FILTER of <linux/icmp.h>, which takes what is kept out
  std::uint32_t filter = ~kWanted;
  (void)socket.SetSockOpt(SOL_RAW, kIcmpFilter, reinterpret_cast<char*>(&filter), sizeof filter);
}

}  // namespace

CZuPingCallback::~CZuPingCallback() = default;

CZuPing::CZuPing() = default;

CZuPing::~CZuPing() {
  (void)closePingSocket();  // neither fails
  (void)unprepareBuffer();
}

CZuError CZuPing::ping(const char* server, unsigned bufferSize, unsigned bufferCount,
                       unsigned timeout, void* callbackInstance, CZuPingCallback* callback,
                       ZuPingResult& result, bool ipv6) {
  if (ipv6) {
    return FXErrorUtil::ErrorKDResult(ZU_HERE, ZUPING_RESULT_UNSUPPORTED, kNoIpV6);
  }
  if (bufferSize == 0 || (m_ownRepliesOnly && bufferSize > kLargestPayload)) {
    return FXErrorUtil::ErrorKDResult(ZU_HERE, ZUPING_RESULT_INVALID_PARAMETER,
                                      "Invalid buffer size (%u)", bufferSize);
  }
  if (bufferCount == 0) {
    return FXErrorUtil::ErrorKDResult(ZU_HERE, ZUPING_RESULT_INVALID_PARAMETER,
                                      "Invalid buffer count (%u)", bufferCount);
  }
  m_bufferSize = bufferSize;
  m_bufferCount = bufferCount;
  m_timeout = timeout;
  m_callbackInstance = callbackInstance;
  m_pZuPingCallback = callback;
  m_bIPV6 = false;
  CZuError error = preparePingSocket(server, timeout, false);
  if (Failed(error)) {
    return error.Push(ZU_HERE, "prepare socket failed [%s]", server == nullptr ? "" : server);
  }
  error = prepareBuffer();
  if (Failed(error)) return error.Push(ZU_HERE, "prepare buffer failed");
  result.serverIP = m_serverIP.c_str();
  result.serverName = m_serverName.c_str();
  ZuPingResponse response;
  for (std::uint32_t request = 0; request < m_bufferCount; ++request) {
    ZUSLEEP(kMillisecondsBetweenRequests);
    error = SendOne(ZU_HERE, response, result);
    if (Failed(error)) return error.Push(ZU_HERE, "[%s]", server);
    const bool isLast = result.buffersSent == m_bufferCount;
    if (callback != nullptr && !callback->OnPingResponse(callbackInstance, response, isLast)) break;
  }
  return {};
}

// Fills the response. The size and time to live of the last success stay in it where this request
// has none.
CZuError CZuPing::SendOne(const FXCodeLocation& where, ZuPingResponse& response,
                          ZuPingResult& result) {
  CTimeStamp sendTime;
  CTimeStamp recvTime;
  bool timedOut = false;
  CZuError error = sendPingRequest(result.buffersSent, timedOut, sendTime);
  if (Failed(error)) return error.Push(where, "Sending ping request failed");
  ++result.buffersSent;
  if (timedOut) {
    response.currentPingState = ZUPING_STATE_TIMEOUT;
    ++result.buffersTimeout;
  } else {
    error = recvAndProcessPingResponse(response, result, recvTime);
    if (Failed(error)) return error.Push(where, "Receiving ping reply failed");
  }
  response.currentPingtimeMS = Elapsed(sendTime, recvTime);
  result.totalTimeMS += response.currentPingtimeMS;
  response.serverIP = m_serverIP.c_str();
  response.serverName = m_serverName.c_str();
  response.currentPingSequenceNumber = result.buffersSent;
  response.totalBufferCount = m_bufferCount;
  return {};
}

CZuError CZuPing::preparePingSocket(const char* server, unsigned timeout, bool ipv6) {
  if (server == nullptr) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidArgument, "Null parameter passed");
  }
  const auto family = ipv6 ? CZuIPAddr::FAMILY_IPV6 : CZuIPAddr::FAMILY_IPV4;
  CZuIPAddr address;
  CZuError error = address.SetAddressString(server);
  if (Failed(error)) error = CZuIPAddr::GetByName(server, address, family);
  if (Failed(error)) return error.Push(ZU_HERE, "Get by name [%s] failed", server);
  if (m_ownRepliesOnly && address.m_Addr.addr.f.family != CZuIPAddr::FAMILY_IPV4) {
    return FXErrorUtil::ErrorKDResult(ZU_HERE, ZUPING_RESULT_UNSUPPORTED, kNoIpV6);
  }
  error = address.GetAddressString(m_serverIP);
  if (Failed(error)) return error.Push(ZU_HERE, "Get IP-address string failed. [%s]", server);
  log("ZuPing: [server - %s] [IP - %s]", server, m_serverIP.c_str());
  error = m_sockPing.ICMPSocket(address, family);
  if (Failed(error)) return error.Push(ZU_HERE, "ICMP-Socket creation [%s] failed.", server);
  m_bSocketInitialized = true;
  if (timeout != 0) {
    error = m_sockPing.SetToNonBlocking();
    if (Failed(error)) return error.Push(ZU_HERE, "Setting non blocking mode failed [%s]", server);
  }
  std::int32_t timeToLive = kTimeToLive;
  error = m_sockPing.SetSockOpt(IPPROTO_IP, IP_TTL, reinterpret_cast<char*>(&timeToLive),
                                sizeof timeToLive);
  if (Failed(error)) return error.Push(ZU_HERE, "Setting socket-TTL failed. [%s]", server);
  if (m_ownRepliesOnly) FilterTypes(m_sockPing);
  m_target = address;
  m_serverName = server;
  return {};
}

CZuError CZuPing::closePingSocket() {
  m_sockPing.Close();
  m_bSocketInitialized = false;
  return {};
}

CZuError CZuPing::prepareBuffer() {
  const bool isNew = !m_pPingSendBuffer;
  if (isNew) {
    m_sendPacketSize = m_bufferSize + kSendOverhead;
    m_pPingSendBuffer = AllocatePacket(std::uint64_t{m_bufferSize} + kSendOverhead);
    if (!m_pPingSendBuffer) {
      return FXErrorUtil::ErrorKDResult(ZU_HERE, ZUPING_RESULT_MEMORY_ALLOCATION_FAILED,
                                        "Ping send-buffer allocation failed");
    }
  }
  if (!m_pPingRecvBuffer) {
    m_recvPacketSize = m_bufferSize + kReceiveOverhead;
    m_pPingRecvBuffer = AllocatePacket(std::uint64_t{m_bufferSize} + kReceiveOverhead);
    if (!m_pPingRecvBuffer) {
      m_pPingSendBuffer.reset();
      return FXErrorUtil::ErrorKDResult(ZU_HERE, ZUPING_RESULT_MEMORY_ALLOCATION_FAILED,
                                        "Ping recv-buffer allocation failed");
    }
  }
  // Only once both are there: the system hands out memory when it is written, and a huge size is
  // to fail without that.
  if (isNew) std::memset(m_pPingSendBuffer.get(), kFill, m_sendPacketSize);
  if (m_ownRepliesOnly) {
    MakeUnique(m_pPingSendBuffer.get() + kSendOverhead, m_sendPacketSize - kSendOverhead, this);
  }
  m_processId = static_cast<std::uint16_t>(FXProcess().getProcessId());
  WriteHeader(m_pPingSendBuffer.get(), {kEchoRequest, 0, 0, m_processId, 0});
  return {};
}

CZuError CZuPing::unprepareBuffer() {
  m_pPingSendBuffer.reset();
  m_pPingRecvBuffer.reset();
  return {};
}

void CZuPing::setOwnRepliesOnly(bool ownRepliesOnly) { m_ownRepliesOnly = ownRepliesOnly; }

CZuError CZuPing::sendPingRequest(unsigned sequence, bool& timedOut, CTimeStamp& sendTime) {
  if (!m_pPingSendBuffer) {
    return FXErrorUtil::ErrorKDResult(ZU_HERE, ZUPING_RESULT_FAILURE, kNoBuffers);
  }
  kdicmp header{kEchoRequest, 0, 0, m_processId, static_cast<std::uint16_t>(sequence)};
  WriteHeader(m_pPingSendBuffer.get(), header);
  header.checksum = InternetChecksum(m_pPingSendBuffer.get(), m_sendPacketSize);
  WriteHeader(m_pPingSendBuffer.get(), header);
  m_sequence = header.seq;
  if (m_ownRepliesOnly) m_sockPing.AttachConnectedSocket(m_sockPing.GetDescriptor(), m_target);
  int isTimedOut = 0;
  int sent = 0;
  sendTime = CTimeStamp::Now();
  CZuError error = m_sockPing.SendtoICMPSocket(m_pPingSendBuffer.get(), AsInt(m_sendPacketSize),
                                               AsInt(m_timeout), &isTimedOut, 0, &sent);
  timedOut = isTimedOut == 1;
  if (timedOut) return {};  // a lost request, not a failure
  if (Failed(error)) return error.Push(ZU_HERE, "Sending ping request failed");
  return {};
}

CZuError CZuPing::recvAndProcessPingResponse(ZuPingResponse& response, ZuPingResult& result,
                                             CTimeStamp& recvTime) {
  if (!m_pPingRecvBuffer) {
    return FXErrorUtil::ErrorKDResult(ZU_HERE, ZUPING_RESULT_FAILURE, kNoBuffers);
  }
  response.errorSender.clear();
  response.errorType = 0;
  response.errorCode = 0;
  CZuError error = m_ownRepliesOnly ? ReceiveOwn(ZU_HERE, response, recvTime)
                                    : ReceiveAny(ZU_HERE, response.currentPingState, recvTime);
  if (Failed(error)) return error;
  switch (response.currentPingState) {
    case ZUPING_STATE_TIMEOUT:
      ++result.buffersTimeout;
      break;
    case ZUPING_STATE_ANONYMOUS:
      ++result.buffersAnonymousReply;
      break;
    case ZUPING_STATE_DATALOSS:
      ++result.buffersDataloss;
      break;
    case ZUPING_STATE_BADCHECKSUM:
      ++result.buffersChecksumfailed;
      break;
    case ZUPING_STATE_ICMPERROR:
      ++result.buffersIcmpError;
      break;
    default:
      ++result.buffersReceived;
      response.sizeSent = m_bufferSize;
      response.ttl = m_pPingRecvBuffer[offsetof(kdIPhdr, ttl)];
      break;
  }
  return {};
}

// Takes the next packet for the answer. Neither sender nor sequence number are compared.
CZuError CZuPing::ReceiveAny(const FXCodeLocation& where, KD_PING_STATE& state,
                             CTimeStamp& recvTime) {
  unsigned char* const packet = m_pPingRecvBuffer.get();
  std::memset(packet, 0, m_recvPacketSize);  // a short reply has no old content
  int timedOut = 0;
  int received = 0;
  CZuError error = m_sockPing.RecvfromICMPSocket(packet, AsInt(m_recvPacketSize), AsInt(m_timeout),
                                                 &timedOut, 0, &received);
  recvTime = CTimeStamp::Now();
  if (timedOut == 1) {
    state = ZUPING_STATE_TIMEOUT;
    return {};
  }
  if (Failed(error)) return error.Push(where, "Failed to receive ping request");
  const std::size_t start = IpHeaderLength(packet);
  const auto size = static_cast<std::size_t>(received);
  const kdicmp header = ReadHeader(packet + start);
  const bool isReply = header.type == kEchoReply && header.id == m_processId;
  state = isReply ? JudgeReply(packet + start, size > start ? size - start : 0, m_sendPacketSize)
                  : ZUPING_STATE_ANONYMOUS;
  return {};
}

// Waits for the reply to the last request, or for an error about it, whatever else comes in.
CZuError CZuPing::ReceiveOwn(const FXCodeLocation& where, ZuPingResponse& response,
                             CTimeStamp& recvTime) {
  const Request request{m_pPingSendBuffer.get(), m_sendPacketSize, m_target};
  const Wait wait(m_timeout);
  for (;;) {
    int timedOut = 0;
    int received = 0;
    CZuError error = m_sockPing.RecvfromICMPSocket(m_pPingRecvBuffer.get(), AsInt(m_recvPacketSize),
                                                   0, &timedOut, MSG_DONTWAIT, &received);
    recvTime = CTimeStamp::Now();
    if (!Failed(error)) {
      Packet packet;
      if (Dissect(m_pPingRecvBuffer.get(), static_cast<std::size_t>(received), packet) &&
          IsAnswer(request, packet, m_sockPing.GetAddress(), response)) {
        return {};
      }
    } else if (!FXErrorUtil::IsErrNo(error, EAGAIN) && !FXErrorUtil::IsErrNo(error, EINTR)) {
      return error.Push(where, "Failed to receive ping request");
    }
    const int err = wait.UntilReadable(m_sockPing.GetDescriptor());
    if (err == ETIMEDOUT) {
      recvTime = CTimeStamp::Now();
      response.currentPingState = ZUPING_STATE_TIMEOUT;
      return {};
    }
    if (err != 0) {
      return FXErrorUtil::ErrorErrNo(where, err).Push(where, "Failed to receive ping request");
    }
  }
}

const char* CZuPing::describeIcmpError(unsigned type, unsigned code) {
  static constexpr const char* kUnreachable[] = {
      "Destination network unreachable",
      "Destination host unreachable",
      "Destination protocol unreachable",
      "Destination port unreachable",
      "Fragmentation needed",
      "Source route failed",
      "Destination network unknown",
      "Destination host unknown",
      "Source host isolated",
      "Destination network prohibited",
      "Destination host prohibited",
      "Destination network unreachable for this type of service",
      "Destination host unreachable for this type of service",
      "Communication prohibited by a filter",
      "Host precedence violation",
      "Precedence cut off",
  };
  if (type == ICMP_DEST_UNREACH && code < std::size(kUnreachable)) return kUnreachable[code];
  if (type == ICMP_TIME_EXCEEDED && code == ICMP_EXC_TTL) return "Time to live exceeded";
  if (type == ICMP_TIME_EXCEEDED && code == ICMP_EXC_FRAGTIME) {
    return "Time for reassembly exceeded";
  }
  return type == ICMP_PARAMETERPROB ? "Parameter problem" : "ICMP error";
}

unsigned short CZuPing::checksum(unsigned short* data, int length) {
  return InternetChecksum(reinterpret_cast<const unsigned char*>(data),
                          static_cast<std::size_t>(std::max(length, 0)));
}

void CZuPing::log(const char* format, ...) {
  if (m_pZuPingCallback == nullptr) return;
  char message[4096];
  va_list args;
  va_start(args, format);
  std::vsnprintf(message, sizeof message, format, args);
  va_end(args);
  m_pZuPingCallback->OnPingLog(message);
}
