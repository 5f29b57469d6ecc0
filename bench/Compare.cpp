#include "Compare.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace {

constexpr double kTurnNanoseconds = 10e6;
constexpr int kFewestTurns = 31;
constexpr int kMostRounds = 3;

double Quantile(std::vector<double> values, double part) {
  const auto place = values.begin() + static_cast<std::ptrdiff_t>(
                                          part * static_cast<double>(values.size() - 1) + 0.5);
  std::nth_element(values.begin(), place, values.end());
  return *place;
}

double Median(const std::vector<double>& values) { return Quantile(values, 0.5); }

// A call with what it took in each turn.
class Contestant {
 public:
  explicit Contestant(const Timed& call) : m_call(&call) {
    double once = m_call->time(1);
    while (once * m_count < kTurnNanoseconds / 4) once = m_call->time(m_count *= 2);
    m_count = std::max(1, static_cast<int>(kTurnNanoseconds / once));
  }

  void TakeTurn() { m_times.push_back(m_call->time(m_count)); }

  const std::string& Name() const { return m_call->name; }
  const std::vector<double>& Times() const { return m_times; }
  double SecondsPerTurn() const { return m_call->time(m_count) * m_count / 1e9; }

 private:
  const Timed* m_call;
  int m_count = 1;
  std::vector<double> m_times;
};

enum { kOurs, kFloor, kFloorAgain, kFirstPeer };

std::vector<double> Ratios(const Contestant& one, const Contestant& other) {
  std::vector<double> ratios = one.Times();
  for (size_t turn = 0; turn < ratios.size(); ++turn) ratios[turn] /= other.Times()[turn];
  return ratios;
}

// To either of its times in a turn.
std::vector<double> RatiosToFloor(const std::vector<Contestant>& all, size_t which) {
  std::vector<double> ratios = Ratios(all[which], all[kFloor]);
  const std::vector<double> toOther = Ratios(all[which], all[kFloorAgain]);
  ratios.insert(ratios.end(), toOther.begin(), toOther.end());
  return ratios;
}

double FloorAgain(const std::vector<Contestant>& all) {
  return Median(Ratios(all[kFloorAgain], all[kFloor]));
}

void TakeTurns(std::vector<Contestant>& all, int turns, std::mt19937& random) {
  std::vector<size_t> order(all.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  for (int turn = 0; turn < turns; ++turn) {
    std::shuffle(order.begin(), order.end(), random);
    for (const size_t which : order) all[which].TakeTurn();
  }
}

void SetLimit(benchmark::State& state, const AtMost& limit) {
  if (!limit.counter.empty()) state.counters[kAtMost + limit.counter] = limit.value;
}

}  // namespace

void Compare(benchmark::State& state, const AtMost& limit, const Timed& ours, const Timed& floor,
             const std::vector<Timed>& beside) {
  std::vector<Contestant> all = {Contestant(ours), Contestant(floor), Contestant(floor)};
  for (const Timed& peer : beside) all.emplace_back(peer);
  double turnSeconds = 0.0;
  for (const Contestant& contestant : all) turnSeconds += contestant.SecondsPerTurn();
  const int turns = std::max(kFewestTurns, static_cast<int>(gSecondsPerRow / turnSeconds));
  std::mt19937 random(1);
  for (auto _ : state) {
    TakeTurns(all, turns, random);
    // Turns are added until the machine is quiet, whatever came out for us.
    for (int round = 1; round < kMostRounds && std::abs(FloorAgain(all) - 1) > kDisturbance;
         ++round) {
      TakeTurns(all, turns, random);
    }
    state.SetIterationTime(Median(all[kOurs].Times()) / 1e9);
  }
  const std::vector<double> ratios = RatiosToFloor(all, kOurs);
  state.counters["ours_ns"] = Median(all[kOurs].Times());
  state.counters["floor_ns"] = Median(all[kFloor].Times());
  state.counters["ratio"] = Median(ratios);
  state.counters["low"] = Quantile(ratios, 0.25);
  state.counters["high"] = Quantile(ratios, 0.75);
  state.counters["floor_again"] = FloorAgain(all);
  state.counters["turns"] = static_cast<double>(all[kOurs].Times().size());
  for (size_t i = kFirstPeer; i < all.size(); ++i) {
    state.counters[kBeside + all[i].Name()] = Median(RatiosToFloor(all, i));
  }
  SetLimit(state, limit);
  state.SetLabel(ours.name + " against " + floor.name);
}

void ReportBytes(benchmark::State& state, const AtMost& limit, const std::string& what,
                 double bytes) {
  for (auto _ : state) state.SetIterationTime(0);
  state.counters["bytes"] = bytes;
  SetLimit(state, limit);
  state.SetLabel(what);
}
