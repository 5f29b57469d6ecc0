// What an error value costs: nothing to speak of on success, less than an exception on failure.

#include <Poco/Exception.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "Compare.h"
#include "ZuUtils/ZuError.h"

namespace {

int gDescriptor = 3;  // read at run time, so that the outcome cannot be known beforehand
int gNone = -1;

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
  if (descriptor != -1) return 0;
  errno = EBADF;
  return -1;
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

// The same way with an exception that has a text.
[[gnu::noinline]] void CheckDescriptorOrThrow(const int& descriptor, bool asPoco) {
  if (descriptor != -1) return;
  if (asPoco) throw Poco::InvalidAccessException("Not a valid socket");
  throw std::system_error(EBADF, std::generic_category(), "Not a valid socket");
}

[[gnu::noinline]] void MiddleOrThrow(const int& descriptor, bool asPoco) {
  CheckDescriptorOrThrow(descriptor, asPoco);
  benchmark::ClobberMemory();
}

[[gnu::noinline]] void OuterOrThrow(const int& descriptor, bool asPoco) {
  MiddleOrThrow(descriptor, asPoco);
  benchmark::ClobberMemory();
}

void Success(benchmark::State& state) {
  Compare(state, Ratio(1.2),
          Call("a CZuError through three functions",
               [] { benchmark::DoNotOptimize(Failed(Outer(gDescriptor))); }),
          Call("an int", [] { benchmark::DoNotOptimize(OuterPlain(gDescriptor) < 0); }));
}
ROW(Success, "Errors/Success");

void FailureToText(benchmark::State& state) {
  Compare(state, Nanoseconds(310),
          Call("a CZuError through three functions, and AsString",
               [] { benchmark::DoNotOptimize(Outer(gNone).AsString()); }),
          Call("an int, and strerror",
               [] {
                 const std::string text = OuterPlain(gNone) < 0 ? std::strerror(errno) : "";
                 benchmark::DoNotOptimize(text.data());
               }),
          {Call("std::system_error",
                [] {
                  try {
                    OuterOrThrow(gNone, false);
                  } catch (const std::system_error& error) {
                    const std::string text = error.what();
                    benchmark::DoNotOptimize(text.data());
                  }
                }),
           Call("POCO", [] {
             try {
               OuterOrThrow(gNone, true);
             } catch (const Poco::Exception& error) {
               const std::string text = error.displayText();
               benchmark::DoNotOptimize(text.data());
             }
           })});
}
ROW(FailureToText, "Errors/FailureToText");

}  // namespace
