#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <functional>
#include <string>
#include <utility>
#include <vector>

// How a row is made: our call and the floor, which does the bare work and no more, run in turns in
// one process, and peers, which do the same work, beside them.

// A call to be timed. `time` runs it `count` times and gives the nanoseconds of one.
struct Timed {
  std::string name;  // what is called, for the reader of the report
  std::function<double(int count)> time;
};

// The call runs a little before the clock starts, so that it finds the caches its own.
template <typename Function>
Timed Call(std::string name, Function call) {
  return {std::move(name), [call](int count) mutable {
            for (int i = 0; i < count / 8; ++i) call();
            const auto start = std::chrono::steady_clock::now();
            for (int i = 0; i < count; ++i) call();
            const auto end = std::chrono::steady_clock::now();
            return std::chrono::duration<double, std::nano>(end - start).count() / count;
          }};
}

// The most that a counter of a row may be; a run above it fails. An empty name: no limit.
struct AtMost {
  std::string counter;
  double value = 0.0;
};

inline AtMost Ratio(double limit) { return {"ratio", limit}; }
inline AtMost Nanoseconds(double limit) { return {"ours_ns", limit}; }
inline AtMost Bytes(double limit) { return {"bytes", limit}; }
inline AtMost NoLimit() { return {}; }

// The floor against itself, in the same turns, may be off by this much; beyond it the machine was
// busy with something else, and the row is not judged.
constexpr double kDisturbance = 0.02;

// How long a row measures when nobody disturbs it, in seconds; some need longer for enough turns.
inline double gSecondsPerRow = 2.0;

// What the names of counters begin with that hold a limit, and a peer's ratio to the floor.
constexpr char kAtMost[] = "at most ";
constexpr char kBeside[] = "beside ";

// Measures a row. Every turn times each call once, in an order drawn anew; the floor has two
// places. Counters: `ratio` is the median over the turns of ours to either floor of the same
// turn, `low` and `high` are its quartiles, `floor_again` the median of the second floor to the
// first.
void Compare(benchmark::State& state, const AtMost& limit, const Timed& ours, const Timed& floor,
             const std::vector<Timed>& beside = {});

// A row of one number of bytes.
void ReportBytes(benchmark::State& state, const AtMost& limit, const std::string& what,
                 double bytes);

// A row is called FAMILY/CASE; the report makes a section of each family.
#define ROW(function, name) BENCHMARK(function)->Name(name)->Iterations(1)->UseManualTime()
#define ROW_OF(function, name, ...) \
  BENCHMARK_CAPTURE(function, name, __VA_ARGS__)->Name(name)->Iterations(1)->UseManualTime()
