#pragma once

#include <string>
#include <vector>

#include "ZuNetwork/ZuPing.h"
#include "support/Expect.h"

// What ping tests look at: the members of a series, and all that a callback is told.

class PingProbe : public CZuPing {
 public:
  using CZuPing::m_bSocketInitialized;
  using CZuPing::m_bufferSize;
  using CZuPing::m_pPingRecvBuffer;
  using CZuPing::m_pPingSendBuffer;
  using CZuPing::m_processId;
  using CZuPing::m_pZuPingCallback;
  using CZuPing::m_recvPacketSize;
  using CZuPing::m_sendPacketSize;
  using CZuPing::m_serverIP;
  using CZuPing::m_serverName;
  using CZuPing::m_sockPing;
};

struct PingRecorder : CZuPingCallback {
  bool OnPingResponse(void* callbackInstance, const ZuPingResponse& response,
                      bool lastPacket) override {
    instances.push_back(callbackInstance);
    responses.push_back(response);
    lastPackets.push_back(lastPacket);
    return responses.size() < stopAfter;
  }
  void OnPingLog(const char* message) override { lines.emplace_back(message); }

  std::size_t stopAfter = SIZE_MAX;
  std::vector<void*> instances;
  std::vector<ZuPingResponse> responses;
  std::vector<bool> lastPackets;
  std::vector<std::string> lines;
};

// Whether the error has this code and these messages, innermost first.
inline testing::AssertionResult HasMessages(const CZuError& error, unsigned code,
                                            const std::vector<std::string>& messages) {
  const std::string rendered = error.AsString();
  if (static_cast<unsigned>(error.m_hrErrorCode) != code) {
    return testing::AssertionFailure() << "expected 0x" << std::hex << code << ", got " << rendered;
  }
  std::size_t position = 0;
  for (const std::string& message : messages) {
    position = rendered.find(message, position);
    if (position == std::string::npos) {
      return testing::AssertionFailure() << "\"" << message << "\" is missing in " << rendered;
    }
    position += message.size();
  }
  return testing::AssertionSuccess();
}
