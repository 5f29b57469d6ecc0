#pragma once

#include <sched.h>

#include <vector>

// The CPUs that the program was given, however it was pinned since.
inline const std::vector<int>& UsableCpus() {
  static const std::vector<int> cpus = [] {
    cpu_set_t set;
    std::vector<int> usable;
    if (sched_getaffinity(0, sizeof set, &set) != 0) return std::vector<int>{0};
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
      if (CPU_ISSET(cpu, &set)) usable.push_back(cpu);
    }
    return usable;
  }();
  return cpus;
}

// Keeps the calling thread, and what it starts, on one CPU.
inline void PinTo(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<size_t>(cpu), &set);
  sched_setaffinity(0, sizeof set, &set);
}
