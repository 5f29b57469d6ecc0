#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

// Runs `ours` and `floor` in turns of `batch` calls each, in one process, and reports the median
// time of a call of both and, as the result, their ratio. Which one goes first changes every turn,
// so that both meet the machine in the same moods.
template <typename Ours, typename Floor>
void Compare(benchmark::State& state, const char* limit, int batch, Ours ours, Floor floor) {
  const auto measure = [batch](auto& call) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < batch; ++i) call();
    const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
    return time.count() / batch;
  };
  const auto median = [](std::vector<double>& times) {
    const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    return *middle;
  };

  measure(ours);
  measure(floor);
  std::vector<double> oursTimes;
  std::vector<double> floorTimes;
  for (auto _ : state) {
    const bool oursFirst = oursTimes.size() % 2 == 0;
    if (oursFirst) oursTimes.push_back(measure(ours));
    floorTimes.push_back(measure(floor));
    if (!oursFirst) oursTimes.push_back(measure(ours));
  }
  const double oursMedian = median(oursTimes);
  const double floorMedian = median(floorTimes);
  state.counters["ours_ns"] = oursMedian;
  state.counters["floor_ns"] = floorMedian;
  state.counters["ratio"] = oursMedian / floorMedian;
  state.SetLabel(std::string("ratio at most ") + limit);
}
