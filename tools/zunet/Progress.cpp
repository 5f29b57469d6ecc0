#include "Progress.h"

#include <chrono>
#include <cstdio>
#include <string>

namespace {

constexpr int kBarWidth = 40;
constexpr double kBytesPerMiB = 1048576.0;

bool gIsLineOpen = false;

double MiB(std::int64_t bytes) { return static_cast<double>(bytes) / kBytesPerMiB; }

}  // namespace

void DrawProgress(std::int64_t done, std::int64_t total) {
  using Clock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kInterval{100};
  static Clock::time_point next;
  static bool isFinished = false;
  const bool isComplete = total > 0 && done >= total;
  if (done == 0 || isFinished || (!isComplete && Clock::now() < next)) return;
  next = Clock::now() + kInterval;
  isFinished = isComplete;
  gIsLineOpen = !isComplete;
  if (total <= 0) {
    std::fprintf(stderr, "\r%10.1f MiB", MiB(done));
    return;
  }
  const double part = static_cast<double>(done) / static_cast<double>(total);
  const auto filled = static_cast<std::size_t>(part * kBarWidth);
  std::string bar(filled, '#');
  bar.resize(kBarWidth, ' ');
  std::fprintf(stderr, "\r%3.0f%% [%s] %.1f / %.1f MiB%s", part * 100, bar.c_str(), MiB(done),
               MiB(total), isComplete ? "\n" : "");
}

void FinishProgress() {
  if (gIsLineOpen) std::fputs("\n", stderr);
  gIsLineOpen = false;
}
