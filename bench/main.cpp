// The benchmark program. It measures on one CPU, the last one it may use; the servers of run.sh
// have the first one.
//   --seconds=S   how long a row measures at least (2)
// Other arguments go to Google Benchmark. Exit status: 0 when every row that was judged keeps its
// limit, 1 when one is above it, 3 when none is but the machine disturbed some.

#include <Poco/Environment.h>
#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <asio/version.hpp>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "Compare.h"
#include "Cpus.h"

namespace {

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

double CounterOf(const benchmark::BenchmarkReporter::Run& run, const std::string& name) {
  const auto counter = run.counters.find(name);
  return counter == run.counters.end() ? 0.0 : counter->second.value;
}

std::string Duration(double nanoseconds) {
  const char* const units[] = {"ns", "us", "ms", "s"};
  size_t unit = 0;
  for (; nanoseconds >= 1000 && unit < 3; ++unit) nanoseconds /= 1000;
  char text[32];
  std::snprintf(text, sizeof text, "%.4g %s", nanoseconds, units[unit]);
  return text;
}

// Prints a line for each row and remembers which are above their limit.
class Judge : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& /*context*/) override {
    std::printf("%-42s %10s %10s %7s %15s  %s\n", "row", "ours", "floor", "ratio", "quartiles",
                "at most");
    return true;
  }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) ReportRun(run);
    std::fflush(stdout);
  }

  int Conclude() const {
    for (const std::string& row : m_disturbed) {
      std::printf("not judged, the machine was disturbed: %s\n", row.c_str());
    }
    for (const std::string& row : m_above) std::printf("ABOVE THE LIMIT: %s\n", row.c_str());
    if (!m_above.empty()) return 1;
    return m_disturbed.empty() ? 0 : 3;
  }

 private:
  void ReportRun(const Run& run) {
    const std::string& name = run.run_name.function_name;
    if (run.error_occurred) {
      std::printf("%-42s skipped: %s\n", name.c_str(), run.error_message.c_str());
      return;
    }
    std::printf("%-42s ", name.c_str());
    if (run.counters.count("bytes") != 0) {
      std::printf("%10.0f bytes %38s", CounterOf(run, "bytes"), "");
    } else {
      std::printf("%10s %10s %7.3f %7.3f-%7.3f  ", Duration(CounterOf(run, "ours_ns")).c_str(),
                  Duration(CounterOf(run, "floor_ns")).c_str(), CounterOf(run, "ratio"),
                  CounterOf(run, "low"), CounterOf(run, "high"));
    }
    JudgeRun(run, name);
    for (const auto& [counter, value] : run.counters) {
      if (StartsWith(counter, kBeside)) {
        std::printf("; %s %.2f", counter.c_str() + std::strlen(kBeside), value.value);
      }
    }
    std::printf("\n");
  }

  void JudgeRun(const Run& run, const std::string& name) {
    const bool isDisturbed = run.counters.count("floor_again") != 0 &&
                             std::abs(CounterOf(run, "floor_again") - 1) > kDisturbance;
    if (isDisturbed) m_disturbed.push_back(name);
    for (const auto& [counter, limit] : run.counters) {
      if (!StartsWith(counter, kAtMost)) continue;
      const std::string judged = counter.substr(std::strlen(kAtMost));
      const bool isAbove = CounterOf(run, judged) > limit.value;
      std::printf("%.4g%s%s", limit.value, judged == "ours_ns" ? " ns" : "",
                  isDisturbed ? " (disturbed)"
                  : isAbove   ? " ABOVE"
                              : "");
      if (isAbove && !isDisturbed) m_above.push_back(name);
    }
  }

  std::vector<std::string> m_disturbed;
  std::vector<std::string> m_above;
};

std::string Libraries() {
  const int poco = Poco::Environment::libraryVersion();  // a byte for each part
  char peers[64];
  std::snprintf(peers, sizeof peers, ", POCO %d.%d.%d, Asio %d.%d.%d", poco >> 24,
                poco >> 16 & 0xFF, poco >> 8 & 0xFF, ASIO_VERSION / 100000,
                ASIO_VERSION / 100 % 1000, ASIO_VERSION % 100);
  return std::string(curl_version()) + peers;
}

// Takes the program's own arguments out.
void TakeArguments(int& argc, char** argv) {
  constexpr std::string_view kSeconds = "--seconds=";
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    if (StartsWith(argv[i], kSeconds)) {
      gSecondsPerRow = std::atof(argv[i] + kSeconds.size());
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
}

}  // namespace

int main(int argc, char** argv) {
  TakeArguments(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::AddCustomContext("compiler", "g++ " __VERSION__);
  benchmark::AddCustomContext("libraries", Libraries());
  PinTo(UsableCpus().back());
  Judge judge;
  benchmark::RunSpecifiedBenchmarks(&judge);
  return judge.Conclude();
}
