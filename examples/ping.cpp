// Pings a host three times: ping HOST. Needs the privilege to open a raw socket.
#include <ZuNetwork/ZuPing.h>

#include <cinttypes>
#include <cstdio>

// [ping]
class Printer : public CZuPingCallback {
 public:
  bool OnPingResponse(void* /*instance*/, const ZuPingResponse& response,
                      bool /*lastPacket*/) override {
    if (response.currentPingState == ZUPING_STATE_SUCCESS) {
      std::printf("%u: %" PRIu64 " ms\n", response.currentPingSequenceNumber,
                  response.currentPingtimeMS);
    } else {
      std::printf("%u: no good reply\n", response.currentPingSequenceNumber);
    }
    return true;  // go on
  }
  void OnPingLog(const char* message) override { std::printf("%s\n", message); }
};

CZuError Ping(const char* host, ZuPingResult& result) {
  constexpr unsigned kBytes = 56;
  constexpr unsigned kRequests = 3;
  constexpr unsigned kSecondsToWait = 2;
  Printer printer;
  // [own]
  CZuPing ping;
  ping.setOwnRepliesOnly(true);
  // [own]
  CZuError error =
      ping.ping(host, kBytes, kRequests, kSecondsToWait, nullptr, &printer, result, false);
  if (Failed(error)) error.Push(ZU_HERE);
  return error;
}
// [ping]

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: ping HOST\n", stderr);
    return 2;
  }
  ZuPingResult result;
  const CZuError error = Ping(argv[1], result);
  if (Failed(error)) {
    std::fprintf(stderr, "%s\n", error.AsString().c_str());
    return 2;
  }
  std::printf("%u of %u answered\n", result.buffersReceived, result.buffersSent);
  return result.buffersReceived > 0 ? 0 : 1;
}
