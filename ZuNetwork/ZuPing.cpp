#include "ZuNetwork/ZuPing.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <new>

#include "ZuUtils/FXProcess.h"
#include "ZuUtils/ZuSleep.h"

static_assert(sizeof(kdicmp) == 8);
static_assert(sizeof(kdIPhdr) == 20);

namespace {

constexpr std::uint8_t kEchoRequest = 8;
constexpr std::uint8_t kEchoReply = 0;
constexpr int kTimeToLive = 128;
constexpr int kMillisecondsBetweenRequests = 1000;

// Room for the message's own header, and in replies for an IP header and what else a gateway adds.
constexpr std::uint32_t kSendOverhead = sizeof(kdicmp);
constexpr std::uint32_t kReceiveOverhead = 1032;

constexpr unsigned char kFill = 0xA5;

constexpr char kNoBuffers[] = "Ping buffers are not prepared";

// Milliseconds since 1970, none for no time. Whole seconds and the rest are scaled apart, the rest
// to tenths of a microsecond.
double Milliseconds(CTimeStamp time) {
  constexpr std::int64_t kUnixEpochTicks = 116'444'736'000'000'000;
  constexpr std::int64_t kTicksPerSecond = 10'000'000;
  const std::int64_t ticks = time.GetTicks();
  if (ticks == 0) return 0.0;
  const std::int64_t seconds = (ticks - kUnixEpochTicks) / kTicksPerSecond;
  const auto rest = static_cast<double>(ticks % kTicksPerSecond);
  return static_cast<double>(seconds) * 1000.0 + rest * 100.0 / 1'000'000.0;
}

// A time that ends before it starts wraps around.
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
    return FXErrorUtil::ErrorKDResult(ZU_HERE, ZUPING_RESULT_UNSUPPORTED,
                                      "IPV6 is not supported currently");
  }
  if (bufferSize == 0) {
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
    if (Failed(error)) return error;
    const bool isLast = result.buffersSent == m_bufferCount;
    if (callback != nullptr && !callback->OnPingResponse(callbackInstance, response, isLast)) break;
  }
  return {};
}

// Fills the response; what neither this reply nor its loss sets stays as the one before left it.
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
  // Not before both are there: filling takes memory that allocating alone does not.
  if (isNew) std::memset(m_pPingSendBuffer.get(), kFill, m_sendPacketSize);
  m_processId = static_cast<std::uint16_t>(FXProcess().getProcessId());
  WriteHeader({kEchoRequest, 0, 0, m_processId, 0});
  return {};
}

CZuError CZuPing::unprepareBuffer() {
  m_pPingSendBuffer.reset();
  m_pPingRecvBuffer.reset();
  return {};
}

void CZuPing::WriteHeader(const kdicmp& header) {
  std::memcpy(m_pPingSendBuffer.get(), &header, sizeof header);
}

CZuError CZuPing::sendPingRequest(unsigned sequence, bool& timedOut, CTimeStamp& sendTime) {
  if (!m_pPingSendBuffer) {
    return FXErrorUtil::ErrorKDResult(ZU_HERE, ZUPING_RESULT_FAILURE, kNoBuffers);
  }
  kdicmp header{kEchoRequest, 0, 0, m_processId, static_cast<std::uint16_t>(sequence)};
  WriteHeader(header);
  header.checksum = InternetChecksum(m_pPingSendBuffer.get(), m_sendPacketSize);
  WriteHeader(header);
  int isTimedOut = 0;
  int sent = 0;
  sendTime = CTimeStamp::Now();
  CZuError error = m_sockPing.SendtoICMPSocket(m_pPingSendBuffer.get(), AsInt(m_sendPacketSize),
                                               AsInt(m_timeout), &isTimedOut, 0, &sent);
  timedOut = isTimedOut == 1;
  if (timedOut) return {};  // a lost request, not a failure
  if (Failed(error)) error.Push(ZU_HERE, "Sending ping request failed");
  return error;
}

CZuError CZuPing::recvAndProcessPingResponse(ZuPingResponse& response, ZuPingResult& result,
                                             CTimeStamp& recvTime) {
  if (!m_pPingRecvBuffer) {
    return FXErrorUtil::ErrorKDResult(ZU_HERE, ZUPING_RESULT_FAILURE, kNoBuffers);
  }
  std::memset(m_pPingRecvBuffer.get(), 0, m_recvPacketSize);  // a short reply has no old content
  int timedOut = 0;
  int received = 0;
  CZuError error = m_sockPing.RecvfromICMPSocket(m_pPingRecvBuffer.get(), AsInt(m_recvPacketSize),
                                                 AsInt(m_timeout), &timedOut, 0, &received);
  recvTime = CTimeStamp::Now();
  if (timedOut == 1) {
    response.currentPingState = ZUPING_STATE_TIMEOUT;
    ++result.buffersTimeout;
    return {};
  }
  if (Failed(error)) return error.Push(ZU_HERE, "Failed to receive ping request");
  response.currentPingState = Classify(static_cast<std::size_t>(received));
  switch (response.currentPingState) {
    case ZUPING_STATE_ANONYMOUS:
      ++result.buffersAnonymousReply;
      break;
    case ZUPING_STATE_DATALOSS:
      ++result.buffersDataloss;
      break;
    case ZUPING_STATE_BADCHECKSUM:
      ++result.buffersChecksumfailed;
      break;
    default:
      ++result.buffersReceived;
      response.sizeSent = m_bufferSize;
      response.ttl = m_pPingRecvBuffer[offsetof(kdIPhdr, ttl)];
      break;
  }
  return {};
}

// Judges the reply in the receive buffer, whose checksum field it clears.
KD_PING_STATE CZuPing::Classify(std::size_t received) {
  const std::size_t start = (m_pPingRecvBuffer[offsetof(kdIPhdr, vihl)] & std::size_t{15}) * 4;
  unsigned char* const message = m_pPingRecvBuffer.get() + start;
  kdicmp header;
  std::memcpy(&header, message, sizeof header);
  if (header.type != kEchoReply || header.id != m_processId) return ZUPING_STATE_ANONYMOUS;
  if (start + m_sendPacketSize > received) return ZUPING_STATE_DATALOSS;
  const std::uint16_t expected = header.checksum;
  header.checksum = 0;
  std::memcpy(message, &header, sizeof header);
  return InternetChecksum(message, m_sendPacketSize) == expected ? ZUPING_STATE_SUCCESS
                                                                 : ZUPING_STATE_BADCHECKSUM;
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
