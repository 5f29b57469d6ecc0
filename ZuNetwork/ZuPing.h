#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "ZuNetwork/ZuNetworkExport.h"
#include "ZuNetwork/ZuSocket.h"
#include "ZuUtils/TimeStamp.h"
#include "ZuUtils/ZuError.h"
#include "ZuUtils/ZuString.h"

// The echo message of RFC 792, without its data; id and sequence number in host byte order.
struct kdicmp {
  std::uint8_t type;
  std::uint8_t code;
  std::uint16_t checksum;
  std::uint16_t id;
  std::uint16_t seq;
};

// The header of RFC 791 that stands before every message received, as it comes.
struct kdIPhdr {
  std::uint8_t vihl;  // version, and the header's length in 32-bit words in the low half
  std::uint8_t tos;
  std::int16_t totlen;
  std::int16_t id;
  std::int16_t flagoff;
  std::uint8_t ttl;
  std::uint8_t protocol;
  std::uint16_t checksum;
  std::uint32_t iacrc;  // source address
  std::uint32_t iacst;  // destination address
};

// What became of one request.
enum KD_PING_STATE : int {
  ZUPING_STATE_SUCCESS = 0,
  ZUPING_STATE_TIMEOUT = 1,      // not sent or not answered in time
  ZUPING_STATE_DATALOSS = 2,     // the reply is shorter than the request
  ZUPING_STATE_BADCHECKSUM = 3,  // the reply was changed on its way
  ZUPING_STATE_ANONYMOUS = 4,    // no reply, or one to somebody else
  ZUPING_STATE_ICMPERROR = 5,    // a router or the host says why it does not arrive (own replies)
};

// The codes that ErrorKDResult is given here.
enum ZUPING_RESULT : int {
  ZUPING_RESULT_SUCCESS = 0,
  ZUPING_RESULT_FAILURE = 1,
  ZUPING_RESULT_UNSUPPORTED = 2,
  ZUPING_RESULT_INVALID_PARAMETER = 3,
  ZUPING_RESULT_SERVER_NOT_FOUND = 4,
  ZUPING_RESULT_MEMORY_ALLOCATION_FAILED = 5,
};

// One request and its reply. `sizeSent` (bytes of data) and `ttl` are those of the last successful
// reply. The time is in milliseconds; of a request that was not sent in time it means nothing.
struct ZuPingResponse {
  std::string serverName;
  std::string serverIP;
  std::uint32_t totalBufferCount = 0;           // requests of the series
  std::uint32_t currentPingSequenceNumber = 0;  // from 1
  std::uint32_t sizeSent = 0;
  std::uint32_t ttl = 0;
  KD_PING_STATE currentPingState = ZUPING_STATE_SUCCESS;
  std::uint64_t currentPingtimeMS = 0;

  // Of ZUPING_STATE_ICMPERROR: who says so and what, by RFC 792. Empty and 0 for every other state.
  std::string errorSender;
  std::uint32_t errorType = 0;
  std::uint32_t errorCode = 0;
};

// The sums of a series.
struct ZuPingResult {
  std::string serverName;
  std::string serverIP;
  std::uint32_t buffersSent = 0;
  std::uint32_t buffersReceived = 0;
  std::uint32_t buffersChecksumfailed = 0;
  std::uint32_t buffersDataloss = 0;
  std::uint32_t buffersTimeout = 0;
  std::uint32_t buffersAnonymousReply = 0;
  std::uint64_t totalTimeMS = 0;
  std::uint32_t buffersIcmpError = 0;
};

// Told of every request, on the thread that pings.
class ZUNETWORK_API CZuPingCallback {
 public:
  // `lastPacket` marks the last request of the series. False ends the series with success.
  virtual bool OnPingResponse(void* callbackInstance, const ZuPingResponse& response,
                              bool lastPacket) = 0;
  virtual void OnPingLog(const char* message) = 0;
  virtual ~CZuPingCallback();
};

// Sends ICMP echo requests to a server over IPv4 and waits for the replies. It needs the privilege
// to open a raw socket (CAP_NET_RAW); without it every series fails with EPERM.
//
// A series leaves its socket open and its buffers allocated: call closePingSocket() before the next
// one on the same object, else it fails with "Socket already in use", and unprepareBuffer() when
// that one is to be of another size. Used by one thread at a time.
class ZUNETWORK_API CZuPing {
 public:
  CZuPing();
  ~CZuPing();
  CZuPing(const CZuPing&) = delete;
  CZuPing& operator=(const CZuPing&) = delete;

  // Sends `bufferCount` requests with `bufferSize` bytes of data, one second after the other, and
  // waits up to `timeout` seconds for each reply (0: without limit). `server` is a name or a
  // numeric address. Replies that are late, short, damaged or foreign are counted, not failures.
  // The counters of `result` go on from where they stand. `callback` may be null.
  //   ErrorKDResult 2  "IPV6 is not supported currently"
  //   ErrorKDResult 3  "Invalid buffer size (%u)", "Invalid buffer count (%u)"
  //   ErrorKDResult 5  no memory for the packets, or a size beyond 32 bits
  //   else             what the resolver or the socket says
  CZuError ping(const char* server, unsigned bufferSize, unsigned bufferCount, unsigned timeout,
                void* callbackInstance, CZuPingCallback* callback, ZuPingResult& result, bool ipv6);

  // Off, everything that comes in during the wait is taken for the answer, and its sender gets the
  // next request: once a router has said that a host is unreachable, the router is pinged. On:
  // - every request goes to the server;
  // - a reply counts that comes from the server with the request's id, sequence number and data;
  //   late and doubled ones and those to other programs are passed over, and the wait goes on for
  //   what is left of its time, which is `timeout` seconds of the monotonic clock;
  // - an ICMP error that quotes the request ends the wait with ZUPING_STATE_ICMPERROR;
  // - ErrorKDResult 3 "Invalid buffer size (%u)" for more than the 65,507 bytes that fit a packet,
  //   ErrorKDResult 2 "IPV6 is not supported currently" for a server that is an IPv6 address.
  // To be set before the series; off at first.
  void setOwnRepliesOnly(bool ownRepliesOnly);

  // What an ICMP error means, such as "Destination host unreachable"; "ICMP error" for numbers that
  // RFC 792, 1122 and 1812 do not name.
  static const char* describeIcmpError(unsigned type, unsigned code);

  // The steps of a series, for a program that has its own. Requests and replies need both the
  // socket and the buffers, whose size is that of the last series: without buffers they are
  // ErrorKDResult 1 "Ping buffers are not prepared". Unless setOwnRepliesOnly is on, the next
  // request goes to the sender of the last packet that was received, whoever that is.
  CZuError preparePingSocket(const char* server, unsigned timeout, bool ipv6);
  CZuError prepareBuffer();
  CZuError unprepareBuffer();
  CZuError sendPingRequest(unsigned sequence, bool& timedOut, CTimeStamp& sendTime);
  CZuError recvAndProcessPingResponse(ZuPingResponse& response, ZuPingResult& result,
                                      CTimeStamp& recvTime);
  CZuError closePingSocket();

  // The Internet checksum (RFC 1071) of `length` bytes.
  unsigned short checksum(unsigned short* data, int length);

  // Hands a line to the callback, cut at 4095 characters.
  void log(const char* format, ...) __attribute__((format(printf, 2, 3)));

 protected:
  using Bytes = std::unique_ptr<unsigned char[]>;

  CZuSocket m_sockPing;
  bool m_bSocketInitialized = false;
  Bytes m_pPingSendBuffer;
  Bytes m_pPingRecvBuffer;
  std::uint16_t m_processId = 0;
  std::uint32_t m_bufferSize = 0;
  std::uint32_t m_sendPacketSize = 0;
  std::uint32_t m_recvPacketSize = 0;
  std::uint32_t m_bufferCount = 0;
  std::uint32_t m_timeout = 0;  // seconds
  void* m_callbackInstance = nullptr;
  CZuPingCallback* m_pZuPingCallback = nullptr;
  bool m_bIPV6 = false;
  CZuString m_serverName;
  CZuString m_serverIP;

 private:
  ZUNETWORK_LOCAL CZuError SendOne(const FXCodeLocation& where, ZuPingResponse& response,
                                   ZuPingResult& result);
  ZUNETWORK_LOCAL CZuError ReceiveAny(const FXCodeLocation& where, KD_PING_STATE& state,
                                      CTimeStamp& recvTime);
  ZUNETWORK_LOCAL CZuError ReceiveOwn(const FXCodeLocation& where, ZuPingResponse& response,
                                      CTimeStamp& recvTime);

  bool m_ownRepliesOnly = false;
  CZuIPAddr m_target;            // the server, also after packets of others
  std::uint16_t m_sequence = 0;  // of the last request
};
