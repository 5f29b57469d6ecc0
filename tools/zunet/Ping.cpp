#include "ZuNetwork/ZuPing.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

#include "Commands.h"
#include "Output.h"
#include "Signals.h"
#include "ZuUtils/FXString.h"

namespace {

constexpr int kExitNoReply = 1;

constexpr char kPrivilege[] =
    "raw sockets take root, or: setcap cap_net_raw+ep on the program's file";

constexpr int kLargestData = 65'535 - 20 - 8;  // of an IPv4 packet, without its header and ICMP's
constexpr int kLongestWait = 1'000'000;

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
    default:
      return "damaged reply";
  }
}

// Prints a line a packet, and in the end what they add up to.
class Report : public CZuPingCallback {
 public:
  bool OnPingResponse(void* /*instance*/, const ZuPingResponse& response,
                      bool /*lastPacket*/) override {
    const std::lock_guard lock(m_mutex);
    ++m_sent;
    const bool isReply = response.currentPingState == ZUPING_STATE_SUCCESS;
    const std::string line = isReply ? AddReply(response) : LineOfFailure(response);
    // Told by the main thread: on this one nothing may be thrown through the library.
    const bool isPrinted = std::fputs(line.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
    if (!isPrinted) m_printError = errno;
    return isPrinted;
  }

  void OnPingLog(const char* /*message*/) override {}  // the lines say as much

  // While the series still runs: it prints nothing more, and nothing may be torn down under it.
  [[noreturn]] void EndProgram(int status) {
    m_mutex.lock();
    try {
      PrintSummary();
    } catch (const CLI::RuntimeError& unwritten) {
      status = unwritten.get_exit_code();
    }
    std::_Exit(status);
  }

  // The rest is for when the series is over.

  void PrintSummary() const {
    if (m_printError != 0) {
      errno = m_printError;
      ExitOnUnwritten();
    }
    const double lost = m_sent == 0 ? 0.0 : 100.0 * (m_sent - m_received) / m_sent;
    Print(FXString::Format("%u sent, %u received, %.4g%% lost\n", m_sent, m_received, lost));
    if (m_received > 0) {
      Print(FXString::Format("time min/avg/max = %" PRId64 "/%.3f/%" PRId64 " ms\n", m_shortest,
                             static_cast<double>(m_total) / m_received, m_longest));
    }
    FlushOutput();
  }

  bool HasSent() const { return m_sent > 0; }
  int ExitStatus() const { return m_received > 0 ? EXIT_SUCCESS : kExitNoReply; }

 private:
  static std::string LineOfFailure(const ZuPingResponse& response) {
    if (response.currentPingState == ZUPING_STATE_ICMPERROR) {
      return FXString::Format("%s, says %s: seq=%u\n",
                              CZuPing::describeIcmpError(response.errorType, response.errorCode),
                              response.errorSender.c_str(), response.currentPingSequenceNumber);
    }
    return FXString::Format("%s from %s: seq=%u\n", Describe(response.currentPingState),
                            response.serverIP.c_str(), response.currentPingSequenceNumber);
  }

  std::string AddReply(const ZuPingResponse& response) {
    // Below zero when the clock was set back.
    const auto time =
        std::max<std::int64_t>(0, static_cast<std::int64_t>(response.currentPingtimeMS));
    m_shortest = m_received == 0 ? time : std::min(m_shortest, time);
    m_longest = std::max(m_longest, time);
    m_total += time;
    ++m_received;
    return FXString::Format("%u bytes from %s: seq=%u ttl=%u time=%" PRId64 " ms\n",
                            response.sizeSent, response.serverIP.c_str(),
                            response.currentPingSequenceNumber, response.ttl, time);
  }

  std::mutex m_mutex;
  unsigned m_sent = 0;
  unsigned m_received = 0;
  std::int64_t m_shortest = 0;
  std::int64_t m_longest = 0;
  std::int64_t m_total = 0;
  int m_printError = 0;
};

// Until a signal comes or the descriptor is readable, of which the latter counts.
bool WaitForEnd(int ended) {
  pollfd events[] = {{ended, POLLIN, 0}, {SignalDescriptor(), POLLIN, 0}};
  while (poll(events, std::size(events), -1) < 0 && errno == EINTR) {
  }
  return events[0].revents != 0;
}

// The series has a thread of its own, so that a signal need not wait for a sleep or a reply.
void Run(const Arguments& arguments) {
  NoteSignals();
  const int ended = eventfd(0, EFD_CLOEXEC);
  if (ended == -1) ExitOnFailure(FXErrorUtil::ErrorErrNo(ZU_HERE, errno, "No event counter"));
  Report report;
  CZuError error;
  std::thread series([&] {
    CZuPing ping;
    ping.setOwnRepliesOnly(true);
    ZuPingResult result;
    error = ping.ping(arguments.host.c_str(), arguments.size, arguments.count, arguments.limitSecs,
                      nullptr, &report, result, false);
    eventfd_write(ended, 1);
  });
  if (!WaitForEnd(ended)) report.EndProgram(kSignalStatus + NotedSignal());
  series.join();
  close(ended);
  if (!Failed(error) || report.HasSent()) report.PrintSummary();
  if (Failed(error)) error.Push(ZU_HERE, "Failed to ping %s", arguments.host.c_str());
  ExitOnFailure(error, FXErrorUtil::IsErrNo(error, EPERM) ? kPrivilege : nullptr);
  if (report.ExitStatus() != EXIT_SUCCESS) throw CLI::RuntimeError(report.ExitStatus());
}

}  // namespace

void AddPingCommands(CLI::App& app) {
  const auto arguments = std::make_shared<Arguments>();
  CLI::App* const command = app.add_subcommand(
      "ping", "Send ICMP echo requests, one a second (needs the privilege for raw sockets)");
  command->add_option("HOST", arguments->host)->required();
  command->add_option("-c,--count", arguments->count, "Requests to send")
      ->capture_default_str()
      ->check(WholeNumber(1, UINT_MAX, " requests"));
  command->add_option("-s,--size", arguments->size, "Bytes of data in each")
      ->capture_default_str()
      ->check(WholeNumber(1, kLargestData, " bytes"));
  command
      ->add_option("-W,--timeout", arguments->limitSecs,
                   "Seconds to wait for each reply; 0 for no limit")
      ->capture_default_str()
      ->check(WholeNumber(0, kLongestWait, " seconds"));
  command->callback([arguments] { Run(*arguments); });
}
