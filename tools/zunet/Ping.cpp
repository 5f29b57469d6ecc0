#include "ZuNetwork/ZuPing.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

#include "Commands.h"

namespace {

constexpr int kExitNoReply = 1;

// Raised by the series when it is over; nobody else sends it.
constexpr int kSeriesEnded = SIGUSR1;

struct Arguments {
  std::string host;
  unsigned count = 4;
  unsigned size = 56;
  unsigned limitSecs = 2;
};

const char* Describe(KD_PING_STATE state) {
  switch (state) {
    case ZUPING_STATE_TIMEOUT:
      return "no reply";
    case ZUPING_STATE_DATALOSS:
      return "short reply";
    case ZUPING_STATE_BADCHECKSUM:
      return "damaged reply";
    default:
      return "foreign packet";
  }
}

// Prints a line a packet, and in the end what they add up to.
class Report : public CZuPingCallback {
 public:
  bool OnPingResponse(void* /*instance*/, const ZuPingResponse& response,
                      bool /*lastPacket*/) override {
    const std::lock_guard lock(m_mutex);
    ++m_sent;
    if (response.currentPingState == ZUPING_STATE_SUCCESS) {
      AddReply(response);
    } else {
      std::printf("%s from %s: seq=%u\n", Describe(response.currentPingState),
                  response.serverIP.c_str(), response.currentPingSequenceNumber);
    }
    std::fflush(stdout);
    return true;
  }

  void OnPingLog(const char* /*message*/) override {}  // the lines say as much

  // While the series still runs: it prints nothing more, and nothing may be torn down under it.
  [[noreturn]] void EndProgram() {
    m_mutex.lock();
    PrintSummary();
    std::_Exit(ExitStatus());
  }

  // The rest is for when the series is over.

  void PrintSummary() const {
    const double lost = m_sent == 0 ? 0.0 : 100.0 * (m_sent - m_received) / m_sent;
    std::printf("%u sent, %u received, %.4g%% lost\n", m_sent, m_received, lost);
    if (m_received > 0) {
      std::printf("time min/avg/max = %" PRId64 "/%.3f/%" PRId64 " ms\n", m_shortest,
                  static_cast<double>(m_total) / m_received, m_longest);
    }
    std::fflush(stdout);
  }

  bool HasSent() const { return m_sent > 0; }
  int ExitStatus() const { return m_received > 0 ? EXIT_SUCCESS : kExitNoReply; }

 private:
  void AddReply(const ZuPingResponse& response) {
    // Below zero when the clock was set back.
    const auto time =
        std::max<std::int64_t>(0, static_cast<std::int64_t>(response.currentPingtimeMS));
    m_shortest = m_received == 0 ? time : std::min(m_shortest, time);
    m_longest = std::max(m_longest, time);
    m_total += time;
    ++m_received;
    std::printf("%u bytes from %s: seq=%u ttl=%u time=%" PRId64 " ms\n", response.sizeSent,
                response.serverIP.c_str(), response.currentPingSequenceNumber, response.ttl, time);
  }

  std::mutex m_mutex;
  unsigned m_sent = 0;
  unsigned m_received = 0;
  std::int64_t m_shortest = 0;
  std::int64_t m_longest = 0;
  std::int64_t m_total = 0;
};

// The series has a thread of its own, so that Ctrl-C need not wait for a sleep or a reply.
void Run(const Arguments& arguments) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, kSeriesEnded);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  Report report;
  CZuError error;
  std::thread series([&] {
    CZuPing ping;
    ZuPingResult result;
    error = ping.ping(arguments.host.c_str(), arguments.size, arguments.count, arguments.limitSecs,
                      nullptr, &report, result, false);
    kill(getpid(), kSeriesEnded);
  });
  int signal = 0;
  sigwait(&signals, &signal);
  if (signal == SIGINT) report.EndProgram();
  series.join();
  if (!Failed(error) || report.HasSent()) report.PrintSummary();
  ExitOnFailure(error);
  if (report.ExitStatus() != EXIT_SUCCESS) throw CLI::RuntimeError(report.ExitStatus());
}

}  // namespace

void AddPingCommands(CLI::App& app) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App* const command = app.add_subcommand(
      "ping", "Send ICMP echo requests, one a second (needs the privilege for raw sockets)");
  command->add_option("HOST", arguments->host)->required();
  command->add_option("-c,--count", arguments->count, "Requests to send")->capture_default_str();
  command->add_option("-s,--size", arguments->size, "Bytes of data in each")->capture_default_str();
  command
      ->add_option("-W,--timeout", arguments->limitSecs,
                   "Seconds to wait for each reply; 0 for no limit")
      ->capture_default_str();
  command->callback([arguments] { Run(*arguments); });
}
