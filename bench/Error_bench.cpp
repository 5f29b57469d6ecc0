// What an error value costs: nothing to speak of on success, less than an exception on failure.

#include "Compare.h"
#include "ZuUtils/ZuError.h"

namespace {

int gDescriptor = 3;  // read at run time, so that the outcome cannot be known beforehand

[[gnu::noinline]] CZuError CheckDescriptor(const int& descriptor) {
  if (descriptor == -1) {
    return FXErrorUtil::ErrorWin32(ZU_HERE, kErrorInvalidState, "Not a valid socket");
  }
  return {};
}

[[gnu::noinline]] CZuError Middle(const int& descriptor) {
  CZuError error = CheckDescriptor(descriptor);
  if (Failed(error)) error.Push(ZU_HERE);
  return error;
}

[[gnu::noinline]] CZuError Outer(const int& descriptor) {
  CZuError error = Middle(descriptor);
  if (Failed(error)) error.Push(ZU_HERE);
  return error;
}

[[gnu::noinline]] int CheckDescriptorPlain(const int& descriptor) {
  return descriptor == -1 ? -1 : 0;
}

[[gnu::noinline]] int MiddlePlain(const int& descriptor) {
  const int error = CheckDescriptorPlain(descriptor);
  if (error < 0) benchmark::ClobberMemory();
  return error;
}

[[gnu::noinline]] int OuterPlain(const int& descriptor) {
  const int error = MiddlePlain(descriptor);
  if (error < 0) benchmark::ClobberMemory();
  return error;
}

void SuccessThroughThreeFunctions(benchmark::State& state) {
  Compare(
      state, "1.2", 10000, [] { benchmark::DoNotOptimize(Failed(Outer(gDescriptor))); },
      [] { benchmark::DoNotOptimize(OuterPlain(gDescriptor) < 0); });
}
BENCHMARK(SuccessThroughThreeFunctions);

void ErrorThroughThreeFunctionsToText(benchmark::State& state) {
  const int none = -1;
  for (auto _ : state) benchmark::DoNotOptimize(Outer(none).AsString());
  state.SetLabel("at most 400 ns");
}
BENCHMARK(ErrorThroughThreeFunctionsToText);

}  // namespace
